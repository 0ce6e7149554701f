// ptp4lMng against the real ptp4l: what it reads back is what ptp4l runs, its SETs change the
// running daemon or fail with their texts, and it keeps working across ptp4l's restarts.
// Only one ptp4lMng lives at a time: they all bind the same per-process client path.

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "LiveSupport.h"
#include "Logger.h"
#include "MgmtProbe.h"
#include "SysRoot.h"
#include "ptp4lMng.h"

namespace {

using namespace std::chrono_literals;

constexpr uint8_t PORT_STATE_MASTER = 6, PORT_STATE_SLAVE = 9, DOMAIN = 5;
constexpr long ASYMMETRY_NS = 5000;

// priority1, priority2, clockClass, clockAccuracy, offsetScaledLogVariance
using Quality = std::tuple<int, int, int, int, int>;

std::vector<uint8_t> bytes(const uint8_t* p) {
    return std::vector<uint8_t>(p, p + 8);
}

// A two-port boundary clock on domain 5: its first port locked to the grandmaster with a
// steady offset from its delay asymmetry, its second port master of its own link.
TEST(LiveSlave, ReadsWhatPtp4lRunsAndItsSetsChangeIt) {
    Ptp4lBed::Options options;
    options.domain = DOMAIN;
    options.delayAsymmetry = ASYMMETRY_NS;
    options.secondPort = true;
    Ptp4lBed bed(options);
    ASSERT_TRUE(bed.up()) << bed.error();
    ASSERT_TRUE(bed.waitForSlave(20s)) << bed.logTails();
    ASSERT_TRUE(bed.waitForPortState(bed.slaveSocket(), 2, PORT_STATE_MASTER, 10s));

    // ptp4l ignores management messages of any other domain.
    ptp4lMng mng(bed.slaveSocket());
    defaultDS ds{};
    EXPECT_EQ(-1, mng.get_default_ds(ds)) << "no answer on domain 0";
    EXPECT_EQ(0, mng.setPtpIpcDomain(DOMAIN));
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(DOMAIN, ds.domainNumber);
    EXPECT_EQ(1, ds.flags & 3) << "twoStepFlag, not slaveOnly";
    EXPECT_EQ(2, ds.numberPorts);
    EXPECT_EQ(Quality(128, 128, 248, 0xFE, 0xFFFF),
              Quality(ds.priority1, ds.priority2, ds.clockQuality.clockClass,
                      ds.clockQuality.clockAccuracy, ds.clockQuality.offsetScaledLogVariance));
    MgmtProbe probe(bed.dir());  // the slave's identity, read without the client under test
    EXPECT_EQ(probe.clockIdentity(bed.slaveSocket(), DOMAIN), bytes(ds.clockIdentity));

    unsigned char priority1 = 0, priority2 = 0, clockClass = 0, accuracy = 0;
    unsigned short variance = 0;
    unsigned char gm[8] = {}, timeStatusGm[8] = {};
    ASSERT_EQ(0, mng.get_parent_ds(&priority1, &priority2, &clockClass, &accuracy, &variance, gm));
    EXPECT_EQ(Quality(100, 100, 248, 0xFE, 0xFFFF),
              Quality(priority1, priority2, clockClass, accuracy, variance));
    EXPECT_EQ(bed.gmClockIdentity(), bytes(gm));
    ASSERT_EQ(0, mng.get_time_status(timeStatusGm));
    EXPECT_EQ(bed.gmClockIdentity(), bytes(timeStatusGm));

    portDS port{}, port2{};
    ASSERT_EQ(0, mng.get_port_data_set(&port, 1));
    ASSERT_EQ(0, mng.get_port_data_set(&port2, 2));
    // portNumber, portState, versionNumber, delayMechanism (E2E)
    using Port = std::tuple<int, int, int, int>;
    EXPECT_EQ(Port(1, PORT_STATE_SLAVE, 2, 1),
              Port(port.portIdentity.portNumber, port.portState, port.versionNumber & 0x0F,
                   port.delayMechanism));
    EXPECT_EQ(Port(2, PORT_STATE_MASTER, 2, 1),
              Port(port2.portIdentity.portNumber, port2.portState, port2.versionNumber & 0x0F,
                   port2.delayMechanism));
    EXPECT_EQ(bytes(ds.clockIdentity), bytes(port2.portIdentity.clockIdentity));
    // minimum delay request, sync and announce intervals, receipt timeout
    using Timing = std::tuple<int, int, int, int>;
    EXPECT_EQ(Timing(-3, -3, -2, 3), Timing(port.logMinDelayReqInterval, port.logSyncInterval,
                                            port.logAnnounceInterval, port.announceReceiptTimeout));

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

    ASSERT_EQ(0, mng.set_priority1(150));
    ASSERT_EQ(0, mng.set_priority2(151));
    ASSERT_EQ(0, mng.get_default_ds(ds));
    EXPECT_EQ(150, ds.priority1);
    EXPECT_EQ(151, ds.priority2);

    // ptp4l refuses these with MANAGEMENT_ERROR_STATUS; the word logged is its managementId.
    LogCapture log;
    EXPECT_EQ(-1, mng.set_domain(6));
    EXPECT_EQ(DOMAIN, mng.ipcDomain()) << "a refused domain change keeps the IPC domain";
    EXPECT_EQ(-1, mng.set_sync_interval(1, 0xFD));
    EXPECT_EQ(-1, mng.set_announce_interval(1, 0xFE));
    EXPECT_EQ(-1, mng.set_announce_receipt_timeout(1, 4));
    for (const char* text :
         {"ptp4lMng:: Error setting parameter 2007 6", "ptp4lMng:: Error setting parameter 200b fd",
          "ptp4lMng:: Error setting parameter 2009 fe",
          "ptp4lMng:: Error setting parameter 200a 4"}) {
        EXPECT_TRUE(log.contains(text, Logger::ERR)) << text;
    }
    // Each refusal was one reply: the next GET is answered, not fed a stale reply.
    EXPECT_EQ(0, mng.get_default_ds(ds));
    if (::testing::Test::HasFailure()) {
        std::fprintf(stderr, "%s", bed.logTails().c_str());
    }
}

// The service's own client ("/var/run/ptp4l" under the test root) and a ptp4l that the init
// script starts, stops and restarts underneath it, in a bed without a slave of its own.
TEST(LiveRestart, QueriesFailWhileNoPtp4lListensAndRecoverWhenItStarts) {
    const std::string root = SysRoot::prefix();
    ASSERT_FALSE(root.empty()) << "OSTPMC_SYSROOT must name a test root";
    // The root is the build tree's: whatever ends the test (after the bed, hence ptp4l, is
    // down), it goes back to the empty var/run the build made, without the profile files, the
    // log or the socket files that a killed ptp4l or the client leave.
    struct RootReset {
        std::string root;
        ~RootReset() {
            namespace fs = std::filesystem;
            std::error_code ignored;
            for (const fs::directory_entry& entry : fs::directory_iterator(root, ignored)) {
                if (entry.path().filename() != "var") {
                    fs::remove_all(entry.path(), ignored);
                }
            }
            for (const fs::directory_entry& entry :
                 fs::directory_iterator(root + "/var/run", ignored)) {
                fs::remove_all(entry.path(), ignored);
            }
        }
    } reset{root};
    Ptp4lBed::Options options;
    options.startSlave = false;
    Ptp4lBed bed(options);  // taking it down ends whatever runs in its namespaces
    ASSERT_TRUE(bed.up()) << bed.error();
    live::makeInitRoot(root, bed);
    ASSERT_EQ(0, live::initScript(root, "start").exitCode);
    ptp4lMng mng(false);
    EXPECT_EQ(SysRoot::path("/var/run/ptp4l"), mng.serverPath());
    defaultDS ds{};
    ASSERT_EQ(0, mng.get_default_ds(ds));

    // A killed ptp4l leaves its socket file: sends are refused, quietly, and nothing answers.
    const pid_t pid = live::initScriptPid(root);
    ASSERT_EQ(0, kill(pid, SIGKILL));
    ASSERT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(pid); }));
    LogCapture log;
    EXPECT_EQ(-1, mng.get_default_ds(ds));
    EXPECT_TRUE(log.contains("ptp4lMng:: recv message failed", Logger::ERR));
    EXPECT_TRUE(log.contains("ptp4lMng:: get_default_ds: Error receiving message", Logger::ERR));
    EXPECT_EQ(-1, mng.set_priority1(128));
    EXPECT_TRUE(log.contains("ptp4lMng:: Error receiving message 8197", Logger::ERR));
    EXPECT_FALSE(log.containsFragment("Error on sendto")) << "refused sends are not logged";

    ASSERT_EQ(0, live::initScript(root, "restart").exitCode);
    ASSERT_EQ(0, mng.get_default_ds(ds)) << "the same client reaches the new ptp4l";
    EXPECT_EQ(128, ds.priority1);
    live::initScript(root, "stop");
}

}  // namespace
