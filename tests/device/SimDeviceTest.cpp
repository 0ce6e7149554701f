// The simulated device of run-device.sh against the real ptp4l: its first request brings the
// state machine to slave-stable, each fault of device-fault.sh gives the notifications the
// state machine's table gives, and Ctrl-C leaves nothing behind.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <filesystem>
#include <thread>

#include "OstPmcCommands.h"
#include "SimDevice.h"
#include "TransitionActions.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

bool namespaceExists(const std::string& name) {
    return !name.empty() && fs::exists("/var/run/netns/" + name);
}

bool processAlive(const std::string& pid) {
    if (pid.empty()) {
        return false;
    }
    const std::string stat = readText("/proc/" + pid + "/stat");
    const size_t end = stat.rfind(')');
    return end != std::string::npos && end + 2 < stat.size() && stat[end + 2] != 'Z';
}

bool mounted(const std::string& path) {
    return has(readText("/proc/mounts"), " " + path + " ");
}

class SimDeviceFaults : public ::testing::Test {
  protected:
    // Collects notifications until cond holds (true) or the deadline passes (false).
    template <typename Cond>
    bool collectUntil(Cond cond, std::chrono::seconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!cond()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            for (Json::Value& n : device.notifications(200)) {
                notifications.push_back(n);
            }
        }
        return true;
    }
    bool stableWithLastNotification() {
        return device.state() == "slave-stable" && !notifications.empty() &&
               notifications.back()["action"].asInt() == 2;
    }
    // Every notification so far is one the table gives for a logged transition, in order.
    void expectTheTablesNotifications(const char* after) {
        std::vector<int> published;
        for (const Json::Value& n : notifications) {
            published.push_back(n["action"].asInt());
        }
        EXPECT_EQ(actionsOfLoggedTransitions(device.daemonLog()), published) << after;
    }
    // A fault of device-fault.sh, which must succeed and tell what comes next.
    void inject(const std::string& fault) {
        const SimDevice::Run run = device.fault(fault);
        ASSERT_EQ(0, run.exitCode) << fault << "\n" << run.out << run.err;
        EXPECT_TRUE(has(run.out, "device-fault: expect: ")) << run.out;
    }
    // A grandmaster change while stable: slave-unstable with the new grandmaster, then
    // slave-stable again with a resume-all that names it.
    void switchTo(const std::string& gm) {
        inject("gm-switch");
        EXPECT_TRUE(collectUntil(
            [&] { return device.state() == "slave-unstable" && device.grandmaster() == gm; }, 20s))
            << device.daemonLog();
        ASSERT_TRUE(collectUntil([&] { return stableWithLastNotification(); }, 40s));
        EXPECT_EQ(gm, notifications.back()["gmid"].asString());
        expectTheTablesNotifications("gm-switch");
    }

    SimDevice device;
    std::vector<Json::Value> notifications;
};

