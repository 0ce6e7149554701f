#pragma once

#include <cstdint>

#include "IJsonSerializable.h"

// The statistics that ptp4l computes (master offset, frequency deviation, path delay, in the
// units of its statistics data set) plus the current offset from master and variance.
class PtpStats : public IJsonSerializable {
  public:
    int32_t masterOffsetRMS = 0;
    int32_t masterOffsetMaxAbs = 0;
    int32_t freqDeviationMean = 0;
    int32_t freqDeviationStdDev = 0;
    int32_t pathDelayMean = 0;
    int32_t pathDelayStdDev = 0;
    // Nanoseconds; copies of the current status.
    float offsetFromMaster = 0.0f;
    uint16_t offsetScaledLogVariance = 0;

    // A statistic as ptp4l delivers it, rounded half away from zero. Values beyond the 32-bit
    // range (and NaN, as 0) are clamped rather than left to undefined conversion.
    static int32_t toStatValue(double delivered);

    void Serialize(Json::Value& out) const override;
    void Deserialize(Json::Value& in) override;
};
