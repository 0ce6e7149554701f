// ostpmc-ctl run as a person on the device runs it, against the running daemon.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ChildProcess.h"
#include "JsonText.h"
#include "PublishJsonServer.h"
#include "RunningDaemon.h"

namespace {

struct CtlRun {
    int exitCode;
    std::string out;
    std::string err;
};

// The program's output files go to dir, or to a directory of this call's own that goes with it.
CtlRun runCtl(const std::vector<std::string>& args, const std::string& dir = "",
              int timeoutMs = 20000) {
    const TestSysRoot scratch;
    ChildProcess ctl(OSTPMC_CTL_BINARY, args, {}, dir.empty() ? scratch.path() : dir);
    if (!ctl.wait(timeoutMs)) {
        return {-1000, ctl.stdoutText(), ctl.stderrText()};
    }
    return {ctl.exitCode(), ctl.stdoutText(), ctl.stderrText()};
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

Json::Value parse(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(JsonText::parse(text.data(), text.size(), value)) << text;
    return value;
}

}  // namespace

TEST(CtlWithoutDaemon, HelpUsageAndNoAnswer) {
    CtlRun help = runCtl({"--help"});
    EXPECT_EQ(0, help.exitCode);
    EXPECT_TRUE(has(help.out, "usage: ostpmc-ctl"));

    // A mistake is one line, not the whole usage.
    CtlRun bad = runCtl({"statuss"});
    EXPECT_EQ(1, bad.exitCode);
    EXPECT_EQ("ostpmc-ctl: unknown command 'statuss'; try --help\n", bad.err);

    // Nothing listens: said at once, long before the reply time-out of 30 s.
    CtlRun none = runCtl({"status"}, "", 5000);
    EXPECT_EQ(3, none.exitCode);
    EXPECT_EQ("ostpmc-ctl: ostPmc is not running at tcp://127.0.0.1:5573 (connection refused)\n",
              none.err);
    EXPECT_EQ("", none.out);

    // watch tells what it waits for, and that nothing publishes yet.
    CtlRun watch = runCtl({"watch", "1000", "-t", "300"});
    EXPECT_EQ(3, watch.exitCode);
    EXPECT_EQ(
        "ostpmc-ctl: waiting for state-machine notifications (1000) from ostPmc at "
        "tcp://127.0.0.1:5574; stops after 300 ms without one or on Ctrl-C\n"
        "ostpmc-ctl: ostPmc does not run there yet (connection refused); waiting for it\n"
        "ostpmc-ctl: no publication from tcp://127.0.0.1:5574 within 300 ms\n",
        watch.err);

    CtlRun missingFile = runCtl({"apply", "/nonexistent/cfg.json"});
    EXPECT_EQ(1, missingFile.exitCode);
    EXPECT_TRUE(has(missingFile.err, "cannot read /nonexistent/cfg.json"));
}

// Something accepts connections on the request port but never answers: the reply time-out.
TEST(CtlWithoutDaemon, ASilentPortGetsTheReplyTimeOut) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(listener, 0);
    const int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(5573);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, listen(listener, 4));
    CtlRun silent = runCtl({"--timeout", "500", "status"});
    close(listener);
    EXPECT_EQ(3, silent.exitCode);
    EXPECT_EQ(
        "ostpmc-ctl: no answer from ostPmc at tcp://127.0.0.1:5573 within 500 ms "
        "(ERROR_TIMEOUT)\n",
        silent.err);
}

