// Signals: a terminating signal stops the loop through the poll list, and nothing of our
// handling leaks into children (ptp4l is started by system() and must die by SIGTERM).
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "Logger.h"
#include "ProcessBasics.h"
#include "TestSupport.h"

namespace {

// Runs the loop as the server does: wait, hand ready items to the handler, stop on the flag.
bool serveUntilStopped(PollFds& fds, ProcessBasics& basics) {
    return handleReady(fds, 3000, [&](const zmq_pollitem_t& item) {
        EXPECT_TRUE(basics.processSignalHandlerFd(item));
        return basics.isStopRequested() ? 1 : 0;
    });
}

TEST(ProcessBasics, SignalsStopTheLoopAndChildrenGetDefaults) {
    PollFds fds;
    ProcessBasics basics;
    ASSERT_EQ(basics.registerCatchSignals(fds), 0);
    ASSERT_EQ(basics.registerCatchSignals(fds), 0);
    ASSERT_EQ(fds.getPollListSize(), 1);
    const zmq_pollitem_t foreign{nullptr, 0, ZMQ_POLLIN, 0};
    EXPECT_FALSE(basics.processSignalHandlerFd(foreign));

    LogCapture log;
    std::thread sender([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        kill(getpid(), SIGTERM);
    });
    EXPECT_TRUE(serveUntilStopped(fds, basics));
    sender.join();
    EXPECT_EQ(basics.lastSignal(), SIGTERM);
    EXPECT_TRUE(log.containsFragment("ProcessBasics: signal 15"));

    // A broken pipe is an error return here, not the end of the daemon.
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    close(pipeFds[0]);
    EXPECT_EQ(write(pipeFds[1], "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    close(pipeFds[1]);

    // A shell started as the init script is (system()) dies of the signal it sends itself.
    for (int signo : {SIGTERM, SIGPIPE, SIGHUP}) {
        const int status = std::system(("kill -" + std::to_string(signo) + " $$; exit 3").c_str());
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signo) << signo << " " << status;
    }

    // The other terminating signals, each caught by an object nested inside this one.
    for (int signo : {SIGINT, SIGQUIT, SIGHUP}) {
        PollFds innerFds;
        ProcessBasics inner;
        ASSERT_EQ(inner.registerCatchSignals(innerFds), 0);
        ASSERT_EQ(raise(signo), 0);
        EXPECT_TRUE(serveUntilStopped(innerFds, inner));
        EXPECT_EQ(inner.lastSignal(), signo);
    }
}

}  // namespace
