#include "HostClockWatch.h"

#include <sys/timex.h>
#include <time.h>

#include <cstdlib>
#include <sstream>

namespace {

long long toNs(const timespec& ts) {
    return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec;
}

}  // namespace

HostClockWatch::HostClockWatch() : m_before(read()) {}

HostClockWatch::Reading HostClockWatch::read() {
    Reading reading;
    timex tx{};
    tx.modes = 0;  // read only
    if (adjtimex(&tx) < 0) {
        return reading;
    }
    reading.freq = tx.freq;
    reading.status = tx.status;
    reading.offset = tx.offset;
    // Bracket the realtime reading with two monotonic ones, and keep the tightest of a few
    // brackets, so that a preemption between the reads cannot pass for a step.
    long long best = -1;
    for (int attempt = 0; attempt < 10; ++attempt) {
        timespec mono1, real, mono2;
        clock_gettime(CLOCK_MONOTONIC, &mono1);
        clock_gettime(CLOCK_REALTIME, &real);
        clock_gettime(CLOCK_MONOTONIC, &mono2);
        long long width = toNs(mono2) - toNs(mono1);
        if (best < 0 || width < best) {
            best = width;
            reading.realMinusMonoNs = toNs(real) - (toNs(mono1) + toNs(mono2)) / 2;
        }
    }
    reading.uncertaintyNs = best / 2 + 1;
    reading.ok = true;
    return reading;
}

std::string HostClockWatch::changes(long long maxStepNs) const {
    Reading now = read();
    std::ostringstream out;
    if (!m_before.ok || !now.ok) {
        out << "adjtimex could not be read; ";
    }
    if (now.freq != m_before.freq) {
        out << "frequency " << m_before.freq << " -> " << now.freq << "; ";
    }
    if (now.status != m_before.status) {
        out << "status 0x" << std::hex << m_before.status << " -> 0x" << now.status << std::dec
            << "; ";
    }
    if (now.offset != m_before.offset) {
        out << "offset " << m_before.offset << " -> " << now.offset << "; ";
    }
    long long drift = now.realMinusMonoNs - m_before.realMinusMonoNs;
    if (std::llabs(drift) > maxStepNs + m_before.uncertaintyNs + now.uncertaintyNs) {
        out << "CLOCK_REALTIME moved " << drift << " ns against CLOCK_MONOTONIC; ";
    }
    return out.str();
}
