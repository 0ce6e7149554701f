// The device files that ship: the init script drives a real ptp4l (here inside the bed's
// slave namespace, through the settings file's command prefix, under a private root), and
// every profile file is one that ptp4l runs as its profile says.

#include <gtest/gtest.h>
#include <signal.h>

#include <memory>

#include "LiveSupport.h"
#include "MgmtProbe.h"

namespace {

namespace fs = std::filesystem;

// One bed without a slave: its slave namespace is where the init script runs ptp4l.
class InitScriptTest : public ::testing::Test {
  protected:
    static void SetUpTestSuite() {
        Ptp4lBed::Options options;
        options.startSlave = false;
        s_bed = std::make_unique<Ptp4lBed>(options);
        s_bed->up();
    }
    static void TearDownTestSuite() { s_bed.reset(); }

    void SetUp() override {
        ASSERT_TRUE(s_bed->isUp()) << s_bed->error();
        char rootTemplate[] = "/tmp/ostpmc-root-XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(rootTemplate));
        m_root = rootTemplate;
        live::makeInitRoot(m_root, *s_bed);
    }
    void TearDown() override {
        if (m_root.empty()) {
            return;
        }
        if (HasFailure()) {
            std::fprintf(stderr, "--- ptp4l.log\n%s",
                         live::readFile(m_root + "/ptp4l.log").c_str());
        }
        run("stop");
        fs::remove_all(m_root);
    }

    Subprocess::Result run(const std::string& action) { return live::initScript(m_root, action); }
    pid_t pid() const { return live::initScriptPid(m_root); }
    std::string socketPath() const { return m_root + "/var/run/ptp4l"; }

    // The running ptp4l's DEFAULT_DATA_SET: its slaveOnly flag, or -1 without an answer.
    int slaveOnlyFlag() {
        MgmtProbe probe(m_root);
        auto reply = probe.get(socketPath(), MgmtProbe::DEFAULT_DATA_SET);
        return reply && reply->data.size() == 20 ? (reply->data[0] >> 1) & 1 : -1;
    }

    static std::unique_ptr<Ptp4lBed> s_bed;
    std::string m_root;
};

std::unique_ptr<Ptp4lBed> InitScriptTest::s_bed;

TEST_F(InitScriptTest, StartsReportsAndStopsPtp4lInsideThePrefix) {
    Subprocess::Result result = run("status");
    EXPECT_EQ(3, result.exitCode);
    EXPECT_EQ("ptp4l is not running\n", result.output);

    result = run("start");
    ASSERT_EQ(0, result.exitCode) << result.output;
    const pid_t killed = pid();
    EXPECT_EQ("ptp4l", live::commandName(killed));
    EXPECT_EQ(s_bed->slaveNamespace(), live::namespaceOf(killed));
    EXPECT_FALSE(live::holdsSysTime(killed));
    EXPECT_EQ(0, slaveOnlyFlag());
    result = run("status");
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("ptp4l is running (pid " + std::to_string(killed) + ")\n", result.output);
    result = run("start");
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("ptp4l is already running (pid " + std::to_string(killed) + ")\n", result.output);
    EXPECT_EQ(killed, pid());

    // A killed ptp4l leaves its pid and socket files; neither passes for a running one.
    ASSERT_EQ(0, kill(killed, SIGKILL));
    ASSERT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(killed); }));
    EXPECT_EQ(3, run("status").exitCode);
    ASSERT_EQ(0, run("start").exitCode);
    const pid_t stopped = pid();
    EXPECT_NE(killed, stopped);
    EXPECT_EQ(0, slaveOnlyFlag()) << "the new ptp4l answers on the socket path";

    // Even a stopped ptp4l is ended, and its files go with it.
    ASSERT_EQ(0, kill(stopped, SIGSTOP));
    EXPECT_EQ(0, run("stop").exitCode);
    EXPECT_FALSE(Ptp4lBed::processAlive(stopped));
    EXPECT_FALSE(fs::exists(socketPath()));
    EXPECT_EQ(0, pid()) << "the pid file is removed";
    result = run("stop");
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("ptp4l is not running\n", result.output);
}

