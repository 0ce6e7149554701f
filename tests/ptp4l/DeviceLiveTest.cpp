// The daemon on a device of the real-ptp4l test bed: its configuration requests install,
// restart and change the real ptp4l through the shipped init script, and its status cycle
// follows the real ptp4l through the faults of a real network.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <regex>
#include <set>
#include <sstream>

#include "LiveDevice.h"
#include "LiveSupport.h"
#include "OstPmcCommands.h"
#include "ShippedProfiles.h"
#include "TransitionActions.h"

namespace {

using namespace std::chrono_literals;
using Words = std::array<uint32_t, 9>;

Json::Value json(const std::string& text) {
    Json::Value value;
    Json::Reader().parse(text, value);
    return value;
}

// The socket inodes a process holds ("socket:[N]").
std::set<std::string> sockets(pid_t pid) {
    std::set<std::string> found;
    const std::string dir = "/proc/" + std::to_string(pid) + "/fd";
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* entry = readdir(d)) {
            char target[256] = {};
            if (readlink((dir + "/" + entry->d_name).c_str(), target, sizeof(target) - 1) > 0 &&
                std::string(target).rfind("socket:", 0) == 0) {
                found.insert(target);
            }
        }
        closedir(d);
    }
    return found;
}

// The live default data set of the device's ptp4l: priority1, priority2, slave-only bit, domain.
std::array<int, 4> liveClock(LiveDevice& device, uint8_t domain) {
    auto reply = device.probe().get(device.socket(), MgmtProbe::DEFAULT_DATA_SET, domain);
    if (!reply || reply->data.size() != 20) {
        return {-1, -1, -1, -1};
    }
    return {reply->data[4], reply->data[9], (reply->data[0] >> 1) & 1, reply->data[18]};
}

Json::Value runningCfg(LiveDevice& device) {
    return device.request(OSTPMC_GET_RUNNING_CFG)["data"]["ptp"];
}

