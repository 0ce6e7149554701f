#include "PtpNotificationInfo.h"

#include <exception>

#include "Logger.h"

const char* PtpNotificationInfo::actionText(en_actions value) {
    switch (value) {
        case ACTION_UNDEFINED:
        case ACTION_NO_ACTION:
            return "no-action";
        case ACTION_MUTE_ALL:
            return "mute-all";
        case ACTION_RESUME_ALL:
            return "resume-all";
        case ACTION_RESET_RTP_TS:
            return "reset-rtp-ts";
    }
    return "undefined";
}

void PtpNotificationInfo::Serialize(Json::Value& out) const {
    out["action"] = Json::Int(action);
    out["gmid"] = gmid;
    out["domain"] = Json::UInt(domain);
    ptpState.Serialize(out);
    details.Serialize(out["details"]);
}

void PtpNotificationInfo::Deserialize(Json::Value& in) {
    try {
        gmid = in.get("gmid", "").asString();
        domain = static_cast<uint8_t>(in.get("domain", 0).asUInt());
        action = static_cast<en_actions>(in.get("action", 0).asUInt());
        ptpState.Deserialize(in);
        // A copy, so that the input is logged as it was received.
        Json::Value nested = in.get("details", Json::Value());
        details.Deserialize(nested);
    } catch (const std::exception&) {
        Logger::log(Logger::ERR, "[PtpNotificationInfo] Error de-serializing json [%s]",
                    in.toStyledString().c_str());
    }
}
