#include <gtest/gtest.h>

#include "Logger.h"
#include "PtpFsmStates.h"
#include "PtpNotificationInfo.h"
#include "RecordJson.h"
#include "StatusSamples.h"

namespace {

using record_json::parse;
using record_json::readFrom;
using record_json::serialized;
using status_samples::expectSameStatus;
using status_samples::makeStatus;

using S = PtpFsmStates;
using N = PtpNotificationInfo;

std::string fsmError(const Json::Value& in) {
    return "[PtpFsmStates] Error de-serializing json [" + in.toStyledString() + "]";
}

std::string notificationError(const Json::Value& in) {
    return "[PtpNotificationInfo] Error de-serializing json [" + in.toStyledString() + "]";
}

// --- State ---

TEST(PtpFsmStates, TextOfEveryState) {
    const struct {
        int value;
        const char* text;
    } cases[] = {
        {0, "init"},         {1, "failure"},   {2, "master"},    {3, "slave-unstable"},
        {4, "slave-stable"}, {5, "undefined"}, {7, "undefined"}, {-1, "undefined"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_STREQ(c.text, S::toText(S::en_states(c.value)));
        EXPECT_JSON_EQ(std::string(R"({"ptp-state": ")") + c.text + "\"}",
                       serialized(S(S::en_states(c.value))));
    }
}

TEST(PtpFsmStates, ReadsExactTextsOnly) {
    const struct {
        const char* json;
        S::en_states expected;
    } cases[] = {
        {R"({"ptp-state": "init"})", S::INIT},
        {R"({"ptp-state": "failure"})", S::FAILURE},
        {R"({"ptp-state": "master"})", S::MASTER},
        {R"({"ptp-state": "slave-unstable"})", S::SLAVE_UNSTABLE},
        {R"({"ptp-state": "slave-stable"})", S::SLAVE_STABLE},
        // Anything else, the missing key included, is INIT.
        {R"({"ptp-state": "Master"})", S::INIT},
        {R"({"ptp-state": "undefined"})", S::INIT},
        {R"({"ptp-state": "slave_stable"})", S::INIT},
        {R"({"ptp-state": ""})", S::INIT},
        {R"({})", S::INIT},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        LogCapture log;
        S state(S::MASTER == c.expected ? S::SLAVE_STABLE : S::MASTER);
        Json::Value in = parse(c.json);
        state.Deserialize(in);
        EXPECT_EQ(c.expected, state.state);
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST(PtpFsmStates, UnreadableStateIsLoggedAndKept) {
    for (const char* text : {R"({"ptp-state": 2})", R"({"ptp-state": true})",
                             R"({"ptp-state": null})", R"({"ptp-state": ["master"]})",
                             R"({"ptp-state": {"state": "master"}})", R"([1, 2])", R"("master")"}) {
        SCOPED_TRACE(text);
        LogCapture log;
        S state(S::SLAVE_UNSTABLE);
        Json::Value in = parse(text);
        state.Deserialize(in);
        EXPECT_EQ(S::SLAVE_UNSTABLE, state.state);
        ASSERT_EQ(1u, log.lines().size());
        EXPECT_TRUE(log.contains(fsmError(in), Logger::ERR));
    }
}

// --- Notification ---

N makeNotification() {
    N info;
    info.action = N::ACTION_MUTE_ALL;
    info.gmid = "0a-0b-0c-ff-fe-0d-0e-0f";
    info.domain = 127;
    info.ptpState.state = S::FAILURE;
    info.details = makeStatus();
    return info;
}

void expectSameNotification(const N& expected, const N& actual) {
    EXPECT_EQ(expected.action, actual.action);
    EXPECT_EQ(expected.gmid, actual.gmid);
    EXPECT_EQ(expected.domain, actual.domain);
    EXPECT_EQ(expected.ptpState.state, actual.ptpState.state);
    expectSameStatus(expected.details, actual.details);
}

TEST(PtpNotificationInfo, ActionTexts) {
    const struct {
        int value;
        const char* text;
    } cases[] = {
        {0, "no-action"},    {1, "mute-all"},  {2, "resume-all"},
        {3, "reset-rtp-ts"}, {4, "no-action"}, {9, "undefined"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        EXPECT_STREQ(c.text, N::actionText(N::en_actions(c.value)));
    }
}

TEST(PtpNotificationInfo, SerializesActionAsNumberAndStateAsText) {
    Json::Value wire = serialized(makeNotification());
    Json::Value details;
    makeStatus().Serialize(details);
    Json::Value expected = parse(
        R"({"action": 1, "gmid": "0a-0b-0c-ff-fe-0d-0e-0f", "domain": 127,
            "ptp-state": "failure"})");
    expected["details"] = record_json::overTheWire(details);
    EXPECT_EQ(expected, wire);
}

TEST(PtpNotificationInfo, RoundTripForEveryActionAndState) {
    for (int action = 0; action <= 4; ++action) {
        for (int state = 0; state <= 4; ++state) {
            SCOPED_TRACE(std::to_string(action) + "/" + std::to_string(state));
            N original = makeNotification();
            original.action = N::en_actions(action);
            original.ptpState.state = S::en_states(state);
            expectSameNotification(original, record_json::roundTrip(original));
        }
    }
}

TEST(PtpNotificationInfo, MissingKeysReadAsDefaults) {
    LogCapture log;
    const auto info = readFrom<N>("{}");
    expectSameNotification(N(), info);
    EXPECT_TRUE(log.lines().empty());
}

TEST(PtpNotificationInfo, DomainNarrowsToEightBits) {
    EXPECT_EQ(44, readFrom<N>(R"({"domain": 300})").domain);
}

TEST(PtpNotificationInfo, UnreadableStateKeepsStateAndReadsTheRest) {
    LogCapture log;
    N info;
    info.ptpState.state = S::SLAVE_STABLE;
    Json::Value in = parse(R"({"action": 3, "gmid": "g", "ptp-state": 4,
                               "details": {"domainNumber": 9}})");
    info.Deserialize(in);
    EXPECT_EQ(S::SLAVE_STABLE, info.ptpState.state);
    EXPECT_EQ(N::ACTION_RESET_RTP_TS, info.action);
    EXPECT_EQ("g", info.gmid);
    EXPECT_EQ(9, info.details.domainNumber);
    ASSERT_EQ(1u, log.lines().size());
    EXPECT_TRUE(log.contains(fsmError(in), Logger::ERR));
}

TEST(PtpNotificationInfo, FaultKeepsFieldsReadBeforeIt) {
    const struct {
        const char* json;
        const char* gmid;
        int domain;
        N::en_actions action;
        S::en_states state;
        int detailsDomain;
    } cases[] = {
        // Fields are read in the order gmid, domain, action, state, details.
        {R"({"gmid": ["x"], "domain": 1})", "old", 99, N::ACTION_MUTE_ALL, S::MASTER, 50},
        {R"({"gmid": "new", "domain": -1, "action": 2})", "new", 99, N::ACTION_MUTE_ALL, S::MASTER,
         50},
        {R"({"gmid": "new", "domain": 1, "action": -2, "ptp-state": "failure"})", "new", 1,
         N::ACTION_MUTE_ALL, S::MASTER, 50},
        {R"({"gmid": "new", "domain": 1, "action": 2, "ptp-state": "failure", "details": 7})",
         "new", 1, N::ACTION_RESUME_ALL, S::FAILURE, 50},
        {R"({"action": 2, "ptp-state": "failure",
             "details": {"domainNumber": 3, "slaveOnly": "yes"}})",
         "", 0, N::ACTION_RESUME_ALL, S::FAILURE, 3},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        LogCapture log;
        N info;
        info.gmid = "old";
        info.domain = 99;
        info.action = N::ACTION_MUTE_ALL;
        info.ptpState.state = S::MASTER;
        info.details.domainNumber = 50;
        Json::Value in = parse(c.json);
        info.Deserialize(in);
        EXPECT_EQ(c.gmid, info.gmid);
        EXPECT_EQ(c.domain, info.domain);
        EXPECT_EQ(c.action, info.action);
        EXPECT_EQ(c.state, info.ptpState.state);
        EXPECT_EQ(c.detailsDomain, info.details.domainNumber);
        ASSERT_EQ(1u, log.lines().size());
        EXPECT_TRUE(log.contains(notificationError(in), Logger::ERR));
    }
}

TEST(PtpNotificationInfo, NonObjectInputIsLoggedOnce) {
    for (const char* text : {R"([])", R"("mute-all")", R"(1)"}) {
        SCOPED_TRACE(text);
        LogCapture log;
        N info;
        Json::Value in = parse(text);
        info.Deserialize(in);
        expectSameNotification(N(), info);
        ASSERT_EQ(1u, log.lines().size());
        EXPECT_TRUE(log.contains(notificationError(in), Logger::ERR));
    }
}

TEST(PtpNotificationInfo, DetailPortsAreAppended) {
    const Json::Value wire = serialized(makeNotification());
    N info;
    Json::Value first = wire;
    info.Deserialize(first);
    Json::Value second = wire;
    info.Deserialize(second);
    EXPECT_EQ(4u, info.details.port.size());
}

}  // namespace
