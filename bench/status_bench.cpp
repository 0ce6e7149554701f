// Cost and footprint of the once-a-second status cycle, measured on the server object itself:
//  - the cycle back to back against the test bed's slave ptp4l (board model 2: one port, no
//    statistics, so a cycle is exactly four GETs),
//  - the floor: the same four GETs and their replies over a bare socket to the same ptp4l,
//    timed in pairs with the cycle (alternating which goes first) so that both see the same
//    machine, with this process and that ptp4l pinned to one CPU,
//  - heap in use after many cycles against the fake ptp4l, with the reconciliation idle and
//    with it failing on every cycle.
// Needs root: it makes a network namespace of its own and a test bed. Not a test: the figures
// are for people to read.
#include <malloc.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "Logger.h"
#include "OstPmcServerProbe.h"
#include "Ptp4lBed.h"
#include "ScriptedPeer.h"  // unixAddress
#include "WireBytes.h"

namespace {

constexpr int ONE_PORT_BOARD = 2;
// The reconciliation stops after this many runs; the measured cycles come after it.
constexpr int RECONCILIATION_RUNS = 60;
constexpr uint16_t DEFAULT_DATA_SET = 0x2000, CURRENT_DATA_SET = 0x2001, PARENT_DATA_SET = 0x2002,
                   PORT_DATA_SET = 0x2004, PRIORITY1 = 0x2005;
constexpr uint8_t GET = 0;
constexpr uint8_t REFUSED_PRIORITY1 = 100;  // the fake runs with 128

struct Options {
    int cpu = -1;  // -1: the last CPU this process may use
    int pairs = 20;
    int batch = 2000;  // cycles, and rounds of the floor, per half of a pair
    int warmup = 1000;
    int cycles = 100000;  // after the warm-up, for the heap figures
};

using Clock = std::chrono::steady_clock;
using bench::checkStop;
using bench::mean;
using bench::median;

double microseconds(Clock::duration d) {
    return std::chrono::duration<double, std::micro>(d).count();
}

// The four GETs of a one-port board's cycle, byte for byte as the daemon sends them but for
// the sequenceId (0 here), which ptp4l only echoes.
std::vector<Bytes> cycleGets() {
    return {mgmtMessage(GET, mgmtTlv(DEFAULT_DATA_SET, Bytes(20))),
            mgmtMessage(GET, mgmtTlv(PORT_DATA_SET, Bytes(26)), 1),
            mgmtMessage(GET, mgmtTlv(PARENT_DATA_SET, Bytes(32))),
            mgmtMessage(GET, mgmtTlv(CURRENT_DATA_SET, Bytes(18)))};
}

// The least a client can do for the cycle's data: each GET sent and its reply received in
// turn, as the daemon does, with the datagrams built once. ptp4l answers only filesystem
// addresses, so the socket is bound to one.
class FloorClient {
  public:
    FloorClient(std::string path, const std::string& serverPath)
        : m_path(std::move(path)), m_server(unixAddress(serverPath)), m_gets(cycleGets()) {
        unlink(m_path.c_str());
        const sockaddr_un self = unixAddress(m_path);
        const timeval timeout = {2, 0};
        if (m_fd < 0 || bind(m_fd, reinterpret_cast<const sockaddr*>(&self), sizeof(self)) != 0 ||
            setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout)) != 0) {
            throw std::runtime_error("floor client: cannot bind " + m_path);
        }
    }
    ~FloorClient() {
        close(m_fd);
        unlink(m_path.c_str());
    }
    FloorClient(const FloorClient&) = delete;
    FloorClient& operator=(const FloorClient&) = delete;

    bool round() {
        for (const Bytes& get : m_gets) {
            if (sendto(m_fd, get.data(), get.size(), 0,
                       reinterpret_cast<const sockaddr*>(&m_server), sizeof(m_server)) < 0 ||
                recv(m_fd, m_reply, sizeof(m_reply), 0) < 0) {
                return false;
            }
        }
        return true;
    }

    // One round whose replies are checked: a MANAGEMENT TLV of each GET's own id.
    bool answered() {
        for (const Bytes& get : m_gets) {
            sendto(m_fd, get.data(), get.size(), 0, reinterpret_cast<const sockaddr*>(&m_server),
                   sizeof(m_server));
            const ssize_t n = recv(m_fd, m_reply, sizeof(m_reply), 0);
            if (n < 52 || m_reply[49] != 1 || std::memcmp(m_reply + 50, &get[50], 2) != 0) {
                return false;
            }
        }
        return true;
    }

  private:
    std::string m_path;
    sockaddr_un m_server;
    std::vector<Bytes> m_gets;
    int m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    uint8_t m_reply[1500];
};

