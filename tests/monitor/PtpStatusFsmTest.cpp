// The status state machine step by step, as operators and the device's media services see it:
// the log lines of each step, the state it leaves, and what a subscriber of topic "1000" gets.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <limits>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "JsonText.h"
#include "Logger.h"
#include "NotificationSubscriber.h"
#include "OstPmcPublisher.h"
#include "PtpStatusFsm.h"
#include "PublishJsonServer.h"

// Puts the machine into a state value it can never reach by itself.
struct PtpStatusFsmTestAccess {
    static void setState(PtpStatusFsm& fsm, int value) {
        fsm.state.state = static_cast<PtpFsmStates::en_states>(value);
    }
};

namespace {

using S = PtpFsmStates;
using A = PtpNotificationInfo;

const std::string GM_A = "00-1b-21-ff-fe-0a-0b-0c";
const std::string GM_B = "00-1b-21-ff-fe-0d-0e-0f";
const float NaN = std::numeric_limits<float>::quiet_NaN();
// Rows without an action publish nothing.
constexpr A::en_actions NONE = A::ACTION_UNDEFINED;

// One poll's input; the details differ from the defaults so that a lost or swapped field shows.
PtpStatusFsmInputInfo poll(int summary, const std::string& gm = GM_A, float offset = 0.0f,
                           uint8_t domain = 0) {
    PtpStatusFsmInputInfo input;
    input.gmid = gm;
    input.domain = domain;
    input.summaryState = static_cast<PtpSummaryState>(summary);
    input.offsetFromMaster = offset;
    input.commonInfo.grandMaster.id = gm;
    input.commonInfo.domainNumber = domain;
    input.commonInfo.offsetFromMaster = offset;
    input.commonInfo.stepsRemoved = 1;
    input.commonInfo.slaveOnly = false;
    return input;
}

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

std::string minSizeLine(int reached, const char* average) {
    return std::string("PTP FSM: SLAVE UNSTABLE: min size reached: ") + std::to_string(reached) +
           " average: " + average;
}

// How a row's machine got to its starting state; every path keeps GM_A and domain 0.
enum class Start { Init, Failure, Master, SlaveUnstable, SlaveUnstableAt1000, SlaveStableAt1100 };

void reach(PtpStatusFsm& fsm, Start start) {
    std::vector<PtpStatusFsmInputInfo> steps;
    switch (start) {
        case Start::Init:
            break;
        case Start::Failure:
            steps = {poll(0)};
            break;
        case Start::Master:
            steps = {poll(0), poll(1)};
            break;
        case Start::SlaveUnstable:
            steps = {poll(0), poll(2)};
            break;
        case Start::SlaveUnstableAt1000:
            steps = {poll(0), poll(2), poll(2, GM_A, 1000.0f)};
            break;
        case Start::SlaveStableAt1100:
            steps = {poll(0), poll(2), poll(2, GM_A, 1000.0f), poll(2, GM_A, 1200.0f)};
            break;
    }
    // Publications may fail here on purpose; the state is what counts.
    for (PtpStatusFsmInputInfo& step : steps) {
        fsm.update(step);
    }
}

struct Row {
    const char* name;
    Start from;
    PtpStatusFsmInputInfo input;
    S::en_states to;
    // The step's lines before the closing "Current state" line, all at INF.
    std::vector<std::string> lines;
    A::en_actions action;
    int check;
    // Set after reaching the starting state.
    float threshold;
};

Row row(const char* name, Start from, PtpStatusFsmInputInfo input, S::en_states to,
        std::vector<std::string> lines, A::en_actions action = NONE, int check = 0,
        float threshold = 1500.0f) {
    return {name, from, std::move(input), to, std::move(lines), action, check, threshold};
}

const std::string MUTE = "PTP FSM: Action [mute-all] requested";
const std::string RESUME = "PTP FSM: Action [resume-all] requested";
const std::string RESET_RTP = "PTP FSM: Action [reset-rtp-ts] requested";
const std::string INIT_TO_FAILURE = "PTP FSM: transition from INIT to FAILURE state";
const std::string A_TO_B = "PTP FSM: GMID changed from [" + GM_A + "] to [" + GM_B + "]";

// Inputs of the rows that publish carry GM_B where the machine keeps GM_A: the notification
// names the grandmaster the machine holds, the details are the poll's.
const std::vector<Row>& rows() {
    static const std::vector<Row> table = {
        row("INIT, master", Start::Init, poll(1, GM_B, 5.0f), S::FAILURE, {INIT_TO_FAILURE}),
        row("INIT, slave", Start::Init, poll(2, GM_B, 5.0f), S::FAILURE, {INIT_TO_FAILURE}),
        row("INIT, no role", Start::Init, poll(0), S::FAILURE, {INIT_TO_FAILURE}),
        row("FAILURE, master", Start::Failure, poll(1, GM_B), S::MASTER,
            {"PTP FSM: transition from FAILURE to MASTER state", RESUME}, A::ACTION_RESUME_ALL, 85),
        row("FAILURE, slave", Start::Failure, poll(2, GM_B), S::SLAVE_UNSTABLE,
            {"PTP FSM: transition from FAILURE to SLAVE UNSTABLE state"}),
        row("FAILURE, no role", Start::Failure, poll(0), S::FAILURE, {}),
        row("FAILURE, unknown summary", Start::Failure, poll(3), S::FAILURE, {}),
        row("MASTER, no role", Start::Master, poll(0, GM_B), S::FAILURE,
            {"PTP FSM: transition from MASTER to FAIL state", MUTE}, A::ACTION_MUTE_ALL, 109),
        row("MASTER, slave", Start::Master, poll(2, GM_B), S::SLAVE_UNSTABLE,
            {"PTP FSM: transition from MASTER to SLAVE UNSTABLE state", MUTE}, A::ACTION_MUTE_ALL,
            114),
        row("MASTER, master", Start::Master, poll(1, GM_B), S::MASTER, {}),
        row("MASTER, unknown summary", Start::Master, poll(-1), S::MASTER, {}),
        row("SLAVE UNSTABLE, no role", Start::SlaveUnstableAt1000, poll(0, GM_B), S::FAILURE,
            {"PTP FSM: transition from SLAVE UNSTABLE to FAIL state", MUTE}, A::ACTION_MUTE_ALL,
            135),
        row("SLAVE UNSTABLE, master", Start::SlaveUnstableAt1000, poll(1, GM_B), S::MASTER,
            {"PTP FSM: transition from SLAVE UNSTABLE to MASTER state", MUTE}, A::ACTION_MUTE_ALL,
            163),
        row("SLAVE UNSTABLE, other grandmaster", Start::SlaveUnstable, poll(2, GM_B, 1.0f),
            S::SLAVE_UNSTABLE,
            {"PTP FSM: maintaining state SLAVE UNSTABLE on GMID change", A_TO_B}),
        row("SLAVE UNSTABLE, first sample", Start::SlaveUnstable, poll(2, GM_A, 1000.0f),
            S::SLAVE_UNSTABLE, {minSizeLine(0, "1000.000000")}),
        row("SLAVE UNSTABLE, second sample within the threshold", Start::SlaveUnstableAt1000,
            poll(2, GM_A, 1200.0f), S::SLAVE_STABLE,
            {"PTP FSM: transition from SLAVE UNSTABLE to SLAVE STABLE state (OFM average: "
             "1100.000000)",
             RESUME, minSizeLine(1, "1100.000000")},
            A::ACTION_RESUME_ALL, 154),
        row("SLAVE UNSTABLE, unknown summary", Start::SlaveUnstable, poll(7), S::SLAVE_UNSTABLE,
            {}),
        row("SLAVE STABLE, no role", Start::SlaveStableAt1100, poll(0, GM_B), S::FAILURE,
            {"PTP FSM: transition from SLAVE STABLE to FAIL state", MUTE}, A::ACTION_MUTE_ALL, 185),
        row("SLAVE STABLE, master", Start::SlaveStableAt1100, poll(1, GM_B), S::MASTER,
            {"PTP FSM: transition from SLAVE STABLE to MASTER state", RESET_RTP},
            A::ACTION_RESET_RTP_TS, 210),
        row("SLAVE STABLE, other grandmaster", Start::SlaveStableAt1100, poll(2, GM_B),
            S::SLAVE_UNSTABLE,
            {"PTP FSM: transition from SLAVE STABLE to SLAVE UNSTABLE - GMID changed", A_TO_B}),
        row("SLAVE STABLE, offsets are not sampled", Start::SlaveStableAt1100,
            poll(2, GM_A, 1.0e9f), S::SLAVE_STABLE, {}),
        row("SLAVE STABLE, a NaN offset is not sampled", Start::SlaveStableAt1100,
            poll(2, GM_A, NaN), S::SLAVE_STABLE, {}),
        row("SLAVE STABLE, threshold lowered to the average", Start::SlaveStableAt1100, poll(2),
            S::SLAVE_UNSTABLE,
            {"PTP FSM: transition from SLAVE STABLE to SLAVE UNSTABLE state (OFM average: "
             "1100.000000)",
             MUTE},
            A::ACTION_MUTE_ALL, 202, 1100.0f),
        row("SLAVE STABLE, threshold lowered just above the average", Start::SlaveStableAt1100,
            poll(2), S::SLAVE_STABLE, {}, NONE, 0, 1100.5f),
        row("SLAVE STABLE, unknown summary", Start::SlaveStableAt1100, poll(4), S::SLAVE_STABLE,
            {}),
    };
    return table;
}

struct Step {
    int rc;
    std::vector<LogCapture::Line> lines;
};

// One update with its log lines.
Step step(PtpStatusFsm& fsm, PtpStatusFsmInputInfo input) {
    LogCapture log;
    const int rc = fsm.update(input);
    return {rc, log.lines()};
}

// The lines as "<level tag> <text>", the publish server's own complaints left out.
std::vector<std::string> tagged(const std::vector<LogCapture::Line>& lines) {
    std::vector<std::string> out;
    for (const LogCapture::Line& line : lines) {
        if (line.text.rfind("PublishJsonServer:", 0) != 0) {
            out.push_back(std::string(Logger::levelTag(line.level)) + " " + line.text);
        }
    }
    return out;
}

std::vector<std::string> info(const std::vector<std::string>& texts) {
    std::vector<std::string> out;
    for (const std::string& text : texts) {
        out.push_back("INF " + text);
    }
    return out;
}

std::string closing(S::en_states state) {
    return std::string("VRB PTP FSM: Current state: ") + S::toText(state);
}

// A bound publisher, as in the running device. The context is the test's own: ending it waits
// until the publish port is really released, so that the next test can bind it again.
class PtpStatusFsmSteps : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, publisher.init(context)); }

    zmq::context_t context;
    OstPmcPublisher publisher;
};

