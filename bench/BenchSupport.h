#pragma once

// What the benchmark programs share: a clean stop on Ctrl-C, namespaces of their own for the
// daemon's fixed ports, CPU pinning and a few figures.
#include <sys/types.h>

#include <utility>
#include <vector>

namespace bench {

// SIGINT, SIGTERM and SIGHUP set the stop flag: the servers' own handlers only wake a poll loop
// that a benchmark does not run, so a benchmark ends through its destructors instead.
void catchStopSignals();
bool stopRequested();
// Throws when a stop was asked for.
void checkStop();

// A network namespace of this process's own with its loopback up, and with privateMounts a
// mount namespace whose mounts do not reach this machine's. Throws when it cannot (not root).
// Without the mount namespace a test bed's namespaces stay where its cleanup finds them, should
// the process be killed.
void enterPrivateNetwork(bool privateMounts = false);

// The last CPU this process may run on.
int lastAllowedCpu();
// Pins a process (0: this thread; threads started later inherit it) to one CPU; throws.
void pin(pid_t pid, int cpu);

// Resident set size of a process (0: this one), in KiB; -1 when it cannot be read.
long rssKiB(pid_t pid = 0);

double mean(const std::vector<double>& values);
// The value below which the fraction p (0..1) of values lies; 0 for none.
double percentile(std::vector<double> values, double p);
inline double median(std::vector<double> values) {
    return percentile(std::move(values), 0.5);
}

}  // namespace bench
