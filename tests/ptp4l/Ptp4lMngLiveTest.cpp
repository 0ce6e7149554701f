// ptp4lMng against the real ptp4l: what it reads back is what ptp4l runs, its SETs change the
// running daemon or fail with their texts, and it keeps working across ptp4l's restarts.
// Only one ptp4lMng lives at a time: they all bind the same per-process client path.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "LiveSupport.h"
#include "Logger.h"
#include "MgmtProbe.h"
#include "Ptp4lBed.h"
#include "Subprocess.h"
#include "SysRoot.h"
#include "ptp4lMng.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

constexpr uint8_t PORT_STATE_MASTER = 6;
constexpr uint8_t PORT_STATE_SLAVE = 9;
constexpr long ASYMMETRY_NS = 5000;

std::vector<uint8_t> bytes(const uint8_t* p, size_t n) {
    return std::vector<uint8_t>(p, p + n);
}

// One bed per suite; the suite's cases fail, rather than wait, when it did not come up.
class LiveBedTest : public ::testing::Test {
  protected:
    static void startBed(Ptp4lBed::Options options, uint16_t slavePort = 1) {
        const bool withSlave = options.startSlave;
        s_bed = std::make_unique<Ptp4lBed>(std::move(options));
        if (s_bed->up() && withSlave && !s_bed->waitForSlave(20s, slavePort)) {
            s_error = "the slave did not reach SLAVE\n" + s_bed->logTails();
        }
    }
    static void TearDownTestSuite() {
        s_bed.reset();
        s_error.clear();
    }

    void SetUp() override {
        ASSERT_TRUE(s_bed && s_bed->isUp()) << (s_bed ? s_bed->error() : "no bed");
        ASSERT_TRUE(s_error.empty()) << s_error;
    }
    void TearDown() override {
        if (HasFailure() && s_bed) {
            std::fprintf(stderr, "%s", s_bed->logTails().c_str());
        }
    }