TEST_F(PtpStatusFsmSteps, EveryRowLogsItsLinesAndPublishesItsAction) {
    NotificationSubscriber subscriber(context, publisher);
    ASSERT_TRUE(subscriber.connected());
    for (const Row& row : rows()) {
        SCOPED_TRACE(row.name);
        PtpStatusFsm fsm(publisher);
        reach(fsm, row.from);
        float threshold = row.threshold;
        fsm.setStabilityThreshold(threshold);
        subscriber.takeAll();

        const Step done = step(fsm, row.input);
        EXPECT_EQ(0, done.rc);
        EXPECT_EQ(row.to, fsm.getState());
        std::vector<std::string> expected = info(row.lines);
        expected.push_back(closing(row.to));
        EXPECT_EQ(expected, tagged(done.lines));

        const std::vector<Publication> published = subscriber.takeAll();
        if (row.action == NONE) {
            EXPECT_TRUE(published.empty());
            continue;
        }
        ASSERT_EQ(1u, published.size());
        EXPECT_EQ("1000", published[0].topic);
        EXPECT_EQ(notificationBody(row.action, GM_A, 0, row.to, row.input.commonInfo),
                  published[0].body);
    }
}

// The stability rule over a run of samples: strictly below the threshold, in absolute value, over
// the last five; NaN never qualifies, and stays in the average until it leaves the window.
TEST_F(PtpStatusFsmSteps, SlaveIsStableOnlyWhenTheAverageIsStrictlyBelowTheThreshold) {
    NotificationSubscriber subscriber(context, publisher);
    ASSERT_TRUE(subscriber.connected());
    PtpStatusFsm fsm(publisher);
    reach(fsm, Start::SlaveUnstable);
    subscriber.takeAll();
    const std::pair<float, std::string> unstable[] = {
        {-1000.0f, minSizeLine(0, "-1000.000000")},
        // Exactly the threshold: not below it.
        {-2000.0f, minSizeLine(1, "-1500.000000")},
        {NaN, minSizeLine(1, "-?nan")},
        {0.0f, minSizeLine(1, "-?nan")},
        {0.0f, minSizeLine(1, "-?nan")},
        {0.0f, minSizeLine(1, "-?nan")},
        {0.0f, minSizeLine(1, "-?nan")},
    };
    for (const auto& sample : unstable) {
        SCOPED_TRACE(sample.second);
        const Step done = step(fsm, poll(2, GM_A, sample.first));
        EXPECT_EQ(S::SLAVE_UNSTABLE, fsm.getState());
        const std::vector<std::string> lines = tagged(done.lines);
        ASSERT_EQ(2u, lines.size());
        EXPECT_TRUE(std::regex_match(lines[0], std::regex("INF " + sample.second))) << lines[0];
        EXPECT_EQ(closing(S::SLAVE_UNSTABLE), lines[1]);
    }
    EXPECT_TRUE(subscriber.takeAll().empty());

    // The NaN has left the window of five.
    const PtpStatusFsmInputInfo last = poll(2, GM_A, 0.0f);
    const Step done = step(fsm, last);
    EXPECT_EQ(S::SLAVE_STABLE, fsm.getState());
    EXPECT_EQ((std::vector<std::string>{
                  "INF PTP FSM: transition from SLAVE UNSTABLE to SLAVE STABLE state (OFM "
                  "average: 0.000000)",
                  "INF PTP FSM: Action [resume-all] requested", "INF " + minSizeLine(1, "0.000000"),
                  closing(S::SLAVE_STABLE)}),
              tagged(done.lines));
    const std::vector<Publication> published = subscriber.takeAll();
    ASSERT_EQ(1u, published.size());
    EXPECT_EQ(notificationBody(A::ACTION_RESUME_ALL, GM_A, 0, S::SLAVE_STABLE, last.commonInfo),
              published[0].body);
}