TEST(DeviceControl, ConfigurationRequestsDriveTheRealPtp4l) {
    LiveDevice device(Ptp4lBed::Options(), 100000.0);
    ASSERT_TRUE(device.start()) << device.error();
    const std::string etc = device.root() + "/etc/ptp/";
    auto daemonLog = [&] { return device.daemon().stderrText(); };

    pid_t previous = 0;
    int priority = 90;
    for (const ShippedProfile& p : SHIPPED_PROFILES) {
        SCOPED_TRACE(p.profile);
        ++priority;
        Json::Value request = json(R"({"priority1": 0, "priority2": 0})");
        request["profile"] = p.profile;
        request["priority1"] = priority;
        request["priority2"] = priority + 50;
        ASSERT_EQ(0, device.result(OSTPMC_SET_RUNNING_CFG, request)) << daemonLog();
        EXPECT_EQ(live::readFile(etc + p.file), live::readFile(etc + "ptpProfile.cfg"));
        const pid_t pid = device.ptp4lPid();
        EXPECT_NE(previous, pid) << "a new ptp4l";
        EXPECT_TRUE(Ptp4lBed::processAlive(pid));
        previous = pid;
        // Read back from ptp4l without the daemon, in the domain its file names.
        EXPECT_EQ((std::array<int, 4>{priority, priority + 50, 0, p.domain}),
                  liveClock(device, p.domain));
        const Json::Value cfg = runningCfg(device);
        EXPECT_EQ(0, cfg["slaveOnly"].asInt()) << "filled from the live default data set";
        ASSERT_FALSE(device.phc().requests().empty());
        EXPECT_EQ((Words{0x00200000, p.avb}), device.phc().requests().back());
        const auto published = device.publications(5000);
        ASSERT_EQ(1u, published.size());
        EXPECT_EQ("1001", published[0].first);
        EXPECT_EQ(cfg, published[0].second);
    }

    // The active profile again: nothing restarted, nothing published.
    EXPECT_EQ(0, device.result(OSTPMC_SET_RUNNING_CFG, json(R"({"profile": "AES67:Media"})")));
    EXPECT_EQ(previous, device.ptp4lPid());
    EXPECT_TRUE(device.publications(300).empty());

    // Single parameters change the running ptp4l at once.
    EXPECT_EQ(0, device.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"priority1": 77})")));
    EXPECT_EQ(77, liveClock(device, 0)[0]);
    EXPECT_EQ(previous, device.ptp4lPid());
    // This ptp4l refuses a domain and the per-port intervals: the request fails with its trail.
    EXPECT_EQ(-1, device.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"domain": 5})")));
    EXPECT_EQ(-1, device.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"syncInterval": -2})")));
    for (const char* line :
         {"CHK(int OstPmcServer::setPtpDomain(uint8_t))::114 Error Code -1",
          "CHK(int OstPmcServer::setPtpParameter(Json::Value&))::212 Error Code -1",
          "CHK(int OstPmcServer::setPtpSyncInterval(int, int8_t))::189 Error Code -1",
          "CHK(int OstPmcServer::setPtpParameter(Json::Value&))::238 Error Code -1"}) {
        EXPECT_NE(std::string::npos, daemonLog().find(line)) << line;
    }

    // Slave-only mode takes a restart.
    device.publications();
    EXPECT_EQ(0, device.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"slaveOnly": true})")));
    EXPECT_NE(previous, device.ptp4lPid());
    EXPECT_EQ(1, liveClock(device, 0)[2]);
    EXPECT_EQ(1, runningCfg(device)["slaveOnly"].asInt());
    EXPECT_EQ(1u, device.publications(5000).size());

    // A profile change restarts with the new file and drops what was configured.
    previous = device.ptp4lPid();
    EXPECT_EQ(0, device.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"profile": "SMPTE:2059-2"})")));
    EXPECT_NE(previous, device.ptp4lPid());
    EXPECT_EQ(live::readFile(etc + "ptpSmpteProfile.cfg"), live::readFile(etc + "ptpProfile.cfg"));
    EXPECT_EQ(json(R"({"profile": "SMPTE:2059-2", "cfgFilePath": "", "slaveOnly": 1})"),
              runningCfg(device));
    EXPECT_EQ((std::array<int, 4>{128, 128, 1, 127}), liveClock(device, 127));

    // Operators do the same with ostpmc-ctl, and are told what changed.
    auto [setCode, setOut] = device.ctl({"set", "priority2=66"});
    EXPECT_EQ(0, setCode);
    EXPECT_NE(std::string::npos, setOut.find("+ priority2             66")) << setOut;
    EXPECT_EQ(66, liveClock(device, 127)[1]);
    auto [saveCode, saved] = device.ctl({"-j", "config"});
    ASSERT_EQ(0, saveCode);
    Json::Value file = json(saved);
    file["ptp"]["profile"] = "AES67:Media";
    std::ofstream(device.root() + "/cfg.json") << file.toStyledString();
    auto [applyCode, applied] = device.ctl({"apply", device.root() + "/cfg.json"});
    EXPECT_EQ(0, applyCode);
    EXPECT_NE(std::string::npos, applied.find("+ profile               AES67:Media")) << applied;
    EXPECT_EQ(66, liveClock(device, 0)[1]) << "the applied file kept priority2";

    // ptp4l holds nothing of the daemon's.
    const pid_t ptp4l = device.ptp4lPid();
    const std::set<std::string> daemonSockets = sockets(device.daemon().pid());
    ASSERT_FALSE(daemonSockets.empty());
    for (const std::string& socket : sockets(ptp4l)) {
        EXPECT_EQ(0u, daemonSockets.count(socket)) << socket << " is the daemon's";
    }

    // SIGTERM stops the daemon and ptp4l with it.
    device.daemon().signal(SIGTERM);
    ASSERT_TRUE(device.daemon().wait(15000));
    EXPECT_EQ(0, device.daemon().exitCode());
    EXPECT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(ptp4l); }));
}

