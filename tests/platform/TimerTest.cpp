// The status timer: it ticks, re-arming keeps one poll item, and it claims only its own.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>

#include "TestSupport.h"
#include "Timer.h"

namespace {

TEST(Timer, FiresAndReArmsWithoutSecondPollItem) {
    PollFds fds;
    Timer timer;
    EXPECT_FALSE(timer.isArmed());
    ASSERT_EQ(timer.initTimer(fds, 1), 0);
    ASSERT_EQ(fds.getPollListSize(), 1);
    ASSERT_EQ(timer.initTimer(fds, 1), 0);
    EXPECT_EQ(fds.getPollListSize(), 1);

    ASSERT_EQ(pollOnce(fds, 3000), 1);
    const zmq_pollitem_t item = fds.getPollList()[0];
    EXPECT_TRUE(item.revents & ZMQ_POLLIN);
    EXPECT_TRUE(timer.processTimerFd(item));
    EXPECT_EQ(timer.lastExpirations(), 1u);
    // The expiry was consumed: the descriptor is quiet until the next tick.
    EXPECT_EQ(pollOnce(fds, 0), 0);
}

TEST(Timer, ClaimsOnlyItsOwnDescriptor) {
    PollFds fds;
    Timer timer;
    zmq_pollitem_t unarmed{};
    unarmed.fd = -1;
    EXPECT_FALSE(timer.processTimerFd(unarmed));

    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(timer.initTimer(fds, 5), 0);
    const zmq_pollitem_t own = fds.getPollList()[0];

    zmq_pollitem_t foreign{};
    foreign.fd = pipeFds[0];
    EXPECT_FALSE(timer.processTimerFd(foreign));
    // A socket item is never the timer, whatever its fd member holds.
    int dummy = 0;
    zmq_pollitem_t socketItem = own;
    socketItem.socket = &dummy;
    EXPECT_FALSE(timer.processTimerFd(socketItem));
    // Claimed even when nothing expired yet; nothing is counted then.
    EXPECT_TRUE(timer.processTimerFd(own));
    EXPECT_EQ(timer.lastExpirations(), 0u);

    EXPECT_EQ(timer.initTimer(fds, 0), -EINVAL);
    EXPECT_EQ(fds.getPollListSize(), 1);
    close(pipeFds[0]);
    close(pipeFds[1]);
}

}  // namespace