// Where the average starts again: empty after leaving the slave states or a grandmaster change,
// kept when stability is lost on the average.
TEST_F(PtpStatusFsmSteps, AverageIsResetOnLeavingTheSlaveStatesAndKeptWhenStabilityIsLost) {
    // The min-size line of the path's last step, the first sample back in SLAVE UNSTABLE.
    auto firstSampleBack = [this](Start from, float threshold,
                                  std::vector<PtpStatusFsmInputInfo> path) {
        PtpStatusFsm fsm(publisher);
        reach(fsm, from);
        fsm.setStabilityThreshold(threshold);
        Step done{};
        for (const PtpStatusFsmInputInfo& input : path) {
            done = step(fsm, input);
            EXPECT_EQ(0, done.rc);
        }
        EXPECT_EQ(S::SLAVE_UNSTABLE, fsm.getState());
        const std::vector<std::string> lines = tagged(done.lines);
        return lines.empty() ? std::string() : lines.front();
    };
    const std::string empty = "INF " + minSizeLine(0, "500.000000");
    const PtpStatusFsmInputInfo sample = poll(2, GM_A, 500.0f);
    EXPECT_EQ(empty,
              firstSampleBack(Start::SlaveStableAt1100, 1500.0f, {poll(0), poll(2), sample}));
    EXPECT_EQ(empty,
              firstSampleBack(Start::SlaveStableAt1100, 1500.0f, {poll(1), poll(2), sample}));
    EXPECT_EQ(empty, firstSampleBack(Start::SlaveStableAt1100, 1500.0f,
                                     {poll(2, GM_B), poll(2, GM_B, 500.0f)}));
    EXPECT_EQ(empty,
              firstSampleBack(Start::SlaveUnstableAt1000, 1500.0f, {poll(0), poll(2), sample}));
    EXPECT_EQ(empty,
              firstSampleBack(Start::SlaveUnstableAt1000, 1500.0f, {poll(1), poll(2), sample}));
    // Lost on the average: 1000 and 1200 are still there.
    EXPECT_EQ(
        "INF " + minSizeLine(1, "1100.000000"),
        firstSampleBack(Start::SlaveStableAt1100, 1100.0f, {poll(2), poll(2, GM_A, 1100.0f)}));
}

