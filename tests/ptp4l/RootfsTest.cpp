// The device files that ship: the init script drives a real ptp4l (here inside the bed's
// slave namespace, through the settings file's command prefix, under a private root), and
// every profile file is one that ptp4l runs.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "LiveSupport.h"
#include "MgmtProbe.h"
#include "Ptp4lBed.h"
#include "Subprocess.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string ROOTFS = OSTPMC_ROOTFS_DIR;
const std::string INIT_SCRIPT = ROOTFS + "/etc/S60ptp4ld";

struct Profile {
    const char* file;
    unsigned domain;
    uint8_t transportSpecific;
    uint8_t priority1;
};

const Profile PROFILES[] = {
    {"ptpDefaultProfile.cfg", 0, 0, 128},
    {"ptpAesProfile.cfg", 0, 0, 128},
    {"ptpSmpteProfile.cfg", 127, 0, 128},
    {"ptpAvbProfile.cfg", 0, 1, 248},
};

// key -> value of the [global] section; also counts every line that names domainNumber.
struct ParsedProfile {
    std::map<std::string, std::string> global;
    int domainLines = 0;
    int domainLinesInGlobal = 0;
};

ParsedProfile parseProfile(const std::string& path) {
    ParsedProfile parsed;
    std::ifstream in(path);
    std::string line;
    std::string section;
    while (std::getline(in, line)) {
        if (line.find("domainNumber") != std::string::npos) {
            ++parsed.domainLines;
            parsed.domainLinesInGlobal += section == "global" ? 1 : 0;
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        if (line[0] == '[') {
            section = line.substr(1, line.find(']') - 1);
            continue;
        }
        std::istringstream words(line);
        std::string key, value;
        words >> key >> value;
        if (section == "global") {
            parsed.global[key] = value;
        }
    }
    return parsed;
}

TEST(ProfileFiles, CarryTheirProfilesSettings) {
    using Settings = std::map<std::string, std::string>;
    const std::map<std::string, Settings> expected = {
        {"ptpDefaultProfile.cfg",
         {{"domainNumber", "0"}, {"delay_mechanism", "E2E"}, {"network_transport", "UDPv4"}}},
        {"ptpAesProfile.cfg",
         {{"domainNumber", "0"},
          {"logSyncInterval", "-3"},
          {"logAnnounceInterval", "1"},
          {"announceReceiptTimeout", "3"},
          {"logMinDelayReqInterval", "-3"},
          {"delay_mechanism", "E2E"},
          {"network_transport", "UDPv4"}}},
        {"ptpSmpteProfile.cfg",
         {{"domainNumber", "127"},
          {"logSyncInterval", "-3"},
          {"logAnnounceInterval", "-2"},
          {"announceReceiptTimeout", "3"},
          {"logMinDelayReqInterval", "-3"},
          {"delay_mechanism", "E2E"},
          {"network_transport", "UDPv4"}}},
        {"ptpAvbProfile.cfg",
         {{"domainNumber", "0"},
          {"transportSpecific", "0x1"},
          {"network_transport", "L2"},
          {"delay_mechanism", "P2P"},
          {"ptp_dst_mac", "01:80:C2:00:00:0E"},
          {"gmCapable", "1"},
          {"follow_up_info", "1"}}},
    };
    for (const auto& [file, settings] : expected) {
        ParsedProfile parsed = parseProfile(ROOTFS + "/etc/ptp/" + file);
        // The service reads the domain from the first line that names it, wherever it is.
        EXPECT_EQ(1, parsed.domainLines) << file;
        EXPECT_EQ(1, parsed.domainLinesInGlobal) << file;
        for (const auto& [key, value] : settings) {
            EXPECT_EQ(value, parsed.global[key]) << file << ": " << key;
        }
    }
}

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
        fs::create_directories(m_root + "/etc/ptp");
        fs::create_directories(m_root + "/etc/default");
        fs::create_directories(m_root + "/var/run");
        for (const Profile& profile : PROFILES) {
            fs::copy_file(ROOTFS + "/etc/ptp/" + profile.file, m_root + "/etc/ptp/" + profile.file);
        }
        useProfile("ptpAesProfile.cfg");

        std::string prefix;
        for (const std::string& word : Ptp4lBed::guardedPrefix(s_bed->slaveNamespace())) {
            prefix += (prefix.empty() ? "" : " ") + word;
        }
        std::ofstream settings(m_root + "/etc/default/ptp4ld");
        settings << "PTP4L_INTERFACES=\"" << s_bed->slaveInterface() << "\"\n"
                 << "PTP4L_PREFIX=\"" << prefix << "\"\n"
                 << "PTP4L_OPTIONS=\"--time_stamping=software -m -q\"\n"
                 << "PTP4L_LOG=\"" << logPath() << "\"\n";
    }

    void TearDown() override {
        if (m_root.empty()) {
            return;
        }
        if (HasFailure()) {
            std::fprintf(stderr, "--- %s\n%s", logPath().c_str(),
                         live::readFile(logPath()).c_str());
        }
        initScript("stop");
        fs::remove_all(m_root);
    }

    Subprocess::Result initScript(const std::string& action) {
        return Subprocess::run({INIT_SCRIPT, action}, {"OSTPMC_SYSROOT=" + m_root});
    }

    void useProfile(const std::string& file) {
        fs::copy_file(m_root + "/etc/ptp/" + file, m_root + "/etc/ptp/ptpProfile.cfg",
                      fs::copy_options::overwrite_existing);
    }

    std::string logPath() const { return m_root + "/ptp4l.log"; }
    std::string socketPath() const { return m_root + "/var/run/ptp4l"; }
    std::string pidPath() const { return m_root + "/var/run/ptp4l.pid"; }
    pid_t pidFromFile() const {
        std::string text = live::readFile(pidPath());
        return text.empty() ? 0 : std::stoi(text);
    }

    // The slaveOnly flag of the running ptp4l's default data set, or -1 without an answer.
    int slaveOnlyFlag(uint8_t domain = 0) {
        MgmtProbe probe(m_root);
        auto reply = probe.get(socketPath(), MgmtProbe::DEFAULT_DATA_SET, domain);
        if (!reply || reply->data.size() < 20) {
            return -1;
        }
        return (reply->data[0] >> 1) & 1;
    }

    static std::unique_ptr<Ptp4lBed> s_bed;
    std::string m_root;
};

