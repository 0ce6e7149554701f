#include "PtpStats.h"

#include <cmath>
#include <limits>

int32_t PtpStats::toStatValue(double delivered) {
    if (std::isnan(delivered)) {
        return 0;
    }
    const double rounded = std::trunc(delivered >= 0.0 ? delivered + 0.5 : delivered - 0.5);
    if (rounded >= double(std::numeric_limits<int32_t>::max())) {
        return std::numeric_limits<int32_t>::max();
    }
    if (rounded <= double(std::numeric_limits<int32_t>::min())) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(rounded);
}

void PtpStats::Serialize(Json::Value& out) const {
    out["masterOffsetRMS"] = Json::Int(masterOffsetRMS);
    out["masterOffsetMaxAbs"] = Json::Int(masterOffsetMaxAbs);
    out["freqDeviationMean"] = Json::Int(freqDeviationMean);
    out["freqDeviationStdDev"] = Json::Int(freqDeviationStdDev);
    out["pathDelayMean"] = Json::Int(pathDelayMean);
    out["pathDelayStdDev"] = Json::Int(pathDelayStdDev);
    out["offsetFromMaster"] = double(offsetFromMaster);
    out["offsetScaledLogVariance"] = Json::UInt(offsetScaledLogVariance);
}

void PtpStats::Deserialize(Json::Value& in) {
    masterOffsetRMS = in.get("masterOffsetRMS", 0).asInt();
    masterOffsetMaxAbs = in.get("masterOffsetMaxAbs", 0).asInt();
    freqDeviationMean = in.get("freqDeviationMean", 0).asInt();
    freqDeviationStdDev = in.get("freqDeviationStdDev", 0).asInt();
    pathDelayMean = in.get("pathDelayMean", 0).asInt();
    pathDelayStdDev = in.get("pathDelayStdDev", 0).asInt();
    offsetFromMaster = in.get("offsetFromMaster", 0).asFloat();
    offsetScaledLogVariance = static_cast<uint16_t>(in.get("offsetScaledLogVariance", 0).asUInt());
}
