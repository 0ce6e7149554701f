// Cost of one "GET PTP INFO" through OstPmcJsonClient and the daemon's request path, next to the
// floor: a bare ZeroMQ REQ socket and a bare REP server exchanging the same bytes.
//  - the daemon's server runs its own poll loop in a child process (the tests' probe, a fake
//    ptp4l and a few status cycles behind it, no configuration so that no timer ticks while
//    it is measured), the floor's REP server in another child; the clients in this process,
//  - round-trip times in pairs of batches, alternating which goes first, so that both see the
//    same machine: p50 and p90 of each, and their ratio,
//  - heap allocations per request (malloc, calloc, realloc) in each process, every thread
//    included (ZeroMQ's I/O threads too): the children count into a page shared with this
//    process, which reads their counts around a run of requests.
// Needs root: the servers bind the fixed ports in a network namespace of this process's own.
// Not a test: the figures are for people to read.
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "BenchSupport.h"
#include "Logger.h"
#include "OstPmcCommands.h"
#include "OstPmcJsonClient.h"
#include "OstPmcServerProbe.h"

namespace {

// One counter per process; slot 0 is this one, the children switch to theirs after the fork.
enum Slot { CLIENT = 0, DAEMON = 1, FLOOR_SERVER = 2, SLOTS = 3 };
std::atomic<uint64_t>* g_allocations = nullptr;
int g_slot = CLIENT;

void countAllocation() {
    if (g_allocations) {
        g_allocations[g_slot].fetch_add(1, std::memory_order_relaxed);
    }
}

}  // namespace

// Every allocation of the process goes through these, those of the shared libraries included.
extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* ptr, size_t size);

void* malloc(size_t size) {
    countAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    countAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* ptr, size_t size) {
    countAllocation();
    return __libc_realloc(ptr, size);
}
}

namespace {

constexpr const char* DAEMON_ADDRESS = "tcp://127.0.0.1:5573";
constexpr const char* FLOOR_ADDRESS = "tcp://127.0.0.1:5580";
constexpr const char* REQUEST = "{\"cmd\":0}";  // what OstPmcJsonClient::getPtp sends
constexpr int ONE_PORT_BOARD = 2;
constexpr int START_TIMEOUT_MS = 10000;

struct Options {
    int cpu = -1;  // -1: not pinned
    int pairs = 20;
    int batch = 2000;  // requests per half of a pair
    int warmup = 2000;
    int allocationRuns = 10000;
};

using Clock = std::chrono::steady_clock;

using bench::checkStop;
using bench::percentile;

// -1: not pinned.
void pinTo(int cpu) {
    if (cpu >= 0) {
        bench::pin(0, cpu);
    }
}

// The daemon's server, its status filled by a few cycles against the fake ptp4l, serving in
// its own poll loop until SIGTERM.
int runDaemon() {
    setenv("OSTPMC_SYSROOT", OstPmcServerProbe::probeRoot().c_str(), 1);
    Logger::createLogger(0, "", "ostPmc");
    OstPmcServerProbe::Setup setup;
    setup.board = ONE_PORT_BOARD;
    setup.clockDriver = false;
    setup.captureLog = false;  // as in the daemon: lines below the level cost nothing
    OstPmcServerProbe probe(setup);
    for (int cycle = 0; cycle < 3; ++cycle) {
        if (probe.tick() < 0) {
            std::fprintf(stderr, "request_bench: a status cycle failed\n");
            return 1;
        }
    }
    return probe.server().mainLoop();
}

// A bare REP server answering every request with the daemon's reply to REQUEST, fetched
// once from the daemon itself.
int runFloorServer() {
    zmq::context_t context;
    zmq::message_t reply;
    {
        zmq::socket_t fetch(context, zmq::socket_type::req);
        fetch.set(zmq::sockopt::linger, 0);
        fetch.set(zmq::sockopt::rcvtimeo, START_TIMEOUT_MS);
        fetch.connect(DAEMON_ADDRESS);
        fetch.send(zmq::buffer(std::string(REQUEST)));
        if (!fetch.recv(reply)) {
            std::fprintf(stderr, "request_bench: the daemon did not answer the floor server\n");
            return 1;
        }
    }
    const std::string text = reply.to_string();
    zmq::socket_t socket(context, zmq::socket_type::rep);
    socket.set(zmq::sockopt::linger, 0);
    socket.bind(FLOOR_ADDRESS);
    for (;;) {
        zmq::message_t request;
        if (!socket.recv(request)) {
            return 0;
        }
        socket.send(zmq::buffer(text));
    }
}

pid_t startChild(Slot slot, int (*run)(), int cpu) {
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
    }
    if (pid > 0) {
        return pid;
    }
    g_slot = slot;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    int rc = 1;
    try {
        pinTo(cpu);
        rc = run();
    } catch (const std::exception& e) {
        std::fprintf(stderr, "request_bench: child: %s\n", e.what());
    }
    std::exit(rc);
}

