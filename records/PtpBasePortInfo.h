#pragma once

#include <cstdint>
#include <string>

#include "IJsonSerializable.h"

// One PTP port's state and timing as ptp4l reports it.
class PtpBasePortInfo : public IJsonSerializable {
  public:
    // Clock identity text of the port, see clockIdentityText().
    std::string id;
    // Port state label.
    std::string roleStatus;
    // IEEE 1588 portState, 10 for a port of the grandmaster.
    uint8_t roleStatusId = 0;
    // Delay mechanism label.
    std::string delayMechanism;
    // log2 seconds.
    int8_t syncInterval = 0;
    int8_t announceInterval = 0;
    // Announce intervals.
    int8_t announceReceiptTimeout = 0;
    int8_t logMinPdelayReqInterval = 0;
    int8_t logMinDelayReqInterval = 0;
    uint16_t portId = 0;
    // Scaled nanoseconds, as ptp4l gives it.
    int64_t peerMeanPathDelay = 0;

    void Serialize(Json::Value& out) const override;
    // Numbers are narrowed to their field's width.
    void Deserialize(Json::Value& in) override;
};