struct LiveFigures {
    std::vector<double> cycleUs, floorUs;  // one sample per cycle, per round
    // p50 cycle over p50 floor, per pair: the median shrugs off what other processes of a
    // shared machine add to a few samples.
    std::vector<double> pairRatios;
    int failedCycles = 0;
};

// Times n calls of step, one sample each, and returns these n; a failed step counts in
// failures.
template <typename Step>
std::vector<double> timeBatch(int n, Step step, std::vector<double>& samples, int& failures) {
    const size_t first = samples.size();
    for (int i = 0; i < n; ++i) {
        const Clock::time_point start = Clock::now();
        const bool ok = step();
        samples.push_back(microseconds(Clock::now() - start));
        failures += ok ? 0 : 1;
    }
    checkStop();
    return std::vector<double>(samples.begin() + static_cast<std::ptrdiff_t>(first), samples.end());
}

OstPmcServerProbe::Setup benchSetup() {
    OstPmcServerProbe::Setup setup;
    setup.board = ONE_PORT_BOARD;
    setup.clockDriver = false;  // the cycle does not use it
    setup.captureLog = false;   // as in the daemon: lines below the level cost nothing
    return setup;
}

LiveFigures runLive(const Options& options, int cpu) {
    Ptp4lBed bed;
    if (!bed.up()) {
        throw std::runtime_error("test bed: " + bed.error());
    }
    const bool synchronised = bed.waitForSlave(std::chrono::seconds(30));
    bench::pin(bed.slavePid(), cpu);
    std::printf("slave ptp4l (pid %d, pinned to CPU %d): %s\n", bed.slavePid(), cpu,
                synchronised ? "SLAVE" : "running, not synchronised");

    OstPmcServerProbe::Setup setup = benchSetup();
    setup.fakePtp4l = false;
    OstPmcServerProbe probe(setup);
    bench::catchStopSignals();
    // The server's fixed management socket path leads to the bed's slave.
    const std::string serverPath = probe.root().file("/var/run/ptp4l");
    if (symlink(bed.slaveSocket().c_str(), serverPath.c_str()) != 0) {
        throw std::runtime_error("cannot link " + serverPath);
    }
    for (int i = 0; i < RECONCILIATION_RUNS; ++i) {
        if (probe.tick() < 0) {
            throw std::runtime_error("a status cycle against ptp4l failed");
        }
    }
    if (probe.checkCount() < RECONCILIATION_RUNS) {
        throw std::runtime_error("the reconciliation still runs: a cycle is more than four GETs");
    }
    FloorClient floor(probe.root().file("/var/run/benchFloor"), serverPath);
    if (!floor.answered()) {
        throw std::runtime_error("ptp4l does not answer the floor's GETs");
    }

    LiveFigures figures;
    // Room for every sample: no reallocation between two timed calls.
    figures.cycleUs.reserve(static_cast<size_t>(options.pairs * options.batch));
    figures.floorUs.reserve(static_cast<size_t>(options.pairs * options.batch));
    int floorFailures = 0;
    auto cycles = [&] {
        return timeBatch(
            options.batch, [&] { return probe.tick() >= 0; }, figures.cycleUs,
            figures.failedCycles);
    };
    auto rounds = [&] {
        return timeBatch(
            options.batch, [&] { return floor.round(); }, figures.floorUs, floorFailures);
    };
    std::printf("%5s %19s %19s %8s\n", "", "cycle (us)", "floor (us)", "ratio");
    std::printf("%5s %9s %9s %9s %9s %8s\n", "pair", "mean", "p50", "mean", "p50", "p50s");
    for (int pair = 1; pair <= options.pairs; ++pair) {
        std::vector<double> cycle, round;
        if (pair % 2 == 1) {
            cycle = cycles();
            round = rounds();
        } else {
            round = rounds();
            cycle = cycles();
        }
        figures.pairRatios.push_back(median(cycle) / median(round));
        std::printf("%5d %9.2f %9.2f %9.2f %9.2f %8.3f\n", pair, mean(cycle), median(cycle),
                    mean(round), median(round), figures.pairRatios.back());
    }
    if (floorFailures != 0) {
        throw std::runtime_error(std::to_string(floorFailures) + " floor rounds failed");
    }
    return figures;
}

struct HeapFigures {
    size_t requestsPerCycle = 0;
    size_t afterWarmup = 0;
    size_t afterCycles = 0;
    int failedCycles = 0;
    int reconciliationRuns = 0;
};

