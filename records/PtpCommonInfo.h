#pragma once

#include <cstdint>
#include <vector>

#include "IJsonSerializable.h"
#include "PtpBaseInfo.h"
#include "PtpBasePortInfo.h"
#include "PtpProfile.h"

// The whole PTP status of one poll: profile, local clock, grandmaster, current data set figures
// and the ports in the order they were read.
class PtpCommonInfo : public IJsonSerializable {
  public:
    PtpProfile profile;
    PtpBaseInfo local;
    PtpBaseInfo grandMaster;
    uint8_t domainNumber = 0;
    uint16_t offsetScaledLogVariance = 0;
    uint16_t stepsRemoved = 0;
    // Nanoseconds.
    float offsetFromMaster = 0.0f;
    float meanPathDelay = 0.0f;
    bool slaveOnly = true;
    std::vector<PtpBasePortInfo> port;

    // The profile's keys go into the same object; "port" is written only when there are ports.
    void Serialize(Json::Value& out) const override;
    // Appends the "port" entries to the ports already held: read into a fresh record.
    void Deserialize(Json::Value& in) override;
};
