#pragma once

#include <string>

// Proof that nothing moved this machine's clock while it watched: the kernel's frequency
// correction and clock status, and the distance between CLOCK_REALTIME and CLOCK_MONOTONIC
// (which only a step or an offset change alters), taken at construction and compared later.
class HostClockWatch {
  public:
    HostClockWatch();

    // Empty when the clock is as it was; otherwise what changed. Time passing alone does not
    // move the REALTIME-MONOTONIC distance (only a step does), so the bound can be far below
    // the 20 us from which ptp4l steps a clock.
    std::string changes(long long maxStepNs = 10000) const;

  private:
    struct Reading {
        long freq = 0;    // scaled ppm, as adjtimex reports it
        int status = 0;   // STA_* bits
        long offset = 0;  // remaining slew, microseconds or nanoseconds by STA_NANO
        long long realMinusMonoNs = 0;
        long long uncertaintyNs = 0;  // half the tightest bracket of monotonic reads
        bool ok = false;
    };
    static Reading read();

    Reading m_before;
};
