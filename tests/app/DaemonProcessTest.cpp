// The built daemon as the init system and operators see it: command line, start-up failure,
// stopping on signals, detaching.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <regex>

#include "ChildProcess.h"
#include "FreePorts.h"
#include "RunningDaemon.h"
#include "TestSysRoot.h"

namespace {

std::vector<std::string> rootEnv(const TestSysRoot& root) {
    return {"OSTPMC_SYSROOT=" + root.path()};
}

// Holds a loop-back TCP port the way another service would.
class PortHolder {
  public:
    explicit PortHolder(uint16_t port) : m_fd(bindLoopback(port)) {
        m_ok = m_fd >= 0 && listen(m_fd, 1) == 0;
    }
    ~PortHolder() { close(m_fd); }
    bool ok() const { return m_ok; }

  private:
    const int m_fd;
    bool m_ok;
};

bool containsInOrder(const std::string& text, const std::vector<std::string>& lines,
                     std::string& missing) {
    size_t at = 0;
    for (const std::string& line : lines) {
        size_t found = text.find(line, at);
        if (found == std::string::npos) {
            missing = line;
            return false;
        }
        at = found + line.size();
    }
    return true;
}

}  // namespace

TEST(DaemonCommandLine, UnknownOptionPrintsUsageAndExitsOne) {
    TestSysRoot root;
    ChildProcess daemon(OSTPMC_BINARY, {"-s"}, rootEnv(root), root.path());
    ASSERT_TRUE(daemon.wait(5000));
    EXPECT_EQ(1, daemon.exitCode());
    const std::string usage = std::string(OSTPMC_BINARY) +
                              "\n    [-L <log_filename>] [-l <log_level 0..7>] [-s]\n\n"
                              "  -d                       : daemonize\n\n"
                              "  -L <log_filename>        : file to log debug output to\n"
                              "  -l <log_level>           : 2=ERR 3=WRN 4=NTF 5=INF, 6=DBG "
                              "7=VERBOSE\n";
    const std::string err = daemon.stderrText();
    // getopt's own complaint comes first, the usage text last.
    ASSERT_GE(err.size(), usage.size()) << err;
    EXPECT_EQ(usage, err.substr(err.size() - usage.size()));
    EXPECT_EQ("", root.initScriptRuns());
}

TEST(DaemonCommandLine, LogLevelKeepsOnlyTheLowThreeBits) {
    // 13 & 7 = 5: INF lines are written, VERBOSE ones are not.
    RunningDaemon info(0, {"-l", "13"});
    ASSERT_TRUE(info.ready()) << info.process().stderrText();
    EXPECT_EQ(0, info.stop());
    EXPECT_NE(std::string::npos, info.process().stderrText().find(" INF OSTPMC: main loop"));
    EXPECT_EQ(std::string::npos, info.process().stderrText().find(" VRB "));

    // 8 & 7 = 0: nothing at all is written.
    TestSysRoot root;
    ChildProcess quiet(OSTPMC_BINARY, {"-l", "8"}, rootEnv(root), root.path());
    // Only the main loop answers: by then the signals are caught.
    ASSERT_TRUE(daemonAnswers(10000));
    quiet.signal(SIGTERM);
    ASSERT_TRUE(quiet.wait(10000));
    EXPECT_EQ(0, quiet.exitCode());
    EXPECT_EQ("", quiet.stderrText());
}

TEST(DaemonCommandLine, LogFileOptionTakesNoArgumentAndDoesNotCrash) {
    // "-L" is a flag: the name after it is an operand that is ignored, and no file is made.
    RunningDaemon daemon(0, {"-l", "7", "-L", "/tmp/ostpmc-never-written.log"});
    ASSERT_TRUE(daemon.ready()) << daemon.process().stderrText();
    EXPECT_EQ(0, daemon.stop());
    EXPECT_FALSE(std::ifstream("/tmp/ostpmc-never-written.log").good());
}

TEST(DaemonStartup, RequestPortTakenFailsWithBindMessageAndStatus221) {
    PortHolder holder(5573);
    ASSERT_TRUE(holder.ok()) << "127.0.0.1:5573 is already in use on this machine";
    TestSysRoot root;
    ChildProcess daemon(OSTPMC_BINARY, {}, rootEnv(root), root.path());
    ASSERT_TRUE(daemon.wait(10000));
    EXPECT_EQ(221, daemon.exitCode());  // -35 modulo 256
    const std::string err = daemon.stderrText();
    ASSERT_NE(std::string::npos, err.find("Error binding on socket")) << err;
    EXPECT_NE(std::string::npos,
              err.find(" ERR OstPmcServer: Error binding on socket tcp://127.0.0.1:5573. "
                       "Error [98]::Address already in use"))
        << err;
    EXPECT_TRUE(std::regex_search(
        err, std::regex(R"( ERR CHK\(int main\(int, char\*\*\)\)::\d+ Error Code -35)")))
        << err;
    // A server that never started owns no ptp4l: nothing is stopped.
    EXPECT_EQ("", root.initScriptRuns());
    EXPECT_EQ(std::string::npos, err.find("Stopping ptp4l"));
}

