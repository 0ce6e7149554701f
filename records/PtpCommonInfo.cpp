#include "PtpCommonInfo.h"

namespace {

// A copy of the member, null when absent: reading must not add members to the caller's JSON,
// which is logged as received when it turns out unreadable.
Json::Value member(const Json::Value& in, const char* key) {
    return in.get(key, Json::Value());
}

}  // namespace

void PtpCommonInfo::Serialize(Json::Value& out) const {
    out["domainNumber"] = Json::UInt(domainNumber);
    out["offsetScaledLogVariance"] = Json::UInt(offsetScaledLogVariance);
    out["stepsRemoved"] = Json::UInt(stepsRemoved);
    out["offsetFromMaster"] = double(offsetFromMaster);
    out["meanPathDelay"] = double(meanPathDelay);
    out["slaveOnly"] = slaveOnly;
    profile.Serialize(out);
    local.Serialize(out["local"]);
    grandMaster.Serialize(out["grandMaster"]);
    if (!port.empty()) {
        Json::Value list(Json::arrayValue);
        for (const PtpBasePortInfo& entry : port) {
            Json::Value element(Json::objectValue);
            entry.Serialize(element);
            list.append(element);
        }
        out["port"] = list;
    }
}

void PtpCommonInfo::Deserialize(Json::Value& in) {
    profile.Deserialize(in);
    Json::Value nested = member(in, "local");
    local.Deserialize(nested);
    nested = member(in, "grandMaster");
    grandMaster.Deserialize(nested);
    domainNumber = static_cast<uint8_t>(in.get("domainNumber", 0).asUInt());
    offsetScaledLogVariance = static_cast<uint16_t>(in.get("offsetScaledLogVariance", 0).asUInt());
    stepsRemoved = static_cast<uint16_t>(in.get("stepsRemoved", 0).asUInt());
    offsetFromMaster = in.get("offsetFromMaster", 0).asFloat();
    meanPathDelay = in.get("meanPathDelay", 0).asFloat();
    slaveOnly = in.get("slaveOnly", true).asBool();
    Json::Value list = member(in, "port");
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        PtpBasePortInfo entry;
        entry.Deserialize(list[i]);
        port.push_back(entry);
    }
}