void stopChild(pid_t pid) {
    if (pid > 0) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
    }
}

class BenchClient : public OstPmcJsonClient {
  public:
    int getClientTimeout() override { return START_TIMEOUT_MS; }
};

// A bare REQ socket sending REQUEST and receiving the reply's bytes, nothing decoded.
class BareClient {
  public:
    BareClient(zmq::context_t& context, const char* address)
        : m_socket(context, zmq::socket_type::req) {
        m_socket.set(zmq::sockopt::linger, 0);
        m_socket.set(zmq::sockopt::rcvtimeo, START_TIMEOUT_MS);
        m_socket.connect(address);
    }
    bool round() {
        m_socket.send(zmq::buffer(REQUEST, std::strlen(REQUEST)));
        return static_cast<bool>(m_socket.recv(m_reply));
    }
    std::string lastReply() const { return m_reply.to_string(); }

  private:
    zmq::socket_t m_socket;
    zmq::message_t m_reply;
};

// Appends the round-trip time of each of count calls, in microseconds.
void timeBatch(int count, const std::function<bool()>& call, std::vector<double>& samples) {
    for (int i = 0; i < count; ++i) {
        const auto start = Clock::now();
        if (!call()) {
            throw std::runtime_error("a request got no answer");
        }
        samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    checkStop();
}

struct Allocations {
    double client = 0;
    double server = 0;
};

Allocations countAllocations(int count, const std::function<bool()>& call, Slot server) {
    const uint64_t client0 = g_allocations[CLIENT].load(), server0 = g_allocations[server].load();
    for (int i = 0; i < count; ++i) {
        if (!call()) {
            throw std::runtime_error("a request got no answer");
        }
    }
    const double n = count;
    return {static_cast<double>(g_allocations[CLIENT].load() - client0) / n,
            static_cast<double>(g_allocations[server].load() - server0) / n};
}

std::string rawReply(zmq::context_t& context) {
    zmq::socket_t socket(context, zmq::socket_type::req);
    socket.set(zmq::sockopt::linger, 0);
    socket.set(zmq::sockopt::rcvtimeo, START_TIMEOUT_MS);
    socket.connect(DAEMON_ADDRESS);
    socket.send(zmq::buffer(REQUEST, std::strlen(REQUEST)));
    zmq::message_t reply;
    if (!socket.recv(reply)) {
        throw std::runtime_error("the daemon did not answer");
    }
    return reply.to_string();
}

void run(const Options& options) {
    zmq::context_t context;  // first: it outlives the sockets below
    BenchClient client;
    if (client.init(context) != 0) {
        throw std::runtime_error("the client did not start");
    }
    Json::Value reply;
    if (client.getPtp(reply) != 0) {
        throw std::runtime_error("the daemon did not answer GET PTP INFO");
    }
    BareClient floor(context, FLOOR_ADDRESS);
    // The daemon without the client library: tells the server's share from the client's.
    BareClient bare(context, DAEMON_ADDRESS);
    if (!floor.round()) {
        throw std::runtime_error("the floor server did not answer");
    }
    const std::string ours = rawReply(context);
    if (floor.lastReply() != ours) {
        throw std::runtime_error("the floor answers other bytes than the daemon");
    }
    std::printf("request %s (%zu bytes), reply %zu bytes\n", REQUEST, std::strlen(REQUEST),
                ours.size());

    auto viaClient = [&] { return client.getPtp(reply) == 0; };
    auto viaFloor = [&] { return floor.round(); };
    auto viaBare = [&] { return bare.round(); };
    std::vector<double> warm;
    timeBatch(options.warmup, viaClient, warm);
    timeBatch(options.warmup, viaFloor, warm);
    timeBatch(options.warmup, viaBare, warm);

    std::vector<double> oursUs, floorUs, bareUs, pairRatios;
    for (std::vector<double>* all : {&oursUs, &floorUs, &bareUs}) {
        all->reserve(static_cast<size_t>(options.pairs * options.batch));
    }
    std::printf("%5s %19s %19s %19s %8s\n", "", "client+daemon (us)", "floor (us)",
                "bare+daemon (us)", "ratio");
    std::printf("%5s %9s %9s %9s %9s %9s %9s %8s\n", "pair", "p50", "p90", "p50", "p90", "p50",
                "p90", "p50s");
    for (int pair = 1; pair <= options.pairs; ++pair) {
        std::vector<double> a, b, c;
        for (std::vector<double>* batch : {&a, &b, &c}) {
            batch->reserve(static_cast<size_t>(options.batch));
        }
        // Client and floor back to back, in turns first; the bare client after both.
        if (pair % 2 == 1) {
            timeBatch(options.batch, viaClient, a);
            timeBatch(options.batch, viaFloor, b);
        } else {
            timeBatch(options.batch, viaFloor, b);
            timeBatch(options.batch, viaClient, a);
        }
        timeBatch(options.batch, viaBare, c);
        pairRatios.push_back(percentile(a, 0.5) / percentile(b, 0.5));
        std::printf("%5d %9.2f %9.2f %9.2f %9.2f %9.2f %9.2f %8.3f\n", pair, percentile(a, 0.5),
                    percentile(a, 0.9), percentile(b, 0.5), percentile(b, 0.9), percentile(c, 0.5),
                    percentile(c, 0.9), pairRatios.back());
        oursUs.insert(oursUs.end(), a.begin(), a.end());
        floorUs.insert(floorUs.end(), b.begin(), b.end());
        bareUs.insert(bareUs.end(), c.begin(), c.end());
    }
    std::printf("%5s %9.2f %9.2f %9.2f %9.2f %9.2f %9.2f %8.3f\n", "all", percentile(oursUs, 0.5),
                percentile(oursUs, 0.9), percentile(floorUs, 0.5), percentile(floorUs, 0.9),
                percentile(bareUs, 0.5), percentile(bareUs, 0.9),
                percentile(oursUs, 0.5) / percentile(floorUs, 0.5));
    std::printf(
        "ratio of p50s: %.3f over all samples, %.3f median of the pairs; p90s: %.3f; "
        "bare client to the daemon: %.3f\n",
        percentile(oursUs, 0.5) / percentile(floorUs, 0.5), percentile(pairRatios, 0.5),
        percentile(oursUs, 0.9) / percentile(floorUs, 0.9),
        percentile(bareUs, 0.5) / percentile(floorUs, 0.5));

    std::printf("\nheap allocations per request (%d requests each):\n", options.allocationRuns);
    std::printf("%-34s %10s %10s\n", "", "client", "server");
    const Allocations floorAllocations =
        countAllocations(options.allocationRuns, viaFloor, FLOOR_SERVER);
    std::printf("%-34s %10.2f %10.2f\n", "floor (bare REQ/REP)", floorAllocations.client,
                floorAllocations.server);
    const Allocations bareAllocations = countAllocations(options.allocationRuns, viaBare, DAEMON);
    std::printf("%-34s %10.2f %10.2f\n", "bare REQ to the daemon, GET PTP INFO",
                bareAllocations.client, bareAllocations.server);
    const std::pair<const char*, std::function<bool()>> requests[] = {
        {"GET PTP INFO", viaClient},
        {"GET OstPmc running config", [&] { return client.getPtpRunningConfig(reply) == 0; }},
        {"GET OstPmc internal debug info", [&] { return client.getInternalDebugInfo(reply) == 0; }},
    };
    for (const auto& [name, call] : requests) {
        const Allocations a = countAllocations(options.allocationRuns, call, DAEMON);
        std::printf("%-34s %10.2f %10.2f\n", name, a.client, a.server);
    }
}

bool parseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) {
            return false;
        }
        const int value = std::atoi(argv[++i]);
        if (arg == "--cpu") {
            options.cpu = value;
        } else if (arg == "--pairs" && value > 0) {
            options.pairs = value;
        } else if (arg == "--batch" && value > 0) {
            options.batch = value;
        } else if (arg == "--allocations" && value > 0) {
            options.allocationRuns = value;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options options;
    if (!parseOptions(argc, argv, options)) {
        std::fprintf(stderr,
                     "usage: %s [--cpu N] [--pairs 20] [--batch 2000] [--allocations 10000]\n",
                     argv[0]);
        return 1;
    }
    pid_t daemon = -1, floorServer = -1;
    int rc = 0;
    try {
        // The servers bind 127.0.0.1:5573, 5574 and 5580.
        bench::enterPrivateNetwork();
        void* page = mmap(nullptr, sizeof(std::atomic<uint64_t>) * SLOTS, PROT_READ | PROT_WRITE,
                          MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) {
            throw std::runtime_error(std::string("mmap: ") + std::strerror(errno));
        }
        g_allocations = new (page) std::atomic<uint64_t>[SLOTS]();
        // Before any ZeroMQ context: the children make their own.
        daemon = startChild(DAEMON, runDaemon, options.cpu);
        floorServer = startChild(FLOOR_SERVER, runFloorServer, options.cpu);
        pinTo(options.cpu);
        bench::catchStopSignals();
        if (options.cpu >= 0) {
            std::printf("all processes pinned to CPU %d\n", options.cpu);
        }
        run(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "request_bench: %s\n", e.what());
        rc = 1;
    }
    stopChild(floorServer);
    stopChild(daemon);
    return rc;
}