TEST_F(InitScriptTest, RestartsInNormalAndSlaveOnlyMode) {
    ASSERT_EQ(0, run("start").exitCode);
    const pid_t first = pid();
    ASSERT_EQ(0, run("restartslave").exitCode);
    const pid_t slaveOnly = pid();
    EXPECT_NE(first, slaveOnly);
    EXPECT_FALSE(Ptp4lBed::processAlive(first));
    EXPECT_EQ(1, slaveOnlyFlag());

    ASSERT_EQ(0, run("restart").exitCode);
    EXPECT_NE(slaveOnly, pid());
    EXPECT_FALSE(Ptp4lBed::processAlive(slaveOnly));
    EXPECT_EQ(0, slaveOnlyFlag());

    // From a stopped service, a restart starts it.
    ASSERT_EQ(0, run("stop").exitCode);
    EXPECT_EQ(0, run("restartslave").exitCode);
    EXPECT_EQ(1, slaveOnlyFlag());
}

TEST_F(InitScriptTest, FailsClearlyOnBadSetupOrArgument) {
    Subprocess::Result result = run("sideways");
    EXPECT_EQ(2, result.exitCode);
    EXPECT_NE(std::string::npos, result.output.find("Usage:")) << result.output;

    fs::remove(m_root + "/etc/ptp/ptpProfile.cfg");
    result = run("start");
    EXPECT_EQ(1, result.exitCode);
    EXPECT_NE(std::string::npos, result.output.find("cannot read")) << result.output;

    std::ofstream(m_root + "/etc/ptp/ptpProfile.cfg") << "[global]\nno_such_setting 1\n";
    result = run("start");
    EXPECT_EQ(1, result.exitCode);
    EXPECT_NE(std::string::npos, result.output.find("exited during start-up")) << result.output;
    EXPECT_EQ(0, pid()) << "no pid file is left";
}

// Each profile runs under the real ptp4l with its domain, priority and port timing; the
// service reads the domain from the first line naming "domainNumber", so only one may.
TEST_F(InitScriptTest, EveryProfileFileRunsUnderTheRealPtp4l) {
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
        const std::string path = m_root + "/etc/ptp/" + p.file;
        const std::string text = live::readFile(path);
        EXPECT_EQ(text.find("domainNumber"), text.rfind("domainNumber"));
        fs::copy_file(path, m_root + "/etc/ptp/ptpProfile.cfg",
                      fs::copy_options::overwrite_existing);
        Subprocess::Result result = run("restart");
        ASSERT_EQ(0, result.exitCode) << result.output;

        MgmtProbe probe(m_root);
        auto clock = probe.get(socketPath(), MgmtProbe::DEFAULT_DATA_SET, p.domain,
                               MgmtProbe::ALL_PORTS, p.transportSpecific);
        ASSERT_TRUE(clock && clock->data.size() == 20) << live::readFile(m_root + "/ptp4l.log");
        EXPECT_EQ(p.priority1, clock->data[4]);
        EXPECT_EQ(p.domain, clock->data[18]);

        // The port runs on its transport (LISTENING or beyond, not FAULTY or DISABLED).
        std::optional<MgmtProbe::Reply> port;
        ASSERT_TRUE(live::eventually([&] {
            port =
                probe.get(socketPath(), MgmtProbe::PORT_DATA_SET, p.domain, 1, p.transportSpecific);
            return port && port->data.size() == 26 && port->data[10] >= 4;
        })) << live::readFile(m_root + "/ptp4l.log");
        EXPECT_EQ(p.logAnnounceInterval, int8_t(port->data[20]));
        EXPECT_EQ(p.logSyncInterval, int8_t(port->data[22]));
        EXPECT_EQ(p.delayMechanism, port->data[23]);
    }
    // A gPTP ptp4l answers only management messages that carry transportSpecific 1.
    MgmtProbe probe(m_root);
    EXPECT_FALSE(probe.get(socketPath(), MgmtProbe::DEFAULT_DATA_SET, 0).has_value());
}

}  // namespace
