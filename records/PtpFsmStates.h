#pragma once

#include <cstdint>
#include <string>

#include "IJsonSerializable.h"

// The state of the PTP status state machine, with its text form in notifications.
class PtpFsmStates : public IJsonSerializable {
  public:
    enum en_states : int32_t {
        INIT = 0,
        FAILURE = 1,
        MASTER = 2,
        SLAVE_UNSTABLE = 3,
        SLAVE_STABLE = 4,
    };

    en_states state = INIT;

    PtpFsmStates() = default;
    explicit PtpFsmStates(en_states initial) : state(initial) {}

    // "init", "failure", "master", "slave-unstable", "slave-stable"; "undefined" otherwise.
    static const char* toText(en_states value);
    // Exact, case-sensitive; any other text is INIT.
    static en_states fromText(const std::string& text);

    void Serialize(Json::Value& out) const override;
    // A "ptp-state" that is not a text is logged and leaves the state unchanged.
    void Deserialize(Json::Value& in) override;
};
