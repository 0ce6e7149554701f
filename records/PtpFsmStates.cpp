#include "PtpFsmStates.h"

#include <exception>

#include "Logger.h"

const char* PtpFsmStates::toText(en_states value) {
    switch (value) {
        case INIT:
            return "init";
        case FAILURE:
            return "failure";
        case MASTER:
            return "master";
        case SLAVE_UNSTABLE:
            return "slave-unstable";
        case SLAVE_STABLE:
            return "slave-stable";
    }
    return "undefined";
}

PtpFsmStates::en_states PtpFsmStates::fromText(const std::string& text) {
    for (en_states candidate : {FAILURE, MASTER, SLAVE_UNSTABLE, SLAVE_STABLE}) {
        if (text == toText(candidate)) {
            return candidate;
        }
    }
    return INIT;
}

void PtpFsmStates::Serialize(Json::Value& out) const {
    out["ptp-state"] = toText(state);
}

void PtpFsmStates::Deserialize(Json::Value& in) {
    bool read = false;
    try {
        const Json::Value text = in.get("ptp-state", "");
        // jsoncpp would turn a number into its digits; a state is only ever sent as text.
        if (text.isString()) {
            state = fromText(text.asString());
            read = true;
        }
    } catch (const std::exception&) {
        // Logged below, like any other unreadable input.
    }
    if (!read) {
        Logger::log(Logger::ERR, "[PtpFsmStates] Error de-serializing json [%s]",
                    in.toStyledString().c_str());
    }
}
