#pragma once

#include <json/json.h>

#include <chrono>
#include <cstdint>

// Whether the once-a-second status cycle works, for operators: how many cycles ran, whether
// the last one read ptp4l, how many failed in a row and when the last good one was.
class MonitorHealth {
  public:
    // After so many failed cycles in a row ptp4l counts as gone.
    static constexpr int SILENT_CYCLES = 10;

    void cycleSucceeded();
    // True on the cycle that makes ptp4l count as gone (once per outage).
    bool cycleFailed();

    uint64_t cycles() const { return m_cycles; }
    int failedInARow() const { return m_failed_in_a_row; }
    bool everSucceeded() const { return m_good_cycles > 0; }

    // {"ptp4lStarted", "cycles", "lastCycleOk", "failedCyclesInARow", "lastGoodCycle" (local
    // time text, or null), "secondsSinceLastGoodCycle" (or null)}.
    void Serialize(Json::Value& out, bool ptp4lStarted) const;

  private:
    uint64_t m_cycles = 0;
    uint64_t m_good_cycles = 0;
    int m_failed_in_a_row = 0;
    std::chrono::steady_clock::time_point m_last_good;
    std::chrono::system_clock::time_point m_last_good_wall;
};