std::string gmidOf(const Publication& publication) {
    Json::Value body;
    EXPECT_TRUE(JsonText::parse(publication.body.data(), publication.body.size(), body));
    return body["gmid"].asString();
}

// The machine's grandmaster changes at INIT and on the grandmaster-change rows only, and the
// step of a change is not a sample.
TEST_F(PtpStatusFsmSteps, GrandmasterIsTakenOverOnlyAtInitAndOnAChange) {
    NotificationSubscriber subscriber(context, publisher);
    ASSERT_TRUE(subscriber.connected());
    PtpStatusFsm fsm(publisher);
    EXPECT_EQ(0, step(fsm, poll(0, GM_A)).rc);
    EXPECT_EQ(GM_A, fsm.getGmid());
    EXPECT_EQ(0, step(fsm, poll(2, GM_B)).rc);
    EXPECT_EQ(S::SLAVE_UNSTABLE, fsm.getState());
    EXPECT_EQ(GM_A, fsm.getGmid());

    Step done = step(fsm, poll(2, GM_B, 1000.0f));
    EXPECT_EQ(GM_B, fsm.getGmid());
    EXPECT_EQ(
        (std::vector<std::string>{"INF PTP FSM: maintaining state SLAVE UNSTABLE on GMID change",
                                  "INF " + A_TO_B, closing(S::SLAVE_UNSTABLE)}),
        tagged(done.lines));
    // The first sample of the new grandmaster is the next one.
    done = step(fsm, poll(2, GM_B, 1000.0f));
    EXPECT_EQ("INF " + minSizeLine(0, "1000.000000"), tagged(done.lines).front());
    EXPECT_TRUE(subscriber.takeAll().empty());

    EXPECT_EQ(0, step(fsm, poll(2, GM_B, 1200.0f)).rc);
    EXPECT_EQ(S::SLAVE_STABLE, fsm.getState());
    // Leaving for MASTER keeps the grandmaster the machine holds.
    EXPECT_EQ(0, step(fsm, poll(1, GM_A)).rc);
    EXPECT_EQ(GM_B, fsm.getGmid());
    const std::vector<Publication> published = subscriber.takeAll();
    ASSERT_EQ(2u, published.size());
    EXPECT_EQ(GM_B, gmidOf(published[0]));
    EXPECT_EQ(GM_B, gmidOf(published[1]));
}