std::unique_ptr<Ptp4lBed> InitScriptTest::s_bed;

TEST_F(InitScriptTest, StartsReportsAndStopsPtp4lInsideThePrefix) {
    Subprocess::Result result = initScript("status");
    EXPECT_EQ(3, result.exitCode) << result.output;
    EXPECT_EQ("ptp4l is not running\n", result.output);

    result = initScript("start");
    ASSERT_EQ(0, result.exitCode) << result.output;
    const pid_t pid = pidFromFile();
    ASSERT_GT(pid, 0);
    EXPECT_EQ("ptp4l", live::commandName(pid));
    EXPECT_EQ(s_bed->slaveNamespace(), live::namespaceOf(pid));
    EXPECT_FALSE(live::holdsSysTime(pid));
    EXPECT_TRUE(fs::is_socket(socketPath()));
    EXPECT_EQ(0, slaveOnlyFlag());

    result = initScript("status");
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("ptp4l is running (pid " + std::to_string(pid) + ")\n", result.output);

    result = initScript("start");
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("ptp4l is already running (pid " + std::to_string(pid) + ")\n", result.output);
    EXPECT_EQ(pid, pidFromFile());

    result = initScript("stop");
    EXPECT_EQ(0, result.exitCode) << result.output;
    EXPECT_FALSE(Ptp4lBed::processAlive(pid));
    EXPECT_FALSE(fs::exists(socketPath()));
    EXPECT_FALSE(fs::exists(pidPath()));
    EXPECT_EQ(3, initScript("status").exitCode);

    result = initScript("stop");
    EXPECT_EQ(0, result.exitCode);
    EXPECT_EQ("ptp4l is not running\n", result.output);
}

TEST_F(InitScriptTest, RestartsInNormalAndSlaveOnlyMode) {
    ASSERT_EQ(0, initScript("start").exitCode);
    const pid_t first = pidFromFile();

    Subprocess::Result result = initScript("restartslave");
    ASSERT_EQ(0, result.exitCode) << result.output;
    const pid_t slaveOnly = pidFromFile();
    EXPECT_NE(first, slaveOnly);
    EXPECT_FALSE(Ptp4lBed::processAlive(first));
    EXPECT_EQ(1, slaveOnlyFlag());

    result = initScript("restart");
    ASSERT_EQ(0, result.exitCode) << result.output;
    const pid_t normal = pidFromFile();
    EXPECT_NE(slaveOnly, normal);
    EXPECT_FALSE(Ptp4lBed::processAlive(slaveOnly));
    EXPECT_EQ(0, slaveOnlyFlag());

    // From a stopped service, a restart starts it.
    ASSERT_EQ(0, initScript("stop").exitCode);
    EXPECT_EQ(0, initScript("restartslave").exitCode);
    EXPECT_EQ(1, slaveOnlyFlag());
}

