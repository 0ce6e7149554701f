// Signals: a terminating signal stops the loop through the poll list, and nothing of our
// handling leaks into children (ptp4l is started by system() and must die by SIGTERM).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <zmq.hpp>

#include "Logger.h"
#include "ProcessBasics.h"
#include "TestSupport.h"

namespace {

// The Sig* masks of a /proc/<pid>/status file, by name ("SigBlk", "SigIgn", "SigCgt").
std::map<std::string, unsigned long long> signalMasks(const std::string& statusPath) {
    std::map<std::string, unsigned long long> masks;
    std::ifstream in(statusPath);
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 3, "Sig") == 0 && line.find(':') == 6) {
            masks[line.substr(0, 6)] = std::stoull(line.substr(7), nullptr, 16);
        }
    }
    return masks;
}

bool hasSignal(unsigned long long mask, int signo) {
    return (mask >> (signo - 1)) & 1u;
}

// Runs the loop as the server does: wait, hand ready items to the handler, stop on the flag.
bool serveUntilStopped(PollFds& fds, ProcessBasics& basics) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    while (!basics.isStopRequested() && std::chrono::steady_clock::now() < deadline) {
        const int rc = pollOnce(fds, 3000);
        if (rc < 0 && errno != EINTR) {
            return false;
        }
        for (int i = 0; i < fds.getPollListSize(); ++i) {
            if (fds.getPollList()[i].revents != 0) {
                EXPECT_TRUE(basics.processSignalHandlerFd(fds.getPollList()[i]));
            }
        }
    }
    return basics.isStopRequested();
}

TEST(ProcessBasics, SigtermWhileWaitingStopsTheLoop) {
    zmq::context_t context;
    zmq::socket_t quiet(context, zmq::socket_type::rep);
    quiet.bind("inproc://quiet");
    PollFds fds;
    ASSERT_EQ(fds.addSocket(quiet.handle(), ZMQ_POLLIN), 0);
    ProcessBasics basics;
    ASSERT_EQ(basics.registerCatchSignals(fds), 0);
    ASSERT_EQ(fds.getPollListSize(), 2);
    // A second registration adds no second descriptor.
    ASSERT_EQ(basics.registerCatchSignals(fds), 0);
    ASSERT_EQ(fds.getPollListSize(), 2);

    zmq_pollitem_t foreign = fds.getPollList()[0];
    EXPECT_FALSE(basics.processSignalHandlerFd(foreign));

    LogCapture log;
    std::thread sender([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        kill(getpid(), SIGTERM);
    });
    const bool stopped = serveUntilStopped(fds, basics);
    sender.join();
    EXPECT_TRUE(stopped);
    EXPECT_EQ(basics.lastSignal(), SIGTERM);
    EXPECT_TRUE(log.containsFragment("ProcessBasics: signal 15"));
}

TEST(ProcessBasics, EachTerminatingSignalStopsAndDispositionsAreRestored) {
    struct sigaction before {};
    ASSERT_EQ(sigaction(SIGHUP, nullptr, &before), 0);
    for (int signo : {SIGINT, SIGQUIT, SIGHUP}) {
        SCOPED_TRACE(signo);
        PollFds fds;
        ProcessBasics basics;
        ASSERT_EQ(basics.registerCatchSignals(fds), 0);
        ASSERT_EQ(raise(signo), 0);
        EXPECT_TRUE(serveUntilStopped(fds, basics));
        EXPECT_EQ(basics.lastSignal(), signo);
    }
    struct sigaction after {};
    ASSERT_EQ(sigaction(SIGHUP, nullptr, &after), 0);
    EXPECT_EQ(after.sa_handler, before.sa_handler);
}

TEST(ProcessBasics, ChildrenGetDefaultSignalsAndParentSurvivesSigpipe) {
    PollFds fds;
    ProcessBasics basics;
    ASSERT_EQ(basics.registerCatchSignals(fds), 0);

    const auto parent = signalMasks("/proc/self/status");
    EXPECT_FALSE(hasSignal(parent.at("SigBlk"), SIGTERM));
    EXPECT_TRUE(hasSignal(parent.at("SigCgt"), SIGTERM));
    EXPECT_TRUE(hasSignal(parent.at("SigCgt"), SIGPIPE));

    // A broken pipe is an error return here, not the end of the daemon.
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    close(pipeFds[0]);
    EXPECT_EQ(write(pipeFds[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(pipeFds[1]);

    // What the init script and ptp4l see when started through system().
    TempDir dir;
    const std::string out = dir.file("status");
    ASSERT_EQ(std::system(("grep '^Sig' /proc/self/status > " + out).c_str()), 0);
    const auto viaSystem = signalMasks(out);
    for (int signo : {SIGTERM, SIGPIPE, SIGHUP}) {
        EXPECT_FALSE(hasSignal(viaSystem.at("SigBlk"), signo)) << signo;
        EXPECT_FALSE(hasSignal(viaSystem.at("SigIgn"), signo)) << signo;
    }

    // A forked and exec'd child dies of SIGTERM.
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        execlp("sleep", "sleep", "5", static_cast<char*>(nullptr));
        _exit(127);
    }
    const std::string proc = "/proc/" + std::to_string(pid);
    std::string comm;
    for (int i = 0; i < 200 && comm != "sleep"; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        std::ifstream(proc + "/comm") >> comm;
    }
    EXPECT_EQ(comm, "sleep");
    const auto child = signalMasks(proc + "/status");
    EXPECT_FALSE(hasSignal(child.at("SigBlk"), SIGTERM));
    EXPECT_FALSE(hasSignal(child.at("SigIgn"), SIGTERM));
    EXPECT_FALSE(hasSignal(child.at("SigIgn"), SIGPIPE));
    ASSERT_EQ(kill(pid, SIGTERM), 0);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}

}  // namespace
