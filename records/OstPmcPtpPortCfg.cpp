#include "OstPmcPtpPortCfg.h"

namespace {

void writeIfSet(Json::Value& out, const char* key, int8_t value) {
    if (value != OstPmcPtpPortCfg::NOT_SET) {
        out[key] = Json::Int(value);
    }
}

int8_t readNarrowed(const Json::Value& in, const char* key) {
    return static_cast<int8_t>(in.get(key, Json::Int(OstPmcPtpPortCfg::NOT_SET)).asInt());
}

}  // namespace

void OstPmcPtpPortCfg::Serialize(Json::Value& out) const {
    writeIfSet(out, "port", port);
    writeIfSet(out, "syncInterval", syncInterval);
    writeIfSet(out, "announceInterval", announceInterval);
    writeIfSet(out, "announceReceiptTimeout", announceReceiptTimeout);
}

void OstPmcPtpPortCfg::Deserialize(Json::Value& in) {
    port = readNarrowed(in, "port");
    syncInterval = readNarrowed(in, "syncInterval");
    announceInterval = readNarrowed(in, "announceInterval");
    announceReceiptTimeout = readNarrowed(in, "announceReceiptTimeout");
}
