// The status state machine step by step, as operators and the device's media services see it:
// the log lines of each step, the state it leaves, and what a subscriber of topic "1000" gets.
#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "JsonText.h"
#include "Logger.h"
#include "NotificationSubscriber.h"
#include "OstPmcPublisher.h"
#include "PtpStatusFsm.h"

// Puts the machine into a state value it can never reach by itself.
struct PtpStatusFsmTestAccess {
    static void setState(PtpStatusFsm& fsm, int value) {
        fsm.state.state = static_cast<PtpFsmStates::en_states>(value);
    }
};

namespace {

using S = PtpFsmStates;
using A = PtpNotificationInfo;
using Input = PtpStatusFsmInputInfo;
using Path = std::vector<Input>;
using Lines = std::vector<std::string>;

const std::string GM_A = "00-1b-21-ff-fe-0a-0b-0c";
const std::string GM_B = "00-1b-21-ff-fe-0d-0e-0f";
const float NaN = std::numeric_limits<float>::quiet_NaN();

// One poll's input; the details differ from the defaults so that a lost or swapped field shows.
Input poll(int summary, const std::string& gm = GM_A, float offset = 0.0f, uint8_t domain = 0) {
    Input input;
    input.gmid = gm;
    input.domain = domain;
    input.summaryState = static_cast<PtpSummaryState>(summary);
    input.offsetFromMaster = offset;
    input.commonInfo.grandMaster.id = gm;
    input.commonInfo.domainNumber = domain;
    input.commonInfo.offsetFromMaster = offset;
    return input;
}

template <typename T>
std::vector<T> operator+(std::vector<T> first, const std::vector<T>& then) {
    first.insert(first.end(), then.begin(), then.end());
    return first;
}

// Starting states, each reached with GM_A and domain 0.
const Path AT_FAILURE = {poll(0)};
const Path AT_MASTER = AT_FAILURE + Path{poll(1)};
const Path AT_UNSTABLE = AT_FAILURE + Path{poll(2)};
const Path AT_UNSTABLE_1000 = AT_UNSTABLE + Path{poll(2, GM_A, 1000.0f)};
const Path AT_STABLE_1100 = AT_UNSTABLE_1000 + Path{poll(2, GM_A, 1200.0f)};

std::string minSize(int reached, const std::string& average) {
    return "SLAVE UNSTABLE: min size reached: " + std::to_string(reached) + " average: " + average;
}

const std::string MUTE = "Action [mute-all] requested";
const std::string RESUME = "Action [resume-all] requested";
const std::string A_TO_B = "GMID changed from [" + GM_A + "] to [" + GM_B + "]";
const std::string TO_STABLE = "transition from SLAVE UNSTABLE to SLAVE STABLE state (OFM average: ";

struct Row {
    const char* name;
    Path from;
    Input input;
    S::en_states to;
    // The step's lines before the closing "Current state" line, all at INF, without the
    // "PTP FSM: " every one of them starts with.
    Lines lines;
    A::en_actions action;  // UNDEFINED: nothing published
    int check;
    float threshold;  // set after reaching the starting state; 0: the default, 1500 ns
};

Row row(const char* name, Path from, Input input, S::en_states to, Lines lines,
        A::en_actions action = A::ACTION_UNDEFINED, int check = 0, float threshold = 0.0f) {
    return {name,   std::move(from), std::move(input), to, std::move(lines),
            action, check,           threshold};
}

// SLAVE UNSTABLE with an empty average: 500 is its first sample, of the grandmaster held.
Row firstSampleAfter(const char* name, const Path& from) {
    const std::string gm = from.back().gmid;
    return row(name, from, poll(2, gm, 500.0f), S::SLAVE_UNSTABLE, {minSize(0, "500.000000")});
}

// Inputs of the rows that publish carry GM_B where the machine keeps GM_A: the notification
// names the grandmaster the machine holds, the details are the poll's. One row switches the
// domain, which the machine takes from every poll.
const std::vector<Row> ROWS = {
    row("INIT, any summary", {}, poll(1, GM_B), S::FAILURE,
        {"transition from INIT to FAILURE state"}),
    row("FAILURE, master", AT_FAILURE, poll(1, GM_B), S::MASTER,
        {"transition from FAILURE to MASTER state", RESUME}, A::ACTION_RESUME_ALL, 85),
    row("FAILURE, slave", AT_FAILURE, poll(2, GM_B), S::SLAVE_UNSTABLE,
        {"transition from FAILURE to SLAVE UNSTABLE state"}),
    row("FAILURE, no role", AT_FAILURE, poll(0), S::FAILURE, {}),
    row("MASTER, no role, other domain", AT_MASTER, poll(0, GM_B, 0.0f, 1), S::FAILURE,
        {"domain switched from 0-->1", "transition from MASTER to FAIL state", MUTE},
        A::ACTION_MUTE_ALL, 109),
    row("MASTER, slave", AT_MASTER, poll(2, GM_B), S::SLAVE_UNSTABLE,
        {"transition from MASTER to SLAVE UNSTABLE state", MUTE}, A::ACTION_MUTE_ALL, 114),
    row("MASTER, master", AT_MASTER, poll(1, GM_B), S::MASTER, {}),
    row("SLAVE UNSTABLE, no role", AT_UNSTABLE_1000, poll(0, GM_B), S::FAILURE,
        {"transition from SLAVE UNSTABLE to FAIL state", MUTE}, A::ACTION_MUTE_ALL, 135),
    row("SLAVE UNSTABLE, master", AT_UNSTABLE_1000, poll(1, GM_B), S::MASTER,
        {"transition from SLAVE UNSTABLE to MASTER state", MUTE}, A::ACTION_MUTE_ALL, 163),
    row("SLAVE UNSTABLE, other grandmaster: not a sample", AT_UNSTABLE, poll(2, GM_B, 1.0f),
        S::SLAVE_UNSTABLE, {"maintaining state SLAVE UNSTABLE on GMID change", A_TO_B}),
    row("SLAVE UNSTABLE, first sample", AT_UNSTABLE, poll(2, GM_A, 1000.0f), S::SLAVE_UNSTABLE,
        {minSize(0, "1000.000000")}),
    row("SLAVE UNSTABLE, second sample within the threshold", AT_UNSTABLE_1000,
        poll(2, GM_A, 1200.0f), S::SLAVE_STABLE,
        {TO_STABLE + "1100.000000)", RESUME, minSize(1, "1100.000000")}, A::ACTION_RESUME_ALL, 154),
    row("SLAVE UNSTABLE, average exactly at the threshold",
        AT_UNSTABLE + Path{poll(2, GM_A, -1000.0f)}, poll(2, GM_A, -2000.0f), S::SLAVE_UNSTABLE,
        {minSize(1, "-1500.000000")}),
    row("SLAVE UNSTABLE, NaN average", AT_UNSTABLE_1000, poll(2, GM_A, NaN), S::SLAVE_UNSTABLE,
        {minSize(1, "nan")}),
    row("SLAVE UNSTABLE, the NaN has left the last five samples",
        AT_UNSTABLE + Path{poll(2, GM_A, NaN), poll(2), poll(2), poll(2), poll(2)}, poll(2),
        S::SLAVE_STABLE, {TO_STABLE + "0.000000)", RESUME, minSize(1, "0.000000")},
        A::ACTION_RESUME_ALL, 154),
    row("SLAVE UNSTABLE, unknown summary", AT_UNSTABLE, poll(7), S::SLAVE_UNSTABLE, {}),
    row("SLAVE STABLE, no role", AT_STABLE_1100, poll(0, GM_B), S::FAILURE,
        {"transition from SLAVE STABLE to FAIL state", MUTE}, A::ACTION_MUTE_ALL, 185),
    row("SLAVE STABLE, master", AT_STABLE_1100, poll(1, GM_B), S::MASTER,
        {"transition from SLAVE STABLE to MASTER state", "Action [reset-rtp-ts] requested"},
        A::ACTION_RESET_RTP_TS, 210),
    row("SLAVE STABLE, other grandmaster", AT_STABLE_1100, poll(2, GM_B), S::SLAVE_UNSTABLE,
        {"transition from SLAVE STABLE to SLAVE UNSTABLE - GMID changed", A_TO_B}),
    row("SLAVE STABLE, offsets are not sampled", AT_STABLE_1100, poll(2, GM_A, 1.0e9f),
        S::SLAVE_STABLE, {}),
    row("SLAVE STABLE, threshold lowered to the average", AT_STABLE_1100, poll(2),
        S::SLAVE_UNSTABLE,
        {"transition from SLAVE STABLE to SLAVE UNSTABLE state (OFM average: 1100.000000)", MUTE},
        A::ACTION_MUTE_ALL, 202, 1100.0f),
    row("SLAVE STABLE, unknown summary", AT_STABLE_1100, poll(4), S::SLAVE_STABLE, {}),
    // Leaving the slave states or following another grandmaster starts the average again.
    firstSampleAfter("back from FAILURE", AT_UNSTABLE_1000 + Path{poll(0), poll(2)}),
    firstSampleAfter("back from MASTER", AT_UNSTABLE_1000 + Path{poll(1), poll(2)}),
    firstSampleAfter("back from SLAVE STABLE by FAILURE", AT_STABLE_1100 + Path{poll(0), poll(2)}),
    firstSampleAfter("back from SLAVE STABLE by MASTER", AT_STABLE_1100 + Path{poll(1), poll(2)}),
    firstSampleAfter("another grandmaster followed", AT_STABLE_1100 + Path{poll(2, GM_B)}),
};

std::string notificationBody(A::en_actions action, const std::string& gm, uint8_t domain,
                             S::en_states state, const PtpCommonInfo& details) {
    PtpNotificationInfo notification;
    notification.action = action;
    notification.gmid = gm;
    notification.domain = domain;
    notification.ptpState.state = state;
    notification.details = details;
    Json::Value body;
    notification.Serialize(body);
    return JsonText::compact(body);
}

// The lines as "<level tag> <text>", the publish server's own complaints left out.
Lines tagged(const LogCapture& log) {
    Lines out;
    for (const LogCapture::Line& line : log.lines()) {
        if (line.text.rfind("PublishJsonServer:", 0) != 0) {
            out.push_back(std::string(Logger::levelTag(line.level)) + " " + line.text);
        }
    }
    return out;
}

std::string closing(S::en_states state) {
    return std::string("VRB PTP FSM: Current state: ") + S::toText(state);
}

// A bound publisher with a subscriber, as in the running device. The context is the test's
// own: ending it waits until the publish port is really released for the next test.
class PtpStatusFsmSteps : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(0, publisher.init(context));
        subscriber.emplace(context, publisher);
        subscriber->takeAll();
        ASSERT_FALSE(HasFailure()) << "no publication reached the subscriber";
    }

    // The row's step, taken after reaching its starting state through a publisher: the result,
    // the state left and the lines logged.
    std::tuple<int, S::en_states, Lines> take(const Row& row, OstPmcPublisher& through) {
        PtpStatusFsm fsm(through);
        {
            LogCapture path;
            for (Input input : row.from) {
                fsm.update(input);
            }
        }
        subscriber->takeAll();
        float threshold = row.threshold;
        if (threshold > 0) {
            fsm.setStabilityThreshold(threshold);
        }
        LogCapture log;
        Input input = row.input;
        const int rc = fsm.update(input);
        return {rc, fsm.getState(), tagged(log)};
    }

    zmq::context_t context;
    OstPmcPublisher publisher;
    std::optional<NotificationSubscriber> subscriber;
};

