// Footprint of the server after long runs that never succeed, measured on the server object:
//  - status cycles back to back against a scripted ptp4l that takes the configured domain but
//    refuses the configured port's sync interval, so that the reconciliation fails and runs
//    again on every cycle (one port board: four GETs and two SETs a cycle),
//  - the hostile requests of the tests, round after round, through the request socket of a
//    server whose ptp4l was started.
// Heap in use (mallinfo2, the main arena: the server's thread) and RSS after a warm-up and at
// the end. Needs root: it makes network and mount namespaces of its own. Not a test: the
// figures are for people to read.
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "HostileRequests.h"
#include "JsonText.h"
#include "Logger.h"
#include "OstPmcServerProbe.h"
#include "ScriptedPeer.h"
#include "WireBytes.h"

namespace {

constexpr int ONE_PORT_BOARD = 2;
constexpr uint16_t DEFAULT_DATA_SET = 0x2000, CURRENT_DATA_SET = 0x2001, PARENT_DATA_SET = 0x2002,
                   PORT_DATA_SET = 0x2004, DOMAIN = 0x2007, LOG_SYNC_INTERVAL = 0x200B;
constexpr uint8_t SET = 1, RESPONSE = 2;
constexpr uint16_t NOT_SUPPORTED = 6;
constexpr uint8_t CONFIGURED_DOMAIN = 5;  // the scripted ptp4l keeps reporting domain 0
constexpr int8_t CONFIGURED_SYNC_INTERVAL = -3;

struct Options {
    int warmup = 1000;
    int ticks = 100000;
    int requests = 100000;
};

using Clock = std::chrono::steady_clock;

using bench::checkStop;

struct Footprint {
    size_t heap = 0;  // bytes
    long rssKiB = 0;
};

Footprint footprint() {
    return {mallinfo2().uordblks, bench::rssKiB()};
}

// ptp4l's management socket, played by a ScriptedPeer on a thread of its own. The status cycle
// drops whatever is queued at its client before it asks, so each answer is queued at the client
// as its request arrives: the data sets of a slave on port 1 in domain 0, the domain SET
// echoed as taken, the sync-interval SET refused.
class ScriptedPtp4l {
  public:
    ScriptedPtp4l(const std::string& path, std::string clientPath)
        : m_peer(path), m_client(std::move(clientPath)) {
        if (pipe2(m_stop, O_CLOEXEC) != 0) {
            throw std::runtime_error("scripted ptp4l: no pipe");
        }
        m_thread = std::thread([this] { serve(); });
    }
    ~ScriptedPtp4l() {
        const char byte = 0;
        if (write(m_stop[1], &byte, 1) != 1) {
            // The thread then ends with the process.
        }
        m_thread.join();
        close(m_stop[0]);
        close(m_stop[1]);
    }
    ScriptedPtp4l(const ScriptedPtp4l&) = delete;
    ScriptedPtp4l& operator=(const ScriptedPtp4l&) = delete;

    long gets() const { return m_gets; }
    long takenSets() const { return m_takenSets; }
    long refusedSets() const { return m_refusedSets; }

  private:
    void serve() {
        pollfd fds[2] = {{m_peer.fd, POLLIN, 0}, {m_stop[0], POLLIN, 0}};
        std::vector<Bytes> batch;
        while (poll(fds, 2, -1) >= 0 && !(fds[1].revents & POLLIN)) {
            m_peer.requests();
            batch.swap(m_peer.received);
            for (const Bytes& request : batch) {
                answer(request);
            }
            batch.clear();
        }
    }

