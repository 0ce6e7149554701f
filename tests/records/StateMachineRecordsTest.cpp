#include <gtest/gtest.h>

#include "Logger.h"
#include "PtpFsmStates.h"
#include "PtpNotificationInfo.h"
#include "RecordJson.h"
#include "StatusSamples.h"

namespace {

using record_json::parse;
using record_json::serialized;
using S = PtpFsmStates;
using N = PtpNotificationInfo;

// The state read from text into a record that was in state from; nothing may be logged.
S::en_states readState(const std::string& text, S::en_states from) {
    LogCapture log;
    S state(from);
    Json::Value in = parse(text);
    state.Deserialize(in);
    EXPECT_TRUE(log.lines().empty()) << text;
    return state.state;
}

TEST(PtpFsmStates, TextsTravelAndOnlyExactOnesAreRead) {
    const char* const texts[] = {"init", "failure", "master", "slave-unstable", "slave-stable"};
    for (int value = -1; value <= 5; ++value) {
        const bool known = value >= 0 && value <= 4;
        const std::string json =
            R"({"ptp-state": ")" + std::string(known ? texts[value] : "undefined") + "\"}";
        EXPECT_EQ(parse(json), serialized(S(S::en_states(value))));
        // Read back from another state: an unknown text, "undefined" included, is INIT.
        EXPECT_EQ(known ? S::en_states(value) : S::INIT,
                  readState(json, value == 2 ? S::SLAVE_STABLE : S::MASTER));
    }
    for (const char* text : {R"({"ptp-state": "Master"})", R"({"ptp-state": ""})", "{}"}) {
        EXPECT_EQ(S::INIT, readState(text, S::MASTER));
    }
}

TEST(PtpFsmStates, StateThatIsNoTextIsLoggedAndKept) {
    for (const char* text : {R"({"ptp-state": 2})", R"({"ptp-state": null})",
                             R"({"ptp-state": ["master"]})", R"([1, 2])", R"("master")"}) {
        SCOPED_TRACE(text);
        LogCapture log;
        S state(S::SLAVE_UNSTABLE);
        Json::Value in = parse(text);
        state.Deserialize(in);
        EXPECT_EQ(S::SLAVE_UNSTABLE, state.state);
        ASSERT_EQ(1u, log.lines().size());
        EXPECT_TRUE(log.contains(
            "[PtpFsmStates] Error de-serializing json [" + in.toStyledString() + "]", Logger::ERR));
    }
}

N sampleNotification() {
    N info;
    info.action = N::ACTION_MUTE_ALL;
    info.gmid = "0a-0b-0c-ff-fe-0d-0e-0f";
    info.domain = 127;
    info.ptpState.state = S::FAILURE;
    info.details = sampleStatus();
    return info;
}

TEST(PtpNotificationInfo, ActionAsNumberStateAsTextAndRoundTrip) {
    const char* const actions[] = {"no-action",    "mute-all",  "resume-all",
                                   "reset-rtp-ts", "no-action", "undefined"};
    for (int value = 0; value <= 5; ++value) {
        EXPECT_STREQ(actions[value], N::actionText(N::en_actions(value)));
    }
    Json::Value expected = parse(R"({"action": 1, "gmid": "0a-0b-0c-ff-fe-0d-0e-0f",
                                     "domain": 127, "ptp-state": "failure"})");
    expected["details"] = serialized(sampleStatus());
    EXPECT_EQ(expected, serialized(sampleNotification()));
    record_json::expectRoundTrip(sampleNotification());

    // Details' ports are appended; the domain takes its low eight bits; a state that is no text
    // is the state record's fault alone and keeps the state.
    N info;
    Json::Value wire = serialized(sampleNotification());
    info.Deserialize(wire);
    wire["domain"] = 300;
    wire["ptp-state"] = 4;
    LogCapture log;
    info.Deserialize(wire);
    EXPECT_EQ(4u, info.details.port.size());
    EXPECT_EQ(44, info.domain);
    EXPECT_EQ(S::FAILURE, info.ptpState.state);
    EXPECT_TRUE(log.containsFragment("[PtpFsmStates] Error de-serializing json"));
}

TEST(PtpNotificationInfo, FaultIsLoggedAndKeepsFieldsReadBeforeIt) {
    // Fields are read in the order gmid, domain, action, state, details.
    const struct {
        const char* json;
        const char* gmid;
        int domain;
        N::en_actions action;
        int detailsDomain;
    } cases[] = {
        {R"({"gmid": ["x"], "domain": 1})", "old", 99, N::ACTION_MUTE_ALL, 50},
        {R"({"gmid": "new", "domain": 1, "action": 2, "details": 7})", "new", 1,
         N::ACTION_RESUME_ALL, 50},
        {R"({"details": {"domainNumber": 3, "slaveOnly": "yes"}})", "", 0, N::ACTION_UNDEFINED, 3},
        {R"([])", "old", 99, N::ACTION_MUTE_ALL, 50},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        LogCapture log;
        N info;
        info.gmid = "old";
        info.domain = 99;
        info.action = N::ACTION_MUTE_ALL;
        info.details.domainNumber = 50;
        Json::Value in = parse(c.json);
        info.Deserialize(in);
        EXPECT_EQ(c.gmid, info.gmid);
        EXPECT_EQ(c.domain, info.domain);
        EXPECT_EQ(c.action, info.action);
        EXPECT_EQ(c.detailsDomain, info.details.domainNumber);
        ASSERT_EQ(1u, log.lines().size());
        EXPECT_TRUE(log.contains(
            "[PtpNotificationInfo] Error de-serializing json [" + in.toStyledString() + "]",
            Logger::ERR));
    }
}

}  // namespace