TEST_F(PtpStatusFsmSteps, DomainSwitchIsLoggedAndCarriedByTheNextNotification) {
    NotificationSubscriber subscriber(context, publisher);
    ASSERT_TRUE(subscriber.connected());
    PtpStatusFsm fsm(publisher);
    reach(fsm, Start::Master);
    subscriber.takeAll();

    Step done = step(fsm, poll(1, GM_A, 0.0f, 1));
    EXPECT_EQ(
        (std::vector<std::string>{"INF PTP FSM: domain switched from 0-->1", closing(S::MASTER)}),
        tagged(done.lines));
    EXPECT_EQ(S::MASTER, fsm.getState());
    EXPECT_TRUE(subscriber.takeAll().empty());

    const PtpStatusFsmInputInfo lost = poll(0, GM_A, 0.0f, 1);
    done = step(fsm, lost);
    EXPECT_EQ(0, done.rc);
    const std::vector<Publication> published = subscriber.takeAll();
    ASSERT_EQ(1u, published.size());
    EXPECT_EQ(notificationBody(A::ACTION_MUTE_ALL, GM_A, 1, S::FAILURE, lost.commonInfo),
              published[0].body);
}

TEST_F(PtpStatusFsmSteps, ImpossibleStateIsRepairedToInitWithoutNotification) {
    NotificationSubscriber subscriber(context, publisher);
    ASSERT_TRUE(subscriber.connected());
    for (int impossible : {5, -1}) {
        SCOPED_TRACE(impossible);
        PtpStatusFsm fsm(publisher);
        reach(fsm, Start::Master);
        PtpStatusFsmTestAccess::setState(fsm, impossible);
        subscriber.takeAll();

        Step done = step(fsm, poll(1));
        EXPECT_EQ(0, done.rc);
        EXPECT_EQ(S::INIT, fsm.getState());
        EXPECT_EQ(
            (std::vector<std::string>{"WRN PTP FSM: SHOULD NEVER REACH THIS. MOVE TO INIT STATE",
                                      closing(S::INIT)}),
            tagged(done.lines));
        EXPECT_TRUE(subscriber.takeAll().empty());
        // From INIT the machine starts over as after construction.
        EXPECT_EQ(0, step(fsm, poll(1)).rc);
        EXPECT_EQ(S::FAILURE, fsm.getState());
    }
}

