#include "PtpBasePortInfo.h"

namespace {

int8_t readInt8(const Json::Value& in, const char* key) {
    return static_cast<int8_t>(in.get(key, 0).asInt());
}

}  // namespace

void PtpBasePortInfo::Serialize(Json::Value& out) const {
    out["id"] = id;
    out["roleStatus"] = roleStatus;
    out["roleStatusId"] = Json::UInt(roleStatusId);
    out["delayMechanism"] = delayMechanism;
    out["syncInterval"] = Json::Int(syncInterval);
    out["announceInterval"] = Json::Int(announceInterval);
    out["announceReceiptTimeout"] = Json::Int(announceReceiptTimeout);
    out["logMinPdelayReqInterval"] = Json::Int(logMinPdelayReqInterval);
    out["logMinDelayReqInterval"] = Json::Int(logMinDelayReqInterval);
    out["portId"] = Json::UInt(portId);
    out["peerMeanPathDelay"] = Json::Int64(peerMeanPathDelay);
}

void PtpBasePortInfo::Deserialize(Json::Value& in) {
    id = in.get("id", "").asString();
    roleStatus = in.get("roleStatus", "").asString();
    delayMechanism = in.get("delayMechanism", "").asString();
    roleStatusId = static_cast<uint8_t>(in.get("roleStatusId", 0).asUInt());
    portId = static_cast<uint16_t>(in.get("portId", 0).asUInt());
    syncInterval = readInt8(in, "syncInterval");
    announceInterval = readInt8(in, "announceInterval");
    announceReceiptTimeout = readInt8(in, "announceReceiptTimeout");
    logMinPdelayReqInterval = readInt8(in, "logMinPdelayReqInterval");
    logMinDelayReqInterval = readInt8(in, "logMinDelayReqInterval");
    peerMeanPathDelay = in.get("peerMeanPathDelay", 0).asInt64();
}