HeapFigures heapAfterCycles(const Options& options, bool refusePriority1) {
    OstPmcServerProbe::Setup setup = benchSetup();
    if (refusePriority1) {
        setup.model.refusedSets = {PRIORITY1};
    }
    OstPmcServerProbe probe(setup);
    bench::catchStopSignals();
    if (refusePriority1) {
        // Differs from what the fake runs with, so every cycle tries to set it.
        probe.mutableCfg().priority1 = REFUSED_PRIORITY1;
    }
    HeapFigures figures;
    auto run = [&](int n) {
        for (int i = 0; i < n; ++i) {
            figures.failedCycles += probe.tick() < 0 ? 1 : 0;
            if (figures.requestsPerCycle == 0) {
                figures.requestsPerCycle = probe.ptp4l().requests().size();
            }
            // The fake keeps every request for the tests; that is not the server's heap.
            probe.ptp4l().clearRequests();
            if (i % 1000 == 0) {
                checkStop();
            }
        }
    };
    run(options.warmup);
    figures.afterWarmup = mallinfo2().uordblks;
    run(options.cycles);
    figures.afterCycles = mallinfo2().uordblks;
    figures.reconciliationRuns = probe.checkCount();
    return figures;
}

void printHeap(const char* what, const Options& options, const HeapFigures& heap) {
    std::printf(
        "heap in use, %s (%zu requests a cycle, %d reconciliation runs, %d failed "
        "cycles):\n  %zu B after %d cycles, %zu B after %d more: %+lld B\n",
        what, heap.requestsPerCycle, heap.reconciliationRuns, heap.failedCycles, heap.afterWarmup,
        options.warmup, heap.afterCycles, options.cycles,
        static_cast<long long>(heap.afterCycles) - static_cast<long long>(heap.afterWarmup));
}

bool parse(int argc, char** argv, Options& options) {
    const struct {
        const char* name;
        int* value;
    } flags[] = {{"--cpu", &options.cpu},
                 {"--pairs", &options.pairs},
                 {"--batch", &options.batch},
                 {"--warmup", &options.warmup},
                 {"--cycles", &options.cycles}};
    for (int i = 1; i < argc; i += 2) {
        auto flag = std::find_if(std::begin(flags), std::end(flags),
                                 [&](const auto& f) { return std::strcmp(argv[i], f.name) == 0; });
        if (flag == std::end(flags) || i + 1 >= argc) {
            return false;
        }
        *flag->value = std::atoi(argv[i + 1]);
    }
    return options.pairs > 0 && options.batch > 0 && options.warmup > 0 && options.cycles > 0;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: %s [--cpu N] [--pairs N] [--batch N] [--warmup N] [--cycles N]\n",
                     argv[0]);
        return 2;
    }
    // Before anything resolves a device path.
    setenv("OSTPMC_SYSROOT", OstPmcServerProbe::probeRoot().c_str(), 1);
    // The daemon's default level; its lines are not the figures.
    Logger::createLogger(Logger::INF | Logger::LOG_TO_FILE, "/dev/null", "ostPmc");
    bench::catchStopSignals();
    try {
        bench::enterPrivateNetwork();
        const int cpu = options.cpu >= 0 ? options.cpu : bench::lastAllowedCpu();
        bench::pin(0, cpu);

        const LiveFigures live = runLive(options, cpu);
        const double cycle = mean(live.cycleUs), floor = mean(live.floorUs);
        std::printf("cycle: mean %.2f us, p50 %.2f us (%zu cycles, %d failed)\n", cycle,
                    median(live.cycleUs), live.cycleUs.size(), live.failedCycles);
        std::printf("floor: mean %.2f us, p50 %.2f us (%zu rounds of four GETs)\n", floor,
                    median(live.floorUs), live.floorUs.size());
        std::printf(
            "cycle/floor: %.3f (means), %.3f (p50s); pairs (p50s) %.3f to %.3f, median %.3f\n",
            cycle / floor, median(live.cycleUs) / median(live.floorUs),
            *std::min_element(live.pairRatios.begin(), live.pairRatios.end()),
            *std::max_element(live.pairRatios.begin(), live.pairRatios.end()),
            median(live.pairRatios));

        printHeap("reconciliation idle", options, heapAfterCycles(options, false));
        printHeap("priority1 refused on every cycle", options, heapAfterCycles(options, true));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "status_bench: %s\n", e.what());
        return 1;
    }
    return 0;
}
