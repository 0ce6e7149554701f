// The status timer: it ticks, re-arming keeps one poll item, and it claims only its own.
#include <gtest/gtest.h>

#include <cerrno>

#include "TestSupport.h"
#include "Timer.h"

namespace {

TEST(Timer, FiresAndReArmsWithoutSecondPollItem) {
    PollFds fds;
    Timer timer;
    ASSERT_EQ(timer.initTimer(fds, 1), 0);
    ASSERT_EQ(timer.initTimer(fds, 1), 0);
    EXPECT_EQ(timer.initTimer(fds, 0), -EINVAL);
    ASSERT_EQ(fds.getPollListSize(), 1);

    ASSERT_EQ(zmq_poll(fds.getPollList(), 1, 3000), 1);
    const zmq_pollitem_t own = fds.getPollList()[0];
    EXPECT_TRUE(timer.processTimerFd(own));
    EXPECT_EQ(timer.lastExpirations(), 1u);
    // The expiry was consumed: the descriptor is quiet until the next tick.
    EXPECT_EQ(zmq_poll(fds.getPollList(), 1, 0), 0);
    // Still claimed (without blocking) when nothing expired; nothing is counted then.
    EXPECT_TRUE(timer.processTimerFd(own));
    EXPECT_EQ(timer.lastExpirations(), 0u);

    // Neither a socket item, whatever its fd member holds, nor another descriptor is the timer.
    int socket = 0;
    zmq_pollitem_t other{&socket, own.fd, ZMQ_POLLIN, 0};
    EXPECT_FALSE(timer.processTimerFd(other));
    other = {nullptr, own.fd + 1, ZMQ_POLLIN, 0};
    EXPECT_FALSE(timer.processTimerFd(other));
}

}  // namespace
