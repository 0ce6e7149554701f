#pragma once

#include <zmq.h>

class PollFds;

// Periodic CLOCK_MONOTONIC timer on a timerfd. The first initTimer adds the descriptor to the
// poll list; later calls re-arm the same descriptor and add nothing (whatever list they get).
class Timer {
  public:
    Timer() = default;
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Arms the timer to fire every `seconds` (at least 1), the first time `seconds` from now;
    // 0 or a negative errno value.
    int initTimer(PollFds& pollFds, unsigned int seconds);
    // True when item is this timer's descriptor; reads the expiry count.
    bool processTimerFd(const zmq_pollitem_t& item);
    bool isArmed() const { return m_fd >= 0; }
    // Expirations read by the last processTimerFd (more than 1 when ticks were missed).
    unsigned long long lastExpirations() const { return m_last_expirations; }

  private:
    int m_fd = -1;
    unsigned long long m_last_expirations = 0;
};
