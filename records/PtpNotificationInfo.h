#pragma once

#include <cstdint>
#include <string>

#include "IJsonSerializable.h"
#include "PtpCommonInfo.h"
#include "PtpFsmStates.h"

// What the state machine publishes on each action: the action for the media services, the
// grandmaster, the domain, the new state and the status it was decided on.
class PtpNotificationInfo : public IJsonSerializable {
  public:
    enum en_actions : int32_t {
        ACTION_UNDEFINED = 0,
        ACTION_MUTE_ALL = 1,
        ACTION_RESUME_ALL = 2,
        ACTION_RESET_RTP_TS = 3,
        ACTION_NO_ACTION = 4,
    };

    en_actions action = ACTION_UNDEFINED;
    // Grandmaster clock identity text, see clockIdentityText().
    std::string gmid;
    uint8_t domain = 0;
    PtpFsmStates ptpState;
    PtpCommonInfo details;

    // The action's text in the state machine's log lines: "no-action", "mute-all",
    // "resume-all", "reset-rtp-ts"; "undefined" for a value outside the enumeration.
    static const char* actionText(en_actions value);

    // The action travels as its number, the state as its text.
    void Serialize(Json::Value& out) const override;
    // Unreadable input is logged; fields read before the fault keep their new values. The
    // details' port list is appended to: read into a fresh record.
    void Deserialize(Json::Value& in) override;
};
