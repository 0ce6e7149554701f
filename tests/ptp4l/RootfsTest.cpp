// The device files that ship: the init script drives a real ptp4l (here inside the bed's
// slave namespace, through the settings file's command prefix, under a private root), and
// every profile file is one that ptp4l runs as its profile says.

#include <gtest/gtest.h>
#include <signal.h>

#include "LiveSupport.h"
#include "MgmtProbe.h"

namespace {

namespace fs = std::filesystem;

// One bed without a slave: its slave namespace is where the init script runs ptp4l, and its
// directory holds the root, so taking the bed down ends and removes everything.
TEST(InitScriptTest, DrivesTheRealPtp4lAndRunsEveryProfile) {
    Ptp4lBed::Options options;
    options.startSlave = false;
    Ptp4lBed bed(options);
    ASSERT_TRUE(bed.up()) << bed.error();
    const std::string root = bed.dir() + "/root", socket = root + "/var/run/ptp4l";
    live::makeInitRoot(root, bed);
    auto says = [&](const char* action) {
        Subprocess::Result result = live::initScript(root, action);
        return std::to_string(result.exitCode) + " " + result.output;
    };
    auto pid = [&] { return live::initScriptPid(root); };
    MgmtProbe probe(root);
    // The running ptp4l's slaveOnly flag, or -1 without an answer.
    auto slaveOnly = [&] {
        auto reply = probe.get(socket, MgmtProbe::DEFAULT_DATA_SET);
        return reply && reply->data.size() == 20 ? (reply->data[0] >> 1) & 1 : -1;
    };

    EXPECT_EQ("3 ptp4l is not running\n", says("status"));
    ASSERT_EQ("0 Starting ptp4l\n", says("start")) << live::readFile(root + "/ptp4l.log");
    const pid_t killed = pid();
    EXPECT_EQ("ptp4l in " + bed.slaveNamespace(), live::describe(killed));
    EXPECT_EQ(0, slaveOnly());
    const std::string pidText = "(pid " + std::to_string(killed) + ")\n";
    EXPECT_EQ("0 ptp4l is running " + pidText, says("status"));
    EXPECT_EQ("0 ptp4l is already running " + pidText, says("start"));
    EXPECT_EQ(killed, pid());

    // A killed ptp4l leaves its pid and socket files; neither passes for a running one.
    ASSERT_EQ(0, kill(killed, SIGKILL));
    ASSERT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(killed); }));
    EXPECT_EQ("3 ptp4l is not running\n", says("status"));
    ASSERT_EQ("0 Starting ptp4l\n", says("start"));
    const pid_t first = pid();
    EXPECT_NE(killed, first);
    EXPECT_EQ(0, slaveOnly()) << "the new ptp4l answers on the socket path";

    EXPECT_EQ("0 Stopping ptp4l\nStarting ptp4l (slave only)\n", says("restartslave"));
    const pid_t stopped = pid();
    EXPECT_FALSE(Ptp4lBed::processAlive(first));
    EXPECT_EQ(1, slaveOnly());
    // Even a stopped ptp4l is ended, and its files go with it.
    ASSERT_EQ(0, kill(stopped, SIGSTOP));
    EXPECT_EQ("0 Stopping ptp4l\n", says("stop"));
    EXPECT_FALSE(Ptp4lBed::processAlive(stopped));
    EXPECT_FALSE(fs::exists(socket));
    EXPECT_EQ(0, pid()) << "the pid file is removed";
    EXPECT_EQ("0 ptp4l is not running\n", says("stop"));
    EXPECT_EQ("0 ptp4l is not running\nStarting ptp4l (slave only)\n", says("restartslave"));
    EXPECT_EQ(1, slaveOnly());

    // Each profile runs with its domain, priority and port timing (and so in normal mode after
    // a restart); the service reads the domain from the first line naming "domainNumber".
    constexpr uint8_t E2E = 1, P2P = 2;
    const struct {
        const char* file;
        uint8_t domain, transportSpecific, priority1;
        int8_t logAnnounceInterval, logSyncInterval;
        uint8_t delayMechanism;
    } profiles[] = {
        {"ptpDefaultProfile.cfg", 0, 0, 128, 1, 0, E2E},
        {"ptpAesProfile.cfg", 0, 0, 128, 1, -3, E2E},
        {"ptpSmpteProfile.cfg", 127, 0, 128, -2, -3, E2E},
        {"ptpAvbProfile.cfg", 0, 1, 248, 0, -3, P2P},  // gPTP: layer 2, transportSpecific 1
    };
    for (const auto& p : profiles) {
        SCOPED_TRACE(p.file);
        const std::string path = root + "/etc/ptp/" + p.file;
        const std::string text = live::readFile(path);
        EXPECT_EQ(text.find("domainNumber"), text.rfind("domainNumber"));
        fs::copy_file(path, root + "/etc/ptp/ptpProfile.cfg", fs::copy_options::overwrite_existing);
        ASSERT_EQ(0, live::initScript(root, "restart").exitCode);
        auto clock = probe.get(socket, MgmtProbe::DEFAULT_DATA_SET, p.domain, MgmtProbe::ALL_PORTS,
                               p.transportSpecific);
        ASSERT_TRUE(clock && clock->data.size() == 20) << live::readFile(root + "/ptp4l.log");
        EXPECT_EQ(p.priority1, clock->data[4]);
        EXPECT_EQ(p.domain, clock->data[18]);
        EXPECT_EQ(0, (clock->data[0] >> 1) & 1) << "slaveOnly";

        // The port runs on its transport (LISTENING or beyond, not FAULTY or DISABLED).
        std::optional<MgmtProbe::Reply> port;
        ASSERT_TRUE(live::eventually([&] {
            port = probe.get(socket, MgmtProbe::PORT_DATA_SET, p.domain, 1, p.transportSpecific);
            return port && port->data.size() == 26 && port->data[10] >= 4;
        })) << live::readFile(root + "/ptp4l.log");
        EXPECT_EQ(p.logAnnounceInterval, int8_t(port->data[20]));
        EXPECT_EQ(p.logSyncInterval, int8_t(port->data[22]));
        EXPECT_EQ(p.delayMechanism, port->data[23]);
    }
    // A gPTP ptp4l answers only management messages that carry transportSpecific 1.
    EXPECT_EQ(-1, slaveOnly());

    // Bad arguments and setups fail clearly, and leave no pid file.
    EXPECT_EQ("0 Stopping ptp4l\n", says("stop"));
    EXPECT_EQ("2 Usage: " OSTPMC_ROOTFS_DIR
              "/etc/S60ptp4ld {start|stop|restart|restartslave|status}\n",
              says("sideways"));
    fs::remove(root + "/etc/ptp/ptpProfile.cfg");
    EXPECT_EQ("1 ptp4l: cannot read " + root + "/etc/ptp/ptpProfile.cfg\n", says("start"));
    std::ofstream(root + "/etc/ptp/ptpProfile.cfg") << "[global]\nno_such_setting 1\n";
    EXPECT_EQ("1 Starting ptp4l\nptp4l: exited during start-up\n", says("start"));
    EXPECT_EQ(0, pid());
}

}  // namespace