class DeviceMonitor : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(device.start()) << device.error();
        ASSERT_EQ(0, device.result(OSTPMC_SET_RUNNING_CFG, json(R"({"profile": "AES67:Media"})")));
        device.publications();
    }

    // Collects publications until cond holds (true) or the deadline passes (false).
    template <typename Cond>
    bool collectUntil(Cond cond, std::chrono::seconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        while (!cond()) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            for (auto& publication : device.publications(200)) {
                if (publication.first == "1000") {
                    notifications.push_back(publication.second);
                }
            }
        }
        return true;
    }
    std::string state() {
        return device.request(OSTPMC_GET_INTERNAL_DEBUG_INFO)["data"]["monitor"]["ptp-state"]
            .asString();
    }
    bool stableWithLastNotification() {
        return state() == "slave-stable" && !notifications.empty() &&
               notifications.back()["action"].asInt() == 2;
    }
    std::vector<int> publishedActions() const {
        std::vector<int> actions;
        for (const Json::Value& n : notifications) {
            actions.push_back(n["action"].asInt());
        }
        return actions;
    }
    // Every notification so far is one the table gives for a logged transition, in order.
    void expectTheTablesNotifications(const char* after) {
        EXPECT_EQ(actionsOfLoggedTransitions(device.daemon().stderrText()), publishedActions())
            << after;
    }

    LiveDevice device{Ptp4lBed::Options(), 100000.0};
    std::vector<Json::Value> notifications;
};

TEST_F(DeviceMonitor, TheStateMachineFollowsTheRealPtp4lAndRecoversFromAStall) {
    ASSERT_TRUE(collectUntil([&] { return stableWithLastNotification(); }, 40s))
        << device.daemon().stderrText();
    const std::string log = device.daemon().stderrText();
    size_t at = 0;
    for (const char* step : {"transition from INIT to FAILURE state",
                             "transition from FAILURE to SLAVE UNSTABLE state",
                             "transition from SLAVE UNSTABLE to SLAVE STABLE state"}) {
        at = log.find(step, at);
        EXPECT_NE(std::string::npos, at) << step;
    }
    ASSERT_EQ(1u, notifications.size());
    const std::string gm = device.bed().gmClockIdentityText();
    EXPECT_EQ(2, notifications[0]["action"].asInt());
    EXPECT_EQ(gm, notifications[0]["gmid"].asString());
    EXPECT_EQ("Slave", notifications[0]["details"]["port"][0]["roleStatus"].asString());

    const Json::Value info = device.request(OSTPMC_GET_PTP_INFO)["data"];
    auto local = device.probe().clockIdentity(device.socket());
    ASSERT_TRUE(local);
    char localText[24];
    snprintf(localText, sizeof(localText), "%02x-%02x-%02x-%02x-%02x-%02x-%02x-%02x", (*local)[0],
             (*local)[1], (*local)[2], (*local)[3], (*local)[4], (*local)[5], (*local)[6],
             (*local)[7]);
    EXPECT_EQ(localText, info["local"]["id"].asString());
    EXPECT_EQ(gm, info["grandMaster"]["id"].asString());
    EXPECT_EQ("Slave", info["port"][0]["roleStatus"].asString());
    EXPECT_LT(std::abs(info["offsetFromMaster"].asDouble()), 100000.0);
    EXPECT_GT(info["meanPathDelay"].asDouble(), 0.0);

    // Faults of the network (grandmaster stopped, link cut, ptp4l killed) are walked through
    // on the simulated device (sim_device_tests); here, the stall that only the status cycle
    // itself can recover from.
    // The device's ptp4l stops for 20 s: right again within 3 cycles of its return.
    ASSERT_EQ(0, kill(device.ptp4lPid(), SIGSTOP));
    std::this_thread::sleep_for(20s);
    const Json::Value before = device.request(OSTPMC_GET_INTERNAL_DEBUG_INFO)["data"]["monitor"];
    ASSERT_EQ(0, kill(device.ptp4lPid(), SIGCONT));
    EXPECT_FALSE(before["lastCycleOk"].asBool());
    Json::Value health;
    ASSERT_TRUE(collectUntil(
        [&] {
            health = device.request(OSTPMC_GET_INTERNAL_DEBUG_INFO)["data"]["monitor"];
            return health["lastCycleOk"].asBool();
        },
        20s));
    EXPECT_LE(health["cycles"].asUInt64() - before["cycles"].asUInt64(), 3u);
    ASSERT_TRUE(collectUntil([&] { return stableWithLastNotification(); }, 40s));
    expectTheTablesNotifications("ptp4l stopped for 20 s");
    EXPECT_EQ("Slave",
              device.request(OSTPMC_GET_PTP_INFO)["data"]["port"][0]["roleStatus"].asString());
}

}  // namespace