// The log names only the three actions the machine requests; the number travels as given.
TEST_F(PtpStatusFsmSteps, OtherActionsAreLoggedAsNoAction) {
    NotificationSubscriber subscriber(context, publisher);
    ASSERT_TRUE(subscriber.connected());
    PtpStatusFsm fsm(publisher);
    PtpCommonInfo details = poll(1).commonInfo;
    for (A::en_actions action :
         {A::ACTION_UNDEFINED, A::ACTION_NO_ACTION, static_cast<A::en_actions>(99)}) {
        SCOPED_TRACE(action);
        LogCapture log;
        EXPECT_EQ(0, fsm.prepareActionExec(action, details));
        EXPECT_EQ(std::vector<std::string>{"INF PTP FSM: Action [no-action] requested"},
                  tagged(log.lines()));
        const std::vector<Publication> published = subscriber.takeAll();
        ASSERT_EQ(1u, published.size());
        EXPECT_EQ(notificationBody(action, "", 0, S::INIT, details), published[0].body);
    }
}

// Another service holds the publish port before the publisher starts, so every publication
// fails: each action row logs the failure at both levels, keeps its new state and stops there.
TEST(PtpStatusFsmUnpublished, FailedActionIsLoggedTwiceAndTheNewStateStays) {
    zmq::context_t context;
    PublishJsonServer holder(context);
    ASSERT_EQ(0, holder.bindToAddress("tcp://127.0.0.1:5574"));
    OstPmcPublisher publisher;
    {
        LogCapture expectedFailure;
        ASSERT_LT(publisher.init(context), 0);
    }
    const std::string code = std::to_string(-ENOTCONN);
    for (const Row& row : rows()) {
        if (row.action == NONE) {
            continue;
        }
        SCOPED_TRACE(row.name);
        PtpStatusFsm fsm(publisher);
        {
            LogCapture setupFailures;
            reach(fsm, row.from);
        }
        float threshold = row.threshold;
        fsm.setStabilityThreshold(threshold);

        const Step done = step(fsm, row.input);
        EXPECT_EQ(-ENOTCONN, done.rc);
        EXPECT_EQ(row.to, fsm.getState());
        // The row's lines up to its action request, then the two checks; nothing after.
        std::vector<std::string> expected = info(row.lines);
        while (!expected.empty() && expected.back().find("Action [") == std::string::npos) {
            expected.pop_back();
        }
        expected.push_back(
            "ERR CHK(int PtpStatusFsm::prepareActionExec(PtpNotificationInfo::en_actions, "
            "PtpCommonInfo&))::54 Error Code " +
            code);
        expected.push_back("ERR CHK(int PtpStatusFsm::update(PtpStatusFsmInputInfo&))::" +
                           std::to_string(row.check) + " Error Code " + code);
        EXPECT_EQ(expected, tagged(done.lines));

        // Not retried: the same input again finds the machine in its new state.
        if (row.to == S::MASTER) {
            EXPECT_EQ(std::vector<std::string>{closing(S::MASTER)},
                      tagged(step(fsm, poll(1)).lines));
        }
    }
}

}  // namespace