TEST_F(PtpStatusFsmSteps, EveryRowLogsItsLinesAndPublishesItsAction) {
    // A second publisher finds the port taken, so that each of its publications fails.
    OstPmcPublisher refused;
    {
        LogCapture expectedFailure;
        ASSERT_LT(refused.init(context), 0);
    }
    for (const Row& row : ROWS) {
        SCOPED_TRACE(row.name);
        Lines expected;
        for (const std::string& line : row.lines) {
            expected.push_back("INF PTP FSM: " + line);
        }
        auto [rc, state, lines] = take(row, publisher);
        EXPECT_EQ(0, rc);
        EXPECT_EQ(row.to, state);
        EXPECT_EQ(expected + Lines{closing(row.to)}, lines);
        std::vector<Publication> published;
        if (row.action != A::ACTION_UNDEFINED) {
            published = {{"1000", notificationBody(row.action, GM_A, row.input.domain, row.to,
                                                   row.input.commonInfo)}};
        }
        EXPECT_EQ(published, subscriber->takeAll());
        if (row.action == A::ACTION_UNDEFINED) {
            continue;
        }

        // A failed publication: the row's lines up to its action request, then the checks of
        // both levels; the new state stays.
        std::tie(rc, state, lines) = take(row, refused);
        EXPECT_EQ(-ENOTCONN, rc);
        EXPECT_EQ(row.to, state);
        while (expected.back().find("Action [") == std::string::npos) {
            expected.pop_back();
        }
        const std::string code = " Error Code " + std::to_string(-ENOTCONN);
        expected.push_back(
            "ERR CHK(int PtpStatusFsm::prepareActionExec(PtpNotificationInfo::en_actions, "
            "PtpCommonInfo&))::54" +
            code);
        expected.push_back("ERR CHK(int PtpStatusFsm::update(PtpStatusFsmInputInfo&))::" +
                           std::to_string(row.check) + code);
        EXPECT_EQ(expected, lines);
    }
}