TEST_F(SimDeviceFaults, TheStateMachineFollowsEveryFaultOfTheNetwork) {
    ASSERT_TRUE(device.up());
    ASSERT_TRUE(device.startDaemon()) << device.daemonLog();
    EXPECT_EQ("init", device.state()) << "nothing read before the first request";
    const std::string first = device.grandmasterIdentity("gm");
    const std::string second = device.grandmasterIdentity("gm2");
    ASSERT_FALSE(first.empty());
    ASSERT_FALSE(second.empty());

    // The device's first request, as run-device.sh sends it, from the file under rootfs/.
    const SimDevice::Run config =
        device.script("sim-device.sh", {"first-config", "--dir", device.dir()});
    ASSERT_EQ(0, config.exitCode) << config.out << config.err;
    EXPECT_TRUE(has(config.out, "applied; the running configuration changed:")) << config.out;
    EXPECT_EQ("AES67:Media", device.request(OSTPMC_GET_RUNNING_CFG)["ptp"]["profile"].asString());
    // When the standby's announces come first, ptp4l follows it for a moment (and on a busy
    // machine the device may even be stable with it): what counts is where it settles.
    ASSERT_TRUE(collectUntil(
        [&] {
            return stableWithLastNotification() && notifications.back()["gmid"].asString() == first;
        },
        40s))
        << device.daemonLog();
    expectTheTablesNotifications("the first request");

    inject("gm-stop");
    const bool tookOver = collectUntil([&] { return device.state() == "master"; }, 30s);
    inject("gm-cont");
    ASSERT_TRUE(tookOver) << device.daemonLog();
    ASSERT_TRUE(collectUntil([&] { return stableWithLastNotification(); }, 40s));
    expectTheTablesNotifications("gm-stop, gm-cont");

    inject("link-down");
    const bool failed = collectUntil([&] { return device.state() == "failure"; }, 20s);
    inject("link-up");
    ASSERT_TRUE(failed) << device.daemonLog();
    ASSERT_TRUE(collectUntil([&] { return stableWithLastNotification(); }, 40s));
    expectTheTablesNotifications("link-down, link-up");

    inject("ptp4l-kill");
    ASSERT_TRUE(collectUntil([&] { return device.state() == "failure"; }, 30s))
        << device.daemonLog();
    inject("ptp4l-start");
    ASSERT_TRUE(collectUntil([&] { return stableWithLastNotification(); }, 40s));
    expectTheTablesNotifications("ptp4l-kill, ptp4l-start");
    EXPECT_NE(0, device.fault("ptp4l-start").exitCode) << "ptp4l runs already";

    switchTo(second);
    switchTo(first);
}

// gPTP runs peer to peer: one grandmaster, and on EGRET the device's start-up, not the daemon,
// runs ptp4l and nothing switches the clock driver's AVB mode.
TEST_F(SimDeviceFaults, EgretFollowsItsGptpGrandmaster) {
    ASSERT_TRUE(device.up({"--profile", "gptp", "--board", "8"}));
    EXPECT_EQ("", device.bedValue("GM2_NS")) << "no second grandmaster on a peer-to-peer link";
    EXPECT_TRUE(fs::exists(device.root() + "/var/run/ptp4l.pid")) << "running before the daemon";
    ASSERT_TRUE(device.startDaemon()) << device.daemonLog();
    const SimDevice::Run config =
        device.script("sim-device.sh", {"first-config", "--dir", device.dir()});
    ASSERT_EQ(0, config.exitCode) << config.out << config.err;
    EXPECT_EQ("GPTP:L2", device.request(OSTPMC_GET_RUNNING_CFG)["ptp"]["profile"].asString());
    ASSERT_TRUE(collectUntil([&] { return stableWithLastNotification(); }, 40s))
        << device.daemonLog();
    EXPECT_EQ("", readText(device.root() + "/var/log/ostphc.log"));

    const SimDevice::Run refused = device.fault("gm-switch");
    EXPECT_EQ(1, refused.exitCode);
    EXPECT_TRUE(has(refused.err, "one grandmaster")) << refused.err;
}