    void answer(const Bytes& request) {
        if (request.size() < 54) {
            return;
        }
        const uint8_t domain = request[4];
        const uint8_t action = request[46] & 0x0F;
        const auto id = static_cast<uint16_t>(request[52] << 8 | request[53]);
        auto reply = [&](const Bytes& tlvBytes) {
            return mgmtMessage(RESPONSE, tlvBytes, 0xFFFF, domain, 0x0D, 0x11);
        };
        const Bytes refusal = reply(tlv(2, cat({be(NOT_SUPPORTED, 2), be(id, 2), Bytes(4, 0)})));
        const Bytes identity = {0x02, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x55};
        const Bytes gm = {0x0A, 0x0B, 0x0C, 0xFF, 0xFE, 0x0D, 0x0E, 0x0F};
        Bytes datagram = refusal;
        if (action == SET) {
            if (id == DOMAIN && request.size() >= 56) {
                datagram = reply(mgmtTlv(id, Bytes{request[54], 0}));
                ++m_takenSets;
            } else {
                ++m_refusedSets;
            }
        } else {
            ++m_gets;
            switch (id) {
                case DEFAULT_DATA_SET:
                    datagram =
                        reply(mgmtTlv(id, cat({Bytes{0x01, 0}, be(1, 2), Bytes{128, 248, 0xFE},
                                               be(0xFFFF, 2), Bytes{128}, identity, Bytes{0, 0}})));
                    break;
                case PORT_DATA_SET:
                    datagram = reply(mgmtTlv(id, cat({identity, be(1, 2), Bytes{9, 0}, be(0, 8),
                                                      Bytes{1, 3, 0, 1, 0, 2}})));
                    break;
                case PARENT_DATA_SET:
                    datagram = reply(mgmtTlv(
                        id, cat({gm, be(1, 2), Bytes{0, 0}, be(0xFFFF, 2), be(0x7FFFFFFF, 4),
                                 Bytes{100, 6, 0x21}, be(0x4E5D, 2), Bytes{100}, gm})));
                    break;
                case CURRENT_DATA_SET:
                    datagram = reply(mgmtTlv(id, cat({be(1, 2), be(0, 8), be(0, 8)})));
                    break;
                default:
                    break;
            }
        }
        m_peer.sendTo(m_client, datagram);
    }