// Stability lost on the average keeps the samples that made it: the next one joins 1000 and
// 1200.
TEST_F(PtpStatusFsmSteps, StabilityLostOnTheAverageKeepsItsSamples) {
    PtpStatusFsm fsm(publisher);
    for (Input input : AT_STABLE_1100) {
        fsm.update(input);
    }
    float lowered = 1100.0f;
    fsm.setStabilityThreshold(lowered);
    Input lost = poll(2), next = poll(2, GM_A, 1100.0f);
    fsm.update(lost);
    LogCapture log;
    EXPECT_EQ(0, fsm.update(next));
    EXPECT_EQ((Lines{"INF PTP FSM: " + minSize(1, "1100.000000"), closing(S::SLAVE_UNSTABLE)}),
              tagged(log));
}

TEST_F(PtpStatusFsmSteps, ImpossibleStateIsRepairedToInitWithoutNotification) {
    PtpStatusFsm fsm(publisher);
    PtpStatusFsmTestAccess::setState(fsm, 5);
    LogCapture log;
    Input input = poll(1);
    EXPECT_EQ(0, fsm.update(input));
    EXPECT_EQ(S::INIT, fsm.getState());
    EXPECT_EQ((Lines{"WRN PTP FSM: SHOULD NEVER REACH THIS. MOVE TO INIT STATE", closing(S::INIT)}),
              tagged(log));
    EXPECT_TRUE(subscriber->takeAll().empty());
}

// The log names only the three actions the machine requests; the number travels as given.
TEST_F(PtpStatusFsmSteps, OtherActionsAreLoggedAsNoAction) {
    PtpStatusFsm fsm(publisher);
    PtpCommonInfo details = poll(1).commonInfo;
    const auto other = static_cast<A::en_actions>(99);
    LogCapture log;
    EXPECT_EQ(0, fsm.prepareActionExec(other, details));
    EXPECT_EQ(Lines{"INF PTP FSM: Action [no-action] requested"}, tagged(log));
    EXPECT_EQ(
        (std::vector<Publication>{{"1000", notificationBody(other, "", 0, S::INIT, details)}}),
        subscriber->takeAll());
}

}  // namespace
