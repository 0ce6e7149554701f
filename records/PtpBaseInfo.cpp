#include "PtpBaseInfo.h"

namespace {

constexpr uint8_t ACCURACY_TABLE_FIRST = 0x20;
constexpr uint8_t ACCURACY_TABLE_LAST = 0x31;
constexpr uint8_t ACCURACY_ALTERNATE_PROFILES = 0xFD;
constexpr uint8_t ACCURACY_UNKNOWN = 0xFE;

const char* const kAccuracyTable[] = {
    "within 25ns",  "within 100ns", "within 250ns", "within 1us", "within 2.5us", "within 10us",
    "within 25us",  "within 100us", "within 250us", "within 1ms", "within 25ms",  "within 100ms",
    "within 250ms", "within 10ms",  "within 250ms", "within 1s",  "within 10s",   ">10s",
};
static_assert(sizeof(kAccuracyTable) / sizeof(kAccuracyTable[0]) ==
                  ACCURACY_TABLE_LAST - ACCURACY_TABLE_FIRST + 1,
              "one text per table code");

}  // namespace

std::string PtpBaseInfo::getClockAccuracyText() const {
    if (clockAccuracy >= ACCURACY_TABLE_FIRST && clockAccuracy <= ACCURACY_TABLE_LAST) {
        return kAccuracyTable[clockAccuracy - ACCURACY_TABLE_FIRST];
    }
    if (clockAccuracy == ACCURACY_ALTERNATE_PROFILES) {
        return "Alternate PTP profiles";
    }
    if (clockAccuracy == ACCURACY_UNKNOWN) {
        return "Unknown";
    }
    return "Reserved";
}

void PtpBaseInfo::Serialize(Json::Value& out) const {
    out["id"] = id;
    out["priority1"] = Json::UInt(priority1);
    out["priority2"] = Json::UInt(priority2);
    out["clockClass"] = Json::UInt(clockClass);
    out["clockAccuracy"] = Json::UInt(clockAccuracy);
    out["clockAccuracyTable6"] = getClockAccuracyText();
    out["scaledLogVariance"] = Json::UInt(scaledLogVariance);
    out["slaveOnly"] = slaveOnly;
}

void PtpBaseInfo::Deserialize(Json::Value& in) {
    id = in.get("id", "").asString();
    priority1 = static_cast<uint8_t>(in.get("priority1", 0).asUInt());
    priority2 = static_cast<uint8_t>(in.get("priority2", 0).asUInt());
    clockClass = static_cast<uint8_t>(in.get("clockClass", 0).asUInt());
    clockAccuracy = static_cast<uint8_t>(in.get("clockAccuracy", 0).asUInt());
    scaledLogVariance = static_cast<uint16_t>(in.get("scaledLogVariance", 0).asUInt());
    slaveOnly = in.get("slaveOnly", true).asBool();
}
