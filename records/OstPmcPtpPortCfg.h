#pragma once

#include <cstdint>

#include "IJsonSerializable.h"

// One port's configured message intervals. Every member may be unset, so that a request can
// change only some of them.
class OstPmcPtpPortCfg : public IJsonSerializable {
  public:
    static constexpr int8_t NOT_SET = 127;

    int8_t port = NOT_SET;
    int8_t syncInterval = NOT_SET;
    int8_t announceInterval = NOT_SET;
    int8_t announceReceiptTimeout = NOT_SET;

    // Unset members are left out.
    void Serialize(Json::Value& out) const override;
    // Each member takes the low 8 bits of its key's value; a missing key leaves it unset.
    void Deserialize(Json::Value& in) override;
};