// run-device.sh itself, as a person runs it, with a profile and a board of two ports; SIGINT to
// the script alone (not its process group) takes everything down.
TEST(SimDeviceScript, CtrlCLeavesNothingBehind) {
    SimDevice device;
    const std::string tmp = device.dir() + "/tmp";  // where mktemp writes, for the check
    ASSERT_TRUE(fs::create_directory(tmp));
    ChildProcess script("/bin/sh",
                        {SimDevice::scriptPath("run-device.sh"), "--build", OSTPMC_BUILD_DIR,
                         "--dir", device.dir(), "--profile", "smpte", "--board", "0"},
                        {"TMPDIR=" + tmp}, device.dir());
    ASSERT_TRUE(device.connect()) << script.stdoutText() << script.stderrText();
    Json::Value status;
    const bool stable = eventually(
        [&] {
            status = device.request(OSTPMC_GET_INTERNAL_DEBUG_INFO);
            return status["monitor"]["ptp-state"].asString() == "slave-stable" || !script.running();
        },
        60000);
    ASSERT_TRUE(stable && script.running()) << script.stdoutText() << script.stderrText();
    EXPECT_EQ(127, status["status"]["domainNumber"].asInt());
    EXPECT_EQ(2u, status["status"]["port"].size()) << "board 0 has a second port";
    const std::string out = script.stdoutText();
    for (const char* next : {"ostpmc-ctl status", "ostpmc-ctl watch", "device-fault.sh --dir"}) {
        EXPECT_TRUE(has(out, next)) << next << "\n" << out;
    }
    EXPECT_LT(out.find("device-fault.sh"), out.find("OSTPMC: Ready to receive commands"))
        << "the next commands come before the daemon's log";

    std::vector<std::string> namespaces, pids;
    for (const char* key : {"GM_NS", "GM2_NS", "SL_NS"}) {
        namespaces.push_back(device.bedValue(key));
    }
    for (const char* file :
         {"/bed/gm.pid", "/bed/gm2.pid", "/root/var/run/ptp4l.pid", "/daemon.pid"}) {
        pids.push_back(readText(device.dir() + file));
    }
    pids.push_back(device.deviceValue("STANDIN_PID"));
    for (std::string& pid : pids) {
        pid.erase(pid.find_last_not_of("\n") + 1);
        ASSERT_TRUE(processAlive(pid)) << pid;
    }
    ASSERT_TRUE(mounted(device.root() + "/dev"));

    script.signal(SIGINT);
    ASSERT_TRUE(script.wait(30000));
    EXPECT_EQ(130, script.exitCode());
    EXPECT_TRUE(has(script.stdoutText(), "run-device: stopped; nothing of the simulated device"));
    for (const std::string& ns : namespaces) {
        EXPECT_FALSE(namespaceExists(ns)) << ns;
    }
    for (const std::string& pid : pids) {
        EXPECT_FALSE(processAlive(pid)) << pid;
    }
    EXPECT_FALSE(mounted(device.root() + "/dev"));
    EXPECT_TRUE(fs::is_empty(tmp));
    EXPECT_FALSE(fs::exists(device.dir() + "/device.env"));
}

// Mistakes are told in one line, with where to look; nothing is started for them.
TEST(SimDeviceScript, MistakesAreOneLine) {
    SimDevice device;
    const struct {
        const char* script;
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {"run-device.sh",
         {"--board", "16"},
         "run-device: board model '16' is not 0..15; try --help\n"},
        {"run-device.sh", {"--colour"}, "run-device: unknown option '--colour'; try --help\n"},
        {"run-device.sh", {"--profile"}, "run-device: --profile needs a value; try --help\n"},
        {"device-fault.sh",
         {"gm-explode"},
         "device-fault: unknown fault 'gm-explode'; try --help\n"},
        {"device-fault.sh", {}, "device-fault: no fault given; try --help\n"},
    };
    for (const auto& c : cases) {
        const SimDevice::Run run = device.script(c.script, c.args);
        EXPECT_EQ(1, run.exitCode) << c.message;
        EXPECT_EQ(c.message, run.err);
    }
    const SimDevice::Run nothing =
        device.script("device-fault.sh", {"--dir", device.dir(), "gm-stop"});
    EXPECT_EQ(1, nothing.exitCode);
    EXPECT_TRUE(has(nothing.err, "no simulated device runs in")) << nothing.err;
    const SimDevice::Run unknown = device.script(
        "sim-device.sh",
        {"up", "--dir", device.dir(), "--build", OSTPMC_BUILD_DIR, "--profile", "ieee802"});
    EXPECT_EQ(1, unknown.exitCode);
    EXPECT_TRUE(has(unknown.err, "unknown profile 'ieee802'")) << unknown.err;
    EXPECT_FALSE(fs::exists(device.bed() + "/bed.env"));

    const SimDevice::Run help = device.script("run-device.sh", {"--help"});
    EXPECT_EQ(0, help.exitCode);
    for (const char* board : {"KESTREL", "EGRET", "WREN"}) {
        EXPECT_TRUE(has(help.out, board)) << board;
    }
}

}  // namespace