TEST(CtlWithDaemon, ShowsWhatTheDaemonThinks) {
    RunningDaemon daemon(0);
    ASSERT_TRUE(daemon.ready()) << daemon.process().stderrText();
    const std::string dir = daemon.root().path();

    // Nothing has been read from ptp4l: no default record passes for a reading.
    CtlRun status = runCtl({"status"}, dir);
    EXPECT_EQ(0, status.exitCode) << status.err;
    EXPECT_EQ(
        "no status read from ptp4l yet: ptp4l not started (no configuration request so "
        "far)\n",
        status.out);
    CtlRun top = runCtl({"top", "-n", "1"}, dir);
    EXPECT_EQ(0, top.exitCode) << top.err;
    EXPECT_TRUE(has(top.out, "last notifications:\n  none yet\n")) << top.out;

    CtlRun json = runCtl({"--json", "status"}, dir);
    EXPECT_EQ(0, json.exitCode);
    EXPECT_EQ("AES67:Media", parse(json.out)["profile"].asString());

    CtlRun config = runCtl({"config"}, dir);
    EXPECT_EQ(0, config.exitCode);
    EXPECT_TRUE(has(config.out, "priority1             not set")) << config.out;

    CtlRun debug = runCtl({"-j", "debug"}, dir);
    EXPECT_EQ(0, debug.exitCode);
    Json::Value both = parse(debug.out);
    EXPECT_TRUE(both.isMember("status") && both.isMember("running-cfg"));

    // Board model 0 collects no statistics: the daemon refuses, and says why.
    CtlRun stats = runCtl({"stats"}, dir);
    EXPECT_EQ(2, stats.exitCode);
    EXPECT_EQ("ostpmc-ctl: ostPmc refused the request: -29 ERROR_NOT_AVAILABLE_ON_THIS_BOARD\n",
              stats.err);
    daemon.root().writeSystemDefaults(3);
    EXPECT_TRUE(eventually([&] { return runCtl({"stats"}, dir).exitCode == 0; }, 5000));

    const std::string cfgFile = dir + "/cfg.json";
    writeTextFile(cfgFile, "[1, 2");
    CtlRun broken = runCtl({"apply", cfgFile}, dir);
    EXPECT_EQ(1, broken.exitCode);
    EXPECT_TRUE(has(broken.err, "is not valid JSON")) << broken.err;
}

// What "config -j" prints goes back in with "apply", edited; the daemon's answer is told as
// the change it made. On EGRET the daemon neither drives ptp4l nor the clock driver, so no
// ptp4l is needed here.
TEST(CtlWithDaemon, ApplyTakesWhatConfigPrintsAndTellsWhatChanged) {
    RunningDaemon daemon(8);
    ASSERT_TRUE(daemon.ready()) << daemon.process().stderrText();
    const std::string dir = daemon.root().path();
    CtlRun saved = runCtl({"-j", "config"}, dir);
    ASSERT_EQ(0, saved.exitCode);
    Json::Value cfg = parse(saved.out);
    ASSERT_TRUE(cfg["ptp"].isObject()) << saved.out;
    cfg["ptp"]["profile"] = "SMPTE:2059-2";
    cfg["ptp"]["slaveOnly"] = 0;
    const std::string cfgFile = dir + "/cfg.json";
    writeTextFile(cfgFile, cfg.toStyledString());

    CtlRun apply = runCtl({"apply", cfgFile}, dir);
    EXPECT_EQ(0, apply.exitCode) << apply.err;
    EXPECT_EQ(
        "applied; the running configuration changed:\n"
        "- profile               AES67:Media\n"
        "- slave only            not set\n"
        "+ profile               SMPTE:2059-2\n"
        "+ slave only            no\n",
        apply.out);
    CtlRun again = runCtl({"apply", cfgFile}, dir);
    EXPECT_EQ(0, again.exitCode);
    EXPECT_TRUE(has(again.out, "nothing applied: this profile is already active")) << again.out;
}

TEST(CtlWatch, PrintsPublicationsAsTheyArrive) {
    zmq::context_t context;
    PublishJsonServer publisher(context);
    ASSERT_EQ(0, publisher.bindToAddress("tcp://127.0.0.1:5574"));

    const TestSysRoot scratch;
    ChildProcess watch(OSTPMC_CTL_BINARY, {"watch", "1000", "--count", "1", "--timeout", "10000"},
                       {}, scratch.path());
    // A subscriber misses what is sent before it is connected: publish until it has printed.
    Json::Value config;
    config["profile"] = "GPTP:L2";
    Json::Value notification;
    notification["action"] = 1;
    notification["gmid"] = "00-11-22-ff-fe-33-44-55";
    notification["domain"] = 0;
    notification["ptp-state"] = "failure";
    std::string configTopic = "1001";
    std::string fsmTopic = "1000";
    EXPECT_TRUE(eventually(
        [&] {
            publisher.publish(configTopic, config);
            publisher.publish(fsmTopic, notification);
            return !watch.running();
        },
        10000));
    ASSERT_TRUE(watch.wait(1000));
    EXPECT_EQ(0, watch.exitCode()) << watch.stderrText();
    // Only the topic asked for, one publication, readable.
    EXPECT_EQ(
        "[1000] state failure  action mute-all  grandmaster 00-11-22-ff-fe-33-44-55  "
        "domain 0\n",
        watch.stdoutText());
}