    // The slave's own clock identity, read without the client under test.
    std::vector<uint8_t> slaveIdentity() const {
        MgmtProbe probe(s_bed->dir());
        auto identity = probe.clockIdentity(s_bed->slaveSocket(),
                                            static_cast<uint8_t>(s_bed->options().domain));
        return identity ? *identity : std::vector<uint8_t>{};
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

TEST_F(LiveSlave, DefaultDataSetIsTheSlavesOwn) {
    ptp4lMng mng(s_bed->slaveSocket());
    defaultDS ds{};
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(1, ds.flags & 1) << "twoStepFlag";
    EXPECT_EQ(0, ds.flags & 2) << "slaveOnly";
    EXPECT_EQ(1, ds.numberPorts);
    EXPECT_EQ(128, ds.priority1);
    EXPECT_EQ(128, ds.priority2);
    EXPECT_EQ(248, ds.clockQuality.clockClass);
    EXPECT_EQ(0xFE, ds.clockQuality.clockAccuracy);
    EXPECT_EQ(0xFFFF, ds.clockQuality.offsetScaledLogVariance);
    EXPECT_EQ(0, ds.domainNumber);
    EXPECT_EQ(slaveIdentity(), bytes(ds.clockIdentity, 8));
    EXPECT_NE(s_bed->gmClockIdentity(), bytes(ds.clockIdentity, 8));

    unsigned char domain = 99, priority1 = 0, priority2 = 0, clockClass = 0, accuracy = 0;
    unsigned short variance = 0;
    ASSERT_EQ(
        0, mng.get_default_ds(&domain, &priority1, &priority2, &clockClass, &accuracy, &variance));
    EXPECT_EQ(0, domain);
    EXPECT_EQ(128, priority1);
    EXPECT_EQ(128, priority2);
    EXPECT_EQ(248, clockClass);
    EXPECT_EQ(0xFE, accuracy);
    EXPECT_EQ(0xFFFF, variance);
}

TEST_F(LiveSlave, ParentAndTimeStatusNameTheGrandmaster) {
    ptp4lMng mng(s_bed->slaveSocket());
    unsigned char priority1 = 0, priority2 = 0, clockClass = 0, accuracy = 0;
    unsigned short variance = 0;
    unsigned char gm[8] = {};
    ASSERT_EQ(0, mng.get_parent_ds(&priority1, &priority2, &clockClass, &accuracy, &variance, gm));
    EXPECT_EQ(100, priority1);
    EXPECT_EQ(100, priority2);
    EXPECT_EQ(248, clockClass);
    EXPECT_EQ(0xFE, accuracy);
    EXPECT_EQ(0xFFFF, variance);
    EXPECT_EQ(s_bed->gmClockIdentity(), bytes(gm, 8));

    unsigned char timeStatusGm[8] = {};
    ASSERT_EQ(0, mng.get_time_status(timeStatusGm));
    EXPECT_EQ(s_bed->gmClockIdentity(), bytes(timeStatusGm, 8));
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

TEST_F(LiveSlave, PortDataSetShowsTheSlavePort) {
    ptp4lMng mng(s_bed->slaveSocket());
    portDS ds{};
    ASSERT_EQ(0, mng.get_port_data_set(&ds, 1));
    EXPECT_EQ(slaveIdentity(), bytes(ds.portIdentity.clockIdentity, 8));
    EXPECT_EQ(1, ds.portIdentity.portNumber);
    EXPECT_EQ(PORT_STATE_SLAVE, ds.portState);
    EXPECT_EQ(-3, ds.logMinDelayReqInterval);
    EXPECT_EQ(0, ds.peerMeanPathDelay) << "no peer delay under E2E";
    EXPECT_EQ(-2, ds.logAnnounceInterval);
    EXPECT_EQ(3, ds.announceReceiptTimeout);
    EXPECT_EQ(-3, ds.logSyncInterval);
    EXPECT_EQ(1, ds.delayMechanism) << "E2E";
    EXPECT_EQ(2, ds.versionNumber & 0x0F);

    unsigned char identity[8] = {};
    unsigned short port = 0;
    long long peerDelay = -1;
    signed char sync = 0, announce = 0, timeout = 0, pdelay = 99;
    unsigned char state = 0;
    ASSERT_EQ(0, mng.get_port_data_set(1, identity, &port, &peerDelay, &sync, &announce, &timeout,
                                       &pdelay, &state));
    EXPECT_EQ(bytes(ds.portIdentity.clockIdentity, 8), bytes(identity, 8));
    EXPECT_EQ(1, port);
    EXPECT_EQ(0, peerDelay);
    EXPECT_EQ(-3, sync);
    EXPECT_EQ(-2, announce);
    EXPECT_EQ(3, timeout);
    EXPECT_EQ(ds.logMinPdelayReqInterval, pdelay);
    EXPECT_EQ(PORT_STATE_SLAVE, state);
}

TEST_F(LiveSlave, PrioritySetsChangeTheRunningClock) {
    ptp4lMng mng(s_bed->slaveSocket());
    LogCapture log;
    ASSERT_EQ(0, mng.set_priority1(150));
    ASSERT_EQ(0, mng.set_priority2(151));
    defaultDS ds{};
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(150, ds.priority1);
    EXPECT_EQ(151, ds.priority2);

    ASSERT_EQ(0, mng.set_priority1(128));
    ASSERT_EQ(0, mng.set_priority2(128));
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(128, ds.priority1);
    EXPECT_EQ(128, ds.priority2);
    for (const LogCapture::Line& line : log.lines()) {
        EXPECT_NE(Logger::ERR, line.level) << line.text;
    }
}

TEST_F(LiveSlave, RefusedSetsFailWithTheirTexts) {
    ptp4lMng mng(s_bed->slaveSocket());
    LogCapture log;
    // ptp4l refuses these with MANAGEMENT_ERROR_STATUS; the word compared is its managementId.
    EXPECT_EQ(-1, mng.set_domain(5));
    EXPECT_TRUE(log.contains("ptp4lMng:: Error setting parameter 2007 5", Logger::ERR));
    EXPECT_EQ(0, mng.ipcDomain()) << "a refused domain change keeps the IPC domain";
    EXPECT_EQ(-1, mng.set_sync_interval(1, 0xFD));
    EXPECT_TRUE(log.contains("ptp4lMng:: Error setting parameter 200b fd", Logger::ERR));
    EXPECT_EQ(-1, mng.set_announce_interval(1, 0xFE));
    EXPECT_TRUE(log.contains("ptp4lMng:: Error setting parameter 2009 fe", Logger::ERR));
    EXPECT_EQ(-1, mng.set_announce_receipt_timeout(1, 4));
    EXPECT_TRUE(log.contains("ptp4lMng:: Error setting parameter 200a 4", Logger::ERR));

    // Each refusal was one reply: the client is still in step with ptp4l.
    defaultDS ds{};
    EXPECT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(0, ds.domainNumber);
}

TEST_F(LiveSlave, QueriesPtp4lCannotAnswerFailWithTheirTexts) {
    ptp4lMng mng(s_bed->slaveSocket());
    LogCapture log;
    unsigned int count = 0;
    unsigned long long identities[4] = {};
    EXPECT_EQ(-1, mng.get_path_trace(&count, identities, 4));
    EXPECT_TRUE(log.contains("ptp4lMng:: Got unexpected reponse type 0x6 to get_path_trace request",
                             Logger::ERR))
        << "NOT_SUPPORTED";

    // This ptp4l build answers the statistics id with two data bytes instead of 48.
    log.clear();
    statsResultsDS stats{};
    EXPECT_EQ(-1, mng.get_stats_results_ds(stats));
    EXPECT_TRUE(log.contains("ptp4lMng:: bad message", Logger::ERR));
    EXPECT_TRUE(
        log.contains("ptp4lMng:: get_stats_results_ds: Error receiving message", Logger::ERR));

    defaultDS ds{};
    EXPECT_EQ(0, mng.get_default_ds(ds)) << "still in step";
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
    EXPECT_EQ(bytes(clock.clockIdentity, 8), bytes(port2.portIdentity.clockIdentity, 8));

    unsigned short stepsRemoved = 0;
    float offset = 0, delay = 0;
    ASSERT_EQ(0, mng.get_current_ds(&stepsRemoved, &offset, &delay));
    EXPECT_EQ(1, stepsRemoved);
}

TEST_F(LiveBoundaryClock, WildcardPortLeavesTheSecondReplyForTheNextQuery) {
    ptp4lMng mng(s_bed->slaveSocket());
    LogCapture log;
    // Every port answers a wildcard target; replies are not matched to requests, so the
    // second port's answer is taken by whatever is asked next.
    portDS ds{};
    ASSERT_EQ(0, mng.get_port_data_set(&ds, 0xFFFF));
    EXPECT_EQ(1, ds.portIdentity.portNumber);
    defaultDS clock{};
    EXPECT_EQ(-1, mng.get_default_ds(clock));
    EXPECT_TRUE(log.contains(
        "ptp4lMng:: Got unexpected reponse type 0x2004 to get_default_data_set request",
        Logger::ERR));
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
    LogCapture log;
    defaultDS ds{};
    EXPECT_EQ(-1, mng.get_default_ds(ds));
    EXPECT_TRUE(log.contains("ptp4lMng:: recv message failed", Logger::ERR));
    EXPECT_TRUE(log.contains("ptp4lMng:: get_default_ds: Error receiving message", Logger::ERR));

    EXPECT_EQ(0, mng.setPtpIpcDomain(5));
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(5, ds.domainNumber);
    unsigned char gm[8] = {};
    ASSERT_EQ(0, mng.get_parent_ds(nullptr, nullptr, nullptr, nullptr, nullptr, gm));
    EXPECT_EQ(s_bed->gmClockIdentity(), bytes(gm, 8));
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
        LiveBedTest::SetUp();
        const std::string& root = SysRoot::prefix();
        ASSERT_FALSE(root.empty()) << "OSTPMC_SYSROOT must name a test root (ctest sets it)";
        fs::create_directories(root + "/etc/ptp");
        fs::create_directories(root + "/etc/default");
        fs::create_directories(root + "/var/run");
        fs::copy_file(std::string(OSTPMC_ROOTFS_DIR) + "/etc/ptp/ptpAesProfile.cfg",
                      root + "/etc/ptp/ptpProfile.cfg", fs::copy_options::overwrite_existing);
        std::string prefix;
        for (const std::string& word : Ptp4lBed::guardedPrefix(s_bed->slaveNamespace())) {
            prefix += (prefix.empty() ? "" : " ") + word;
        }
        std::ofstream(root + "/etc/default/ptp4ld")
            << "PTP4L_INTERFACES=\"" << s_bed->slaveInterface() << "\"\n"
            << "PTP4L_PREFIX=\"" << prefix << "\"\n"
            << "PTP4L_OPTIONS=\"--time_stamping=software -m -q\"\n"
            << "PTP4L_LOG=\"" << root << "/ptp4l.log\"\n";
    }
    void TearDown() override {
        initScript("stop");
        LiveBedTest::TearDown();
    }

    static int initScript(const std::string& action) {
        return Subprocess::run({std::string(OSTPMC_ROOTFS_DIR) + "/etc/S60ptp4ld", action})
            .exitCode;
    }
    static pid_t ptp4lPid() {
        std::string text = live::readFile(SysRoot::path("/var/run/ptp4l.pid"));
        return text.empty() ? 0 : std::stoi(text);
    }
};

TEST_F(LiveRestart, QueriesFailWhileNoPtp4lListensAndRecoverWhenItStarts) {
    ASSERT_EQ(0, initScript("stop"));
    ptp4lMng mng(false);
    EXPECT_EQ(SysRoot::path("/var/run/ptp4l"), mng.serverPath());
    LogCapture log;
    defaultDS ds{};
    EXPECT_EQ(-1, mng.get_default_ds(ds));
    EXPECT_TRUE(log.contains("ptp4lMng:: recv message failed", Logger::ERR));
    EXPECT_TRUE(log.contains("ptp4lMng:: get_default_ds: Error receiving message", Logger::ERR));
    EXPECT_EQ(-1, mng.set_priority1(128));
    EXPECT_TRUE(log.contains("ptp4lMng:: Error receiving message 8197", Logger::ERR));

    ASSERT_EQ(0, initScript("start"));
    ASSERT_EQ(0, mng.get_default_ds(ds)) << "the same client reaches the new ptp4l";
    EXPECT_EQ(128, ds.priority1);

    ASSERT_EQ(0, initScript("restart"));
    log.clear();
    ASSERT_EQ(0, mng.get_default_ds(ds)) << "and the restarted one";
    EXPECT_TRUE(log.lines().empty() || !log.contains("ptp4lMng:: recv message failed"));
}

TEST_F(LiveRestart, KilledPtp4lFailsQuietlyUntilRestarted) {
    ASSERT_EQ(0, initScript("start"));
    ptp4lMng mng(false);
    ASSERT_EQ(0, kill(ptp4lPid(), SIGKILL));
    ASSERT_TRUE(live::eventually([] { return !Ptp4lBed::processAlive(ptp4lPid()); }));
    ASSERT_TRUE(fs::exists(SysRoot::path("/var/run/ptp4l"))) << "its socket file stays";

    LogCapture log;
    defaultDS ds{};
    EXPECT_EQ(-1, mng.get_default_ds(ds));
    EXPECT_TRUE(log.contains("ptp4lMng:: get_default_ds: Error receiving message", Logger::ERR));
    EXPECT_FALSE(log.containsFragment("Error on sendto")) << "refused sends are not logged";

    ASSERT_EQ(0, initScript("start"));
    EXPECT_EQ(0, mng.get_default_ds(ds));
}

TEST_F(LiveRestart, StoppedPtp4lAnswersTheQueuedRequestOnContinue) {
    ASSERT_EQ(0, initScript("start"));
    const pid_t pid = ptp4lPid();
    ptp4lMng mng(false);
    LogCapture log;
    ASSERT_EQ(0, kill(pid, SIGSTOP));
    defaultDS ds{};
    EXPECT_EQ(-1, mng.get_default_ds(ds));
    EXPECT_TRUE(log.contains("ptp4lMng:: get_default_ds: Error receiving message", Logger::ERR));
    ASSERT_EQ(0, kill(pid, SIGCONT));

    // The late answer is taken for the next request's; that request's own answer then waits
    // in the socket for the one after.
    log.clear();
    EXPECT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(128, ds.priority1);
    unsigned char gm[8] = {};
    EXPECT_EQ(-1, mng.get_parent_ds(nullptr, nullptr, nullptr, nullptr, nullptr, gm));
    EXPECT_TRUE(
        log.contains("ptp4lMng:: Got unexpected reponse type 0x2000 to get_parent_data_set request",
                     Logger::ERR));
}

}  // namespace