// The publisher binds first: another service on the publish port stops the start with its code.
TEST(DaemonStartup, PublishPortTakenFailsWithItsCode) {
    PortHolder holder(5574);
    ASSERT_TRUE(holder.ok()) << "127.0.0.1:5574 is already in use on this machine";
    TestSysRoot root;
    ChildProcess daemon(OSTPMC_BINARY, {}, rootEnv(root), root.path());
    ASSERT_TRUE(daemon.wait(10000));
    EXPECT_EQ(158, daemon.exitCode());  // -EADDRINUSE modulo 256
    const std::string err = daemon.stderrText();
    EXPECT_NE(std::string::npos,
              err.find(" ERR CHK(int OstPmcPublisher::init(zmq::context_t&))::41 Error Code -98"))
        << err;
    EXPECT_TRUE(std::regex_search(
        err, std::regex(R"( ERR CHK\(int OstPmcServer::init\(\)\)::\d+ Error Code -98)")))
        << err;
    EXPECT_EQ(std::string::npos, err.find("Error binding on socket"));
}

class DaemonStopSignal : public ::testing::TestWithParam<int> {};

TEST_P(DaemonStopSignal, TerminatingSignalStopsCleanlyAndStopsPtp4l) {
    RunningDaemon daemon;
    ASSERT_TRUE(daemon.ready()) << daemon.process().stderrText();
    EXPECT_EQ(0, daemon.stop(GetParam()));
    EXPECT_EQ("stop\n", daemon.root().initScriptRuns());
    std::string missing;
    EXPECT_TRUE(containsInOrder(
        daemon.process().stderrText(),
        {" NTF OSTPMC: Signal handler detected event", " WRN OSTPMC:: Main loop interrupted.",
         " NTF Deleting OstPmcServer object", " VRB OstPmcServer dtor",
         " NTF OSTPMC:: Stopping ptp4l",
         // The script succeeded: every init-script run counts a result below 1 as failure.
         " ERR virtual OstPmcServer::~OstPmcServer(): system call failed", " WRN OSTPMC:: bye"},
        missing))
        << "missing or out of order: " << missing << "\n"
        << daemon.process().stderrText();
}

INSTANTIATE_TEST_SUITE_P(Signals, DaemonStopSignal,
                         ::testing::Values(SIGTERM, SIGINT, SIGQUIT, SIGHUP),
                         [](const auto& param) { return std::string(sigabbrev_np(param.param)); });

TEST(DaemonStop, EgretBoardLeavesPtp4lAlone) {
    RunningDaemon daemon(8);
    ASSERT_TRUE(daemon.ready()) << daemon.process().stderrText();
    EXPECT_EQ(0, daemon.stop());
    EXPECT_EQ("", daemon.root().initScriptRuns());
    const std::string err = daemon.process().stderrText();
    EXPECT_EQ(std::string::npos, err.find("Stopping ptp4l"));
    EXPECT_NE(std::string::npos, err.find(" WRN OSTPMC:: bye"));
}

TEST(DaemonDetach, DetachesIntoItsOwnSessionAndKeepsServing) {
    // Adopt the detached daemon so that it can be reaped here, by its pid.
    ASSERT_EQ(0, prctl(PR_SET_CHILD_SUBREAPER, 1));
    TestSysRoot root;
    ChildProcess parent(OSTPMC_BINARY, {"-d", "-l", "7"}, rootEnv(root), root.path());
    ASSERT_TRUE(parent.wait(5000));
    EXPECT_EQ(0, parent.exitCode());
    EXPECT_EQ("\nOSTPMC: daemonizing\n", parent.stdoutText());

    // The detached daemon keeps the same standard error; its log lines carry its pid.
    ASSERT_TRUE(parent.waitForStderr("OSTPMC: Ready to receive commands", 10000))
        << parent.stderrText();
    std::smatch match;
    const std::string err = parent.stderrText();
    ASSERT_TRUE(std::regex_search(err, match, std::regex(R"(ostPmc\[(\d+)\])")));
    const pid_t daemonPid = std::stoi(match[1]);
    EXPECT_NE(parent.pid(), daemonPid);
    EXPECT_EQ(daemonPid, getsid(daemonPid));  // session leader, no terminal
    EXPECT_TRUE(daemonAnswers(5000));

    ASSERT_EQ(0, kill(daemonPid, SIGTERM));
    int status = -1;
    EXPECT_TRUE(
        eventually([&] { return waitpid(daemonPid, &status, WNOHANG) == daemonPid; }, 10000));
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_TRUE(parent.waitForStderr("OSTPMC:: bye", 1000));
    EXPECT_EQ("stop\n", root.initScriptRuns());
}
