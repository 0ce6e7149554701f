// ptp4lMng against the real ptp4l: what it reads back is what ptp4l runs, its SETs change the
// running daemon or fail with their texts, and it keeps working across ptp4l's restarts.
// Only one ptp4lMng lives at a time: they all bind the same per-process client path.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <memory>
#include <tuple>

#include "LiveSupport.h"
#include "Logger.h"
#include "MgmtProbe.h"
#include "SysRoot.h"
#include "ptp4lMng.h"

namespace {

using namespace std::chrono_literals;

constexpr uint8_t PORT_STATE_MASTER = 6;
constexpr uint8_t PORT_STATE_SLAVE = 9;
constexpr long ASYMMETRY_NS = 5000;

// priority1, priority2, clockClass, clockAccuracy, offsetScaledLogVariance
using Quality = std::tuple<int, int, int, int, int>;

std::vector<uint8_t> bytes(const uint8_t* p) {
    return std::vector<uint8_t>(p, p + 8);
}

// One bed per suite; the suite's cases fail, rather than wait, when it did not come up.
class LiveBedTest : public ::testing::Test {
  protected:
    static void startBed(const Ptp4lBed::Options& options) {
        s_bed = std::make_unique<Ptp4lBed>(options);
        if (!s_bed->up()) {
            s_error = s_bed->error();
        } else if (options.startSlave && !s_bed->waitForSlave(20s)) {
            s_error = "the slave did not reach SLAVE\n" + s_bed->logTails();
        }
    }
    static void TearDownTestSuite() {
        s_bed.reset();
        s_error.clear();
    }

    void SetUp() override { ASSERT_TRUE(s_error.empty()) << s_error; }
    void TearDown() override {
        if (HasFailure()) {
            std::fprintf(stderr, "%s", s_bed->logTails().c_str());
        }
    }

