#include "BenchSupport.h"

#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

namespace bench {

namespace {

volatile sig_atomic_t g_stop = 0;

void onStop(int) {
    g_stop = 1;
}

std::runtime_error systemError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

}  // namespace

void catchStopSignals() {
    struct sigaction action {};
    action.sa_handler = onStop;
    sigemptyset(&action.sa_mask);
    for (int signo : {SIGINT, SIGTERM, SIGHUP}) {
        sigaction(signo, &action, nullptr);
    }
}

bool stopRequested() {
    return g_stop != 0;
}

void checkStop() {
    if (g_stop) {
        throw std::runtime_error("interrupted");
    }
}

void enterPrivateNetwork(bool privateMounts) {
    if (unshare(CLONE_NEWNET | (privateMounts ? CLONE_NEWNS : 0)) != 0) {
        throw systemError("unshare (run as root)");
    }
    if (privateMounts && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        throw systemError("cannot make the mounts private");
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq lo{};
    std::strncpy(lo.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = false;
    if (fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &lo) == 0) {
        lo.ifr_flags |= IFF_UP;
        up = ioctl(fd, SIOCSIFFLAGS, &lo) == 0;
    }
    if (fd >= 0) {
        close(fd);
    }
    if (!up) {
        throw std::runtime_error("cannot bring up the loopback interface");
    }
}

int lastAllowedCpu() {
    cpu_set_t set;
    CPU_ZERO(&set);
    sched_getaffinity(0, sizeof(set), &set);
    int last = 0;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set)) {
            last = cpu;
        }
    }
    return last;
}

void pin(pid_t pid, int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    if (sched_setaffinity(pid, sizeof(set), &set) != 0) {
        throw systemError("cannot pin " + std::to_string(pid) + " to CPU " + std::to_string(cpu));
    }
}

long rssKiB(pid_t pid) {
    std::ifstream status("/proc/" + (pid ? std::to_string(pid) : std::string("self")) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::atol(line.c_str() + 6);
        }
    }
    return -1;
}

double mean(const std::vector<double>& values) {
    double sum = 0;
    for (double v : values) {
        sum += v;
    }
    return values.empty() ? 0 : sum / static_cast<double>(values.size());
}

double percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(p * static_cast<double>(values.size() - 1))];
}

}  // namespace bench
