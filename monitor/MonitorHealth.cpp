#include "MonitorHealth.h"

#include <ctime>

void MonitorHealth::cycleSucceeded() {
    ++m_cycles;
    ++m_good_cycles;
    m_failed_in_a_row = 0;
    m_last_good = std::chrono::steady_clock::now();
    m_last_good_wall = std::chrono::system_clock::now();
}

bool MonitorHealth::cycleFailed() {
    ++m_cycles;
    return ++m_failed_in_a_row == SILENT_CYCLES;
}

void MonitorHealth::Serialize(Json::Value& out, bool ptp4lStarted) const {
    out["ptp4lStarted"] = ptp4lStarted;
    out["cycles"] = Json::UInt64(m_cycles);
    out["lastCycleOk"] = m_cycles > 0 && m_failed_in_a_row == 0;
    out["failedCyclesInARow"] = m_failed_in_a_row;
    if (m_good_cycles == 0) {
        out["lastGoodCycle"] = Json::nullValue;
        out["secondsSinceLastGoodCycle"] = Json::nullValue;
        return;
    }
    const std::time_t when = std::chrono::system_clock::to_time_t(m_last_good_wall);
    std::tm local;
    localtime_r(&when, &local);
    char text[32];
    std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S%z", &local);
    out["lastGoodCycle"] = text;
    out["secondsSinceLastGoodCycle"] =
        Json::Int64(std::chrono::duration_cast<std::chrono::seconds>(
                        std::chrono::steady_clock::now() - m_last_good)
                        .count());
}