    static std::unique_ptr<Ptp4lBed> s_bed;
    static std::string s_error;
};

std::unique_ptr<Ptp4lBed> LiveBedTest::s_bed;
std::string LiveBedTest::s_error;

// A slave locked to the grandmaster with a steady offset from its delay asymmetry.
class LiveSlave : public LiveBedTest {
  protected:
    static void SetUpTestSuite() {
        Ptp4lBed::Options options;
        options.delayAsymmetry = ASYMMETRY_NS;
        startBed(options);
    }
};

TEST_F(LiveSlave, ClockAndPortDataSetsAreWhatPtp4lRuns) {
    ptp4lMng mng(s_bed->slaveSocket());
    defaultDS ds{};
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(1, ds.flags & 3) << "twoStepFlag, not slaveOnly";
    EXPECT_EQ(1, ds.numberPorts);
    EXPECT_EQ(Quality(128, 128, 248, 0xFE, 0xFFFF),
              Quality(ds.priority1, ds.priority2, ds.clockQuality.clockClass,
                      ds.clockQuality.clockAccuracy, ds.clockQuality.offsetScaledLogVariance));
    MgmtProbe probe(s_bed->dir());  // the slave's identity, read without the client under test
    EXPECT_EQ(probe.clockIdentity(s_bed->slaveSocket()), bytes(ds.clockIdentity));

    unsigned char priority1 = 0, priority2 = 0, clockClass = 0, accuracy = 0;
    unsigned short variance = 0;
    unsigned char gm[8] = {}, timeStatusGm[8] = {};
    ASSERT_EQ(0, mng.get_parent_ds(&priority1, &priority2, &clockClass, &accuracy, &variance, gm));
    EXPECT_EQ(Quality(100, 100, 248, 0xFE, 0xFFFF),
              Quality(priority1, priority2, clockClass, accuracy, variance));
    EXPECT_EQ(s_bed->gmClockIdentity(), bytes(gm));
    ASSERT_EQ(0, mng.get_time_status(timeStatusGm));
    EXPECT_EQ(s_bed->gmClockIdentity(), bytes(timeStatusGm));

    portDS port{};
    ASSERT_EQ(0, mng.get_port_data_set(&port, 1));
    EXPECT_EQ(PORT_STATE_SLAVE, port.portState);
    EXPECT_EQ(2, port.versionNumber & 0x0F);
    EXPECT_EQ(1, port.delayMechanism) << "E2E";
    EXPECT_EQ(0, port.peerMeanPathDelay) << "no peer delay under E2E";
    // minimum delay request, sync and announce intervals, receipt timeout
    using Timing = std::tuple<int, int, int, int>;
    EXPECT_EQ(Timing(-3, -3, -2, 3), Timing(port.logMinDelayReqInterval, port.logSyncInterval,
                                            port.logAnnounceInterval, port.announceReceiptTimeout));
}

TEST_F(LiveSlave, CurrentDataSetShowsTheAsymmetryAsOffset) {
    ptp4lMng mng(s_bed->slaveSocket());
    // Software time stamps jitter by a microsecond or two: judge the median of a few reads.
    std::vector<float> offsets;
    for (int i = 0; i < 5; ++i) {
        unsigned short stepsRemoved = 0;
        float offset = 0, delay = 0;
        ASSERT_EQ(0, mng.get_current_ds(&stepsRemoved, &offset, &delay));
        EXPECT_EQ(1, stepsRemoved);
        EXPECT_GT(delay, 0.0f);
        EXPECT_LT(delay, 100000.0f) << "a veth pair's path delay is microseconds";
        offsets.push_back(offset);
        std::this_thread::sleep_for(100ms);
    }
    std::sort(offsets.begin(), offsets.end());
    EXPECT_NEAR(-ASYMMETRY_NS, offsets[2], 3000.0) << "offset in ns, not scaled ns";
}

TEST_F(LiveSlave, PrioritySetsChangeTheRunningClock) {
    ptp4lMng mng(s_bed->slaveSocket());
    ASSERT_EQ(0, mng.set_priority1(150));
    ASSERT_EQ(0, mng.set_priority2(151));
    defaultDS ds{};
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(150, ds.priority1);
    EXPECT_EQ(151, ds.priority2);
    EXPECT_EQ(0, mng.set_priority1(128));  // the other cases read ptp4l's own values
    EXPECT_EQ(0, mng.set_priority2(128));
}

TEST_F(LiveSlave, RefusedSetsFailWithTheirTexts) {
    ptp4lMng mng(s_bed->slaveSocket());
    LogCapture log;
    // ptp4l refuses these with MANAGEMENT_ERROR_STATUS; the word logged is its managementId.
    EXPECT_EQ(-1, mng.set_domain(5));
    EXPECT_EQ(0, mng.ipcDomain()) << "a refused domain change keeps the IPC domain";
    EXPECT_EQ(-1, mng.set_sync_interval(1, 0xFD));
    EXPECT_EQ(-1, mng.set_announce_interval(1, 0xFE));
    EXPECT_EQ(-1, mng.set_announce_receipt_timeout(1, 4));
    for (const char* text :
         {"ptp4lMng:: Error setting parameter 2007 5", "ptp4lMng:: Error setting parameter 200b fd",
          "ptp4lMng:: Error setting parameter 2009 fe",
          "ptp4lMng:: Error setting parameter 200a 4"}) {
        EXPECT_TRUE(log.contains(text, Logger::ERR)) << text;
    }
    // Each refusal was one reply, and ptp4l kept domain 0: a GET on it is still answered.
    defaultDS ds{};
    EXPECT_EQ(0, mng.get_default_ds(ds));
}

// The slave with a second port: a two-port boundary clock, master on its second link.
class LiveBoundaryClock : public LiveBedTest {
  protected:
    static void SetUpTestSuite() {
        Ptp4lBed::Options options;
        options.secondPort = true;
        startBed(options);
    }
};

TEST_F(LiveBoundaryClock, SecondPortAnswersAsPortTwo) {
    ASSERT_TRUE(s_bed->waitForPortState(s_bed->slaveSocket(), 2, PORT_STATE_MASTER, 10s));
    ptp4lMng mng(s_bed->slaveSocket());
    defaultDS clock{};
    ASSERT_EQ(0, mng.get_default_ds(clock));
    EXPECT_EQ(2, clock.numberPorts);
    portDS port1{}, port2{};
    ASSERT_EQ(0, mng.get_port_data_set(&port1, 1));
    ASSERT_EQ(0, mng.get_port_data_set(&port2, 2));
    EXPECT_EQ(1, port1.portIdentity.portNumber);
    EXPECT_EQ(PORT_STATE_SLAVE, port1.portState);
    EXPECT_EQ(2, port2.portIdentity.portNumber);
    EXPECT_EQ(PORT_STATE_MASTER, port2.portState);
    EXPECT_EQ(bytes(clock.clockIdentity), bytes(port2.portIdentity.clockIdentity));
}

// A bed on domain 5: ptp4l ignores management messages of any other domain.
class LiveDomain : public LiveBedTest {
  protected:
    static void SetUpTestSuite() {
        Ptp4lBed::Options options;
        options.domain = 5;
        startBed(options);
    }
};

TEST_F(LiveDomain, ReachedOnlyAfterSetPtpIpcDomain) {
    ptp4lMng mng(s_bed->slaveSocket());
    defaultDS ds{};
    EXPECT_EQ(-1, mng.get_default_ds(ds)) << "no answer on domain 0";
    EXPECT_EQ(0, mng.setPtpIpcDomain(5));
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(5, ds.domainNumber);
}

// The service's own client ("/var/run/ptp4l" under the test root) and a ptp4l that the init
// script starts, stops and restarts underneath it.
class LiveRestart : public LiveBedTest {
  protected:
    static void SetUpTestSuite() {
        Ptp4lBed::Options options;
        options.startSlave = false;
        startBed(options);
    }
    void SetUp() override {
        ASSERT_TRUE(s_error.empty()) << s_error;
        ASSERT_FALSE(SysRoot::prefix().empty()) << "OSTPMC_SYSROOT must name a test root";
        live::makeInitRoot(SysRoot::prefix(), *s_bed);
    }
    void TearDown() override {
        initScript("stop");
        LiveBedTest::TearDown();
    }
    static int initScript(const std::string& action) {
        return live::initScript(SysRoot::prefix(), action).exitCode;
    }
};

TEST_F(LiveRestart, QueriesFailWhileNoPtp4lListensAndRecoverWhenItStarts) {
    ASSERT_EQ(0, initScript("start"));
    ptp4lMng mng(false);
    EXPECT_EQ(SysRoot::path("/var/run/ptp4l"), mng.serverPath());
    defaultDS ds{};
    ASSERT_EQ(0, mng.get_default_ds(ds));

    // A killed ptp4l leaves its socket file: sends are refused, quietly, and nothing answers.
    const pid_t pid = live::initScriptPid(SysRoot::prefix());
    ASSERT_EQ(0, kill(pid, SIGKILL));
    ASSERT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(pid); }));
    LogCapture log;
    EXPECT_EQ(-1, mng.get_default_ds(ds));
    EXPECT_TRUE(log.contains("ptp4lMng:: recv message failed", Logger::ERR));
    EXPECT_TRUE(log.contains("ptp4lMng:: get_default_ds: Error receiving message", Logger::ERR));
    EXPECT_EQ(-1, mng.set_priority1(128));
    EXPECT_TRUE(log.contains("ptp4lMng:: Error receiving message 8197", Logger::ERR));
    EXPECT_FALSE(log.containsFragment("Error on sendto")) << "refused sends are not logged";

    ASSERT_EQ(0, initScript("restart"));
    ASSERT_EQ(0, mng.get_default_ds(ds)) << "the same client reaches the new ptp4l";
    EXPECT_EQ(128, ds.priority1);
}

}  // namespace