TEST_F(InitScriptTest, RecoversFromAKilledOrStoppedPtp4l) {
    ASSERT_EQ(0, initScript("start").exitCode);
    const pid_t killed = pidFromFile();
    ASSERT_EQ(0, kill(killed, SIGKILL));
    ASSERT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(killed); }));
    EXPECT_EQ(3, initScript("status").exitCode) << "a stale pid file is not a running ptp4l";
    EXPECT_TRUE(fs::exists(socketPath())) << "SIGKILL leaves the socket file";

    ASSERT_EQ(0, initScript("start").exitCode);
    const pid_t stopped = pidFromFile();
    EXPECT_NE(killed, stopped);
    EXPECT_EQ(0, slaveOnlyFlag()) << "the new ptp4l answers on the socket path";

    ASSERT_EQ(0, kill(stopped, SIGSTOP));
    EXPECT_EQ(0, initScript("stop").exitCode);
    EXPECT_FALSE(Ptp4lBed::processAlive(stopped));
}

TEST_F(InitScriptTest, FailsClearlyOnBadSetupOrArgument) {
    Subprocess::Result result = initScript("sideways");
    EXPECT_EQ(2, result.exitCode);
    EXPECT_NE(std::string::npos, result.output.find("Usage:")) << result.output;
    EXPECT_EQ(2, Subprocess::run({INIT_SCRIPT}, {"OSTPMC_SYSROOT=" + m_root}).exitCode);

    fs::remove(m_root + "/etc/ptp/ptpProfile.cfg");
    result = initScript("start");
    EXPECT_EQ(1, result.exitCode);
    EXPECT_NE(std::string::npos, result.output.find("cannot read")) << result.output;
    EXPECT_FALSE(fs::exists(pidPath()));

    std::ofstream(m_root + "/etc/ptp/ptpProfile.cfg") << "[global]\nno_such_setting 1\n";
    result = initScript("start");
    EXPECT_EQ(1, result.exitCode);
    EXPECT_NE(std::string::npos, result.output.find("exited during start-up")) << result.output;
    EXPECT_FALSE(fs::exists(pidPath()));
    EXPECT_EQ(3, initScript("status").exitCode);
}

TEST_F(InitScriptTest, EveryProfileFileRunsUnderTheRealPtp4l) {
    for (const Profile& profile : PROFILES) {
        SCOPED_TRACE(profile.file);
        useProfile(profile.file);
        Subprocess::Result result = initScript("restart");
        ASSERT_EQ(0, result.exitCode) << result.output;

        MgmtProbe probe(m_root);
        const auto domain = static_cast<uint8_t>(profile.domain);
        auto reply = probe.get(socketPath(), MgmtProbe::DEFAULT_DATA_SET, domain,
                               MgmtProbe::ALL_PORTS, profile.transportSpecific);
        ASSERT_TRUE(reply.has_value()) << live::readFile(logPath());
        ASSERT_EQ(20u, reply->data.size());
        EXPECT_EQ(profile.priority1, reply->data[4]);
        EXPECT_EQ(profile.domain, reply->data[18]);

        // The port runs on its transport (layer 2 for gPTP) rather than failing.
        auto portState = [&] {
            auto port = probe.get(socketPath(), MgmtProbe::PORT_DATA_SET, domain, 1,
                                  profile.transportSpecific);
            return port && port->data.size() > 10 ? port->data[10] : 0;
        };
        EXPECT_TRUE(live::eventually([&] {
            return portState() >= 4;  // LISTENING or beyond: not FAULTY, not DISABLED
        })) << "port state "
            << int(portState());
    }
    // A gPTP ptp4l answers only management messages that carry transportSpecific 1.
    MgmtProbe probe(m_root);
    EXPECT_FALSE(probe.get(socketPath(), MgmtProbe::DEFAULT_DATA_SET, 0).has_value());
}

}  // namespace
