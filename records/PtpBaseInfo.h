#pragma once

#include <cstdint>
#include <string>

#include "IJsonSerializable.h"

// One clock's identity and quality: the local clock or the grandmaster.
class PtpBaseInfo : public IJsonSerializable {
  public:
    // Clock identity text, see clockIdentityText().
    std::string id;
    uint8_t priority1 = 0;
    uint8_t priority2 = 0;
    uint8_t clockClass = 0;
    // IEEE 1588 clockAccuracy code.
    uint8_t clockAccuracy = 0;
    // offsetScaledLogVariance of the clock quality.
    uint16_t scaledLogVariance = 0;
    bool slaveOnly = true;

    // The accuracy as operators know it from the device's web pages. The entries for 0x2A to
    // 0x2E and "Reserved" for 0x80 to 0xFC are the device's own and differ from IEEE 1588.
    std::string getClockAccuracyText() const;

    // Also writes the read-only "clockAccuracyTable6" text.
    void Serialize(Json::Value& out) const override;
    // Numbers are narrowed to their field's width; "clockAccuracyTable6" is ignored.
    void Deserialize(Json::Value& in) override;
};