    ScriptedPeer m_peer;
    std::string m_client;
    int m_stop[2] = {-1, -1};
    std::atomic<long> m_gets{0}, m_takenSets{0}, m_refusedSets{0};
    std::thread m_thread;
};

struct Row {
    const char* what = "";
    long count = 0;
    Footprint start, half, end;  // half: after half the count, to tell growth from noise
    double seconds = 0;
    std::string notes;
};

Row soakTicks(const Options& options) {
    OstPmcServerProbe::Setup setup;
    setup.board = ONE_PORT_BOARD;
    setup.clockDriver = false;  // the cycle does not use it
    setup.captureLog = false;   // it would keep every line
    setup.fakePtp4l = false;
    OstPmcServerProbe probe(setup);
    ScriptedPtp4l ptp4l(probe.root().file("/var/run/ptp4l"), probe.clientPath());
    bench::catchStopSignals();
    probe.mutableCfg().domainNumber = CONFIGURED_DOMAIN;
    OstPmcPtpPortCfg port;
    port.port = 1;
    port.syncInterval = CONFIGURED_SYNC_INTERVAL;
    probe.mutableCfg().ports = {port};

    long failed = 0;
    auto run = [&](int n) {
        for (int i = 0; i < n; ++i) {
            failed += probe.tick() < 0 ? 1 : 0;
            if (i % 1000 == 0) {
                checkStop();
            }
        }
    };
    Row row;
    row.what = "status cycles";
    run(options.warmup);
    row.start = footprint();
    const Clock::time_point begin = Clock::now();
    run(options.ticks / 2);
    row.half = footprint();
    run(options.ticks - options.ticks / 2);
    row.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    row.end = footprint();
    row.count = options.ticks;
    const long cycles = options.warmup + options.ticks;
    row.notes =
        std::to_string(failed) + " failed cycles; per cycle " +
        std::to_string(static_cast<double>(ptp4l.gets()) / cycles).substr(0, 4) + " GETs, " +
        std::to_string(static_cast<double>(ptp4l.takenSets()) / cycles).substr(0, 4) +
        " SETs taken, " +
        std::to_string(static_cast<double>(ptp4l.refusedSets()) / cycles).substr(0, 4) +
        " refused; reconciliation completed " + std::to_string(probe.checkCount()) + " times";
    return row;
}

Row soakRequests(const Options& options) {
    OstPmcServerProbe::Setup setup;
    setup.board = ONE_PORT_BOARD;
    setup.captureLog = false;
    OstPmcServerProbe probe(setup);
    bench::catchStopSignals();
    // Started with the active profile: a running configuration of it is not applied again.
    Json::Value cfg;
    cfg["profile"] = "AES67:Media";
    cfg["priority1"] = 100;
    if (probe.result(3, cfg) != 0) {
        throw std::runtime_error("the first running configuration was not applied");
    }
    const std::string runningCfg = probe.requestText("{\"cmd\":2}");
    const size_t scriptRuns = probe.initScriptRuns().size();

    const std::vector<HostileRequest> kinds = hostileRequests();
    long unexpected = 0;
    auto run = [&](long n) {
        for (long i = 0; i < n; ++i) {
            const HostileRequest& kind = kinds[static_cast<size_t>(i) % kinds.size()];
            const std::string text = probe.requestText(kind.bytes);
            if (text.empty()) {
                // The request socket is stuck now: nothing more can be asked.
                throw std::runtime_error("no reply to: " + kind.name);
            }
            Json::Value reply;
            const int result = JsonText::parse(text.data(), text.size(), reply)
                                   ? reply.get("result", 1).asInt()
                                   : 1;
            const bool expected = kind.answer == HostileRequest::Answer::Refused   ? result == -8
                                  : kind.answer == HostileRequest::Answer::Ignored ? result == 0
                                                                                   : result <= 0;
            unexpected += expected ? 0 : 1;
            if (i % 1000 == 0) {
                checkStop();
            }
        }
    };
    Row row;
    row.what = "hostile requests";
    run(static_cast<long>(std::max<size_t>(kinds.size(), static_cast<size_t>(options.warmup))));
    row.start = footprint();
    const Clock::time_point begin = Clock::now();
    run(options.requests / 2);
    row.half = footprint();
    run(options.requests - options.requests / 2);
    row.seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    row.end = footprint();
    row.count = options.requests;
    const bool unchanged = probe.requestText("{\"cmd\":2}") == runningCfg &&
                           probe.initScriptRuns().size() == scriptRuns;
    row.notes = std::to_string(kinds.size()) + " kinds; " + std::to_string(unexpected) +
                " unexpected answers; running config and init script " +
                (unchanged ? "unchanged" : "CHANGED");
    return row;
}

void print(const std::vector<Row>& rows) {
    std::printf("%-17s %7s %11s %11s %11s %8s %9s %9s %9s %8s\n", "", "count", "heap start",
                "heap half", "heap end", "end-start", "RSS start", "RSS half", "RSS end",
                "us each");
    for (const Row& r : rows) {
        std::printf("%-17s %7ld %11zu %11zu %11zu %+8lld %6ld kB %6ld kB %6ld kB %8.1f\n", r.what,
                    r.count, r.start.heap, r.half.heap, r.end.heap,
                    static_cast<long long>(r.end.heap) - static_cast<long long>(r.start.heap),
                    r.start.rssKiB, r.half.rssKiB, r.end.rssKiB,
                    r.count ? r.seconds * 1e6 / static_cast<double>(r.count) : 0.0);
    }
    for (const Row& r : rows) {
        std::printf("%s: %s\n", r.what, r.notes.c_str());
    }
}

bool parse(int argc, char** argv, Options& options) {
    const struct {
        const char* name;
        int* value;
    } flags[] = {{"--warmup", &options.warmup},
                 {"--ticks", &options.ticks},
                 {"--requests", &options.requests}};
    for (int i = 1; i < argc; i += 2) {
        auto flag = std::find_if(std::begin(flags), std::end(flags),
                                 [&](const auto& f) { return std::strcmp(argv[i], f.name) == 0; });
        if (flag == std::end(flags) || i + 1 >= argc) {
            return false;
        }
        *flag->value = std::atoi(argv[i + 1]);
    }
    return options.warmup > 0 && options.ticks > 0 && options.requests > 0;
}

}  // namespace

int main(int argc, char** argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: %s [--warmup N] [--ticks N] [--requests N]\n", argv[0]);
        return 2;
    }
    // Before anything resolves a device path.
    setenv("OSTPMC_SYSROOT", OstPmcServerProbe::probeRoot().c_str(), 1);
    // The daemon's default level; its lines are not the figures.
    Logger::createLogger(Logger::INF | Logger::LOG_TO_FILE, "/dev/null", "ostPmc");
    bench::catchStopSignals();
    try {
        // The clock-driver stand-in mounts on the probe's root: a mount namespace keeps it here.
        bench::enterPrivateNetwork(true);
        std::vector<Row> rows;
        rows.push_back(soakTicks(options));
        rows.push_back(soakRequests(options));
        print(rows);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "soak: %s\n", e.what());
        return 1;
    }
    return 0;
}
