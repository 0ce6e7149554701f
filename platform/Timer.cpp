#include "Timer.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "Logger.h"
#include "PollFds.h"

Timer::~Timer() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

int Timer::initTimer(PollFds& pollFds, unsigned int seconds) {
    if (seconds == 0) {
        // A zero period would disarm the timer instead of making it tick.
        Logger::log(Logger::ERR, "Timer: a period of 0 s is not a timer");
        return -EINVAL;
    }
    const bool created = m_fd < 0;
    if (created) {
        m_fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
        if (m_fd < 0) {
            const int error = errno;
            Logger::log(Logger::ERR, "Timer: timerfd_create failed: %s", strerror(error));
            return -error;
        }
    }
    struct itimerspec period {};
    period.it_value.tv_sec = static_cast<time_t>(seconds);
    period.it_interval.tv_sec = static_cast<time_t>(seconds);
    // Re-arming also forgets expirations not read yet: the new period starts now.
    if (timerfd_settime(m_fd, 0, &period, nullptr) != 0) {
        const int error = errno;
        Logger::log(Logger::ERR, "Timer: timerfd_settime(%u s) failed: %s", seconds,
                    strerror(error));
        if (created) {
            close(m_fd);
            m_fd = -1;
        }
        return -error;
    }
    if (created && pollFds.addFd(m_fd, ZMQ_POLLIN) < 0) {
        Logger::log(Logger::ERR, "Timer: cannot add the timer descriptor to the list");
        close(m_fd);
        m_fd = -1;
        return -EINVAL;
    }
    return 0;
}

bool Timer::processTimerFd(const zmq_pollitem_t& item) {
    if (m_fd < 0 || item.socket != nullptr || item.fd != m_fd) {
        return false;
    }
    uint64_t expirations = 0;
    ssize_t n;
    do {
        n = read(m_fd, &expirations, sizeof(expirations));
    } while (n < 0 && errno == EINTR);
    // Nothing to read (EAGAIN) when the timer was re-armed after the poll saw it ready.
    m_last_expirations = n == static_cast<ssize_t>(sizeof(expirations)) ? expirations : 0;
    return true;
}
