// The device files that ship: the init script drives a real ptp4l (here inside the bed's
// slave namespace, through the settings file's command prefix, under a private root), and
// every profile file is one that ptp4l runs as its profile says, managed with
// transportSpecific 0 whatever its ports run.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "LiveSupport.h"
#include "MgmtProbe.h"

namespace {

namespace fs = std::filesystem;

// The init script as the detached service runs it: with umask 0.
Subprocess::Result initScript(const std::string& root, const char* action) {
    const mode_t saved = umask(0);
    Subprocess::Result result = live::initScript(root, action);
    umask(saved);
    return result;
}

// Permission bits, or -1 when the path does not exist.
int modeOf(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}

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
        Subprocess::Result result = initScript(root, action);
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
    // Nothing the script or ptp4l made is writable by others, though the umask was 0 (ptp4l
    // gives its socket 0660 itself).
    EXPECT_EQ(0755, modeOf(root + "/var/run"));
    EXPECT_EQ(0644, modeOf(root + "/var/run/ptp4l.pid"));
    EXPECT_EQ(0644, modeOf(root + "/var/run/ptp4l.cfg"));
    EXPECT_EQ(0644, modeOf(root + "/ptp4l.log"));
    EXPECT_EQ(0660, modeOf(socket));
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
    // a restart), and answers management with transportSpecific 0, gPTP's included; the
    // service reads the domain from the first line naming "domainNumber".
    constexpr uint8_t E2E = 1, P2P = 2;
    const struct {
        const char* file;
        uint8_t domain, priority1;
        int8_t logAnnounceInterval, logSyncInterval;
        uint8_t delayMechanism;
    } profiles[] = {
        {"ptpDefaultProfile.cfg", 0, 128, 1, 0, E2E},
        {"ptpAesProfile.cfg", 0, 128, 1, -3, E2E},
        {"ptpSmpteProfile.cfg", 127, 128, -2, -3, E2E},
        {"ptpAvbProfile.cfg", 0, 248, 0, -3, P2P},
    };
    for (const auto& p : profiles) {
        SCOPED_TRACE(p.file);
        const std::string path = root + "/etc/ptp/" + p.file;
        const std::string text = live::readFile(path);
        EXPECT_EQ(text.find("domainNumber"), text.rfind("domainNumber"));
        fs::copy_file(path, root + "/etc/ptp/ptpProfile.cfg", fs::copy_options::overwrite_existing);
        ASSERT_EQ(0, initScript(root, "restart").exitCode);
        auto clock = probe.get(socket, MgmtProbe::DEFAULT_DATA_SET, p.domain);
        ASSERT_TRUE(clock && clock->data.size() == 20) << live::readFile(root + "/ptp4l.log");
        EXPECT_EQ(p.priority1, clock->data[4]);
        EXPECT_EQ(p.domain, clock->data[18]);
        EXPECT_EQ(0, (clock->data[0] >> 1) & 1) << "slaveOnly";

        // The port runs on its transport (LISTENING or beyond, not FAULTY or DISABLED).
        std::optional<MgmtProbe::Reply> port;
        ASSERT_TRUE(live::eventually([&] {
            port = probe.get(socket, MgmtProbe::PORT_DATA_SET, p.domain, 1);
            return port && port->data.size() == 26 && port->data[10] >= 4;
        })) << live::readFile(root + "/ptp4l.log");
        EXPECT_EQ(p.logAnnounceInterval, int8_t(port->data[20]));
        EXPECT_EQ(p.logSyncInterval, int8_t(port->data[22]));
        EXPECT_EQ(p.delayMechanism, port->data[23]);
    }

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

// The gPTP profile as the init script runs it against a grandmaster that takes nothing but
// transportSpecific 1: the slave port synchronises, and the management socket still answers
// the 0 that the service sends.
TEST(InitScriptTest, RunsGptpOnThePortAndAnswersManagementWithTransportSpecific0) {
    const std::string profile = OSTPMC_ROOTFS_DIR "/etc/ptp/ptpAvbProfile.cfg";
    Ptp4lBed::Options options;
    options.startSlave = false;
    // The grandmaster runs the profile's [global] lines too, except its priorities (the bed's
    // priority1 100 makes it win) and its hardware stamps.
    std::istringstream lines(live::readFile(profile));
    for (std::string line; std::getline(lines, line);) {
        if (!line.empty() && line[0] != '#' && line[0] != '[' && line.rfind("priority", 0) != 0 &&
            line.rfind("time_stamping", 0) != 0) {
            options.gmExtraLines.push_back(line);
        }
    }
    // Software stamps on veth measure about 1.5 us of peer delay, past the profile's limit (both
    // sides). Like the slave the init script starts, it has transportSpecific 1 only in its
    // port's section, so that the bed can read it with 0.
    options.gmExtraLines.insert(
        options.gmExtraLines.end(),
        {"neighborPropDelayThresh 100000", "transportSpecific 0", "[gm0]", "transportSpecific 1"});
    Ptp4lBed bed(options);
    ASSERT_TRUE(bed.up()) << bed.error();
    const std::string root = bed.dir() + "/root", socket = root + "/var/run/ptp4l";
    live::makeInitRoot(root, bed);
    fs::copy_file(profile, root + "/etc/ptp/ptpProfile.cfg", fs::copy_options::overwrite_existing);
    std::ofstream(root + "/etc/default/ptp4ld", std::ios::app)
        << "PTP4L_OPTIONS=\"$PTP4L_OPTIONS --neighborPropDelayThresh=100000"
           " --pi_proportional_scale=0.7 --pi_integral_scale=0.3\"\n";
    ASSERT_EQ(0, initScript(root, "start").exitCode) << live::readFile(root + "/ptp4l.log");
    auto logs = [&] {
        return bed.logTails() + "--- ptp4l.log\n" + live::readFile(root + "/ptp4l.log");
    };

    // SLAVE needs the grandmaster's announces and its answers to the port's peer delay
    // requests: it sends both with transportSpecific 1 and answers nothing else. The state is
    // read with 0.
    ASSERT_TRUE(
        bed.waitForPortState(socket, 1, MgmtProbe::PORT_STATE_SLAVE, std::chrono::seconds(30)))
        << logs();
    MgmtProbe probe(root);
    auto port = probe.get(socket, MgmtProbe::PORT_DATA_SET, 0, 1);
    ASSERT_TRUE(port && port->data.size() == 26);
    EXPECT_EQ(2, port->data[23]) << "delayMechanism P2P";
    auto clock = probe.get(socket, MgmtProbe::DEFAULT_DATA_SET);
    ASSERT_TRUE(clock && clock->data.size() == 20);
    EXPECT_EQ(248, clock->data[4]) << "the profile's priority1";
    EXPECT_EQ(1, (clock->data[2] << 8) | clock->data[3]) << "the interface's section adds no port";
    EXPECT_FALSE(probe.get(socket, MgmtProbe::DEFAULT_DATA_SET, 0, MgmtProbe::ALL_PORTS, 1))
        << "only transportSpecific 0 gets an answer";

    // The grandmaster measured its peer delay from the port's answers, so they carried 1.
    auto gmPort = probe.get(bed.gmSocket(), MgmtProbe::PORT_DATA_SET, 0, 1);
    ASSERT_TRUE(gmPort && gmPort->data.size() == 26);
    EXPECT_EQ(6, gmPort->data[10]) << "MASTER";
    EXPECT_TRUE(std::any_of(gmPort->data.begin() + 12, gmPort->data.begin() + 20, [](uint8_t byte) {
        return byte != 0;
    })) << "peerMeanPathDelay";

    const pid_t ptp4l = live::initScriptPid(root);
    EXPECT_EQ(0, initScript(root, "stop").exitCode);
    EXPECT_FALSE(Ptp4lBed::processAlive(ptp4l));
}

}  // namespace
