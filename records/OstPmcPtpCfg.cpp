#include "OstPmcPtpCfg.h"

namespace {

void writeIfSet(Json::Value& out, const char* key, uint8_t value) {
    if (value < OstPmcPtpCfg::NOT_SET_U8) {
        out[key] = Json::UInt(value);
    }
}

uint8_t readNarrowed(const Json::Value& in, const char* key) {
    return static_cast<uint8_t>(in.get(key, Json::UInt(OstPmcPtpCfg::NOT_SET_U8)).asUInt());
}

}  // namespace

void OstPmcPtpCfg::Serialize(Json::Value& out) const {
    profile.Serialize(out);
    writeIfSet(out, "domainNumber", domainNumber);
    writeIfSet(out, "priority1", priority1);
    writeIfSet(out, "priority2", priority2);
    out["cfgFilePath"] = m_cfg_path;
    out["slaveOnly"] = Json::Int(slaveOnly);
    if (!ports.empty()) {
        Json::Value& list = out["port"];
        // Element i is what entry i writes: an entry with nothing set leaves it null.
        for (Json::ArrayIndex i = 0; i < ports.size(); ++i) {
            ports[i].Serialize(list[i]);
        }
    }
}

void OstPmcPtpCfg::Deserialize(Json::Value& in) {
    profile.Deserialize(in);
    domainNumber = readNarrowed(in, "domainNumber");
    priority1 = readNarrowed(in, "priority1");
    priority2 = readNarrowed(in, "priority2");
    slaveOnly = in.get("slaveOnly", SLAVE_ONLY_NOT_SET).asInt();
    m_cfg_path = in.get("cfgFilePath", "").asString();
    Json::Value& list = in["port"];
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        OstPmcPtpPortCfg entry;
        entry.Deserialize(list[i]);
        ports.push_back(entry);
    }
}
