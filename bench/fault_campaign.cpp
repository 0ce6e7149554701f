// The fault campaign: the simulated device under the faults of its network, over and over, with
// each fault's notifications and status checked against what ptp4l itself says.
//
//   fault_campaign [--count N] [--duration MINUTES] [--kinds K,K,...] [--parallel]
//
// Each round injects one fault of each kind (N rounds; no new fault after the duration):
//   ptp4l-kill   the device's ptp4l killed; once the daemon reports no usable port, started again
//   ptp4l-stop   the device's ptp4l stopped for 20 s, then let go on
//   gm-stop      the grandmasters stopped until the device takes the master role, then let go on
//   link-cut     the device's link cut for 30 s, then restored
//   gm-switch    the other grandmaster made the better one
// and checks, for each:
//   - the notifications: those that the transition table gives for the transitions the daemon
//     logged, in order, none missing, none duplicated; and each one's details fit its row (a
//     failure names no port in a master or slave role, a master one in a master role, a slave
//     state one in a slave role);
//   - the status: once ptp4l's own port is SLAVE of the expected grandmaster again (read from
//     ptp4l with a management client of our own), "GET PTP INFO" shows it within 3 ticks;
//   - the device is back in slave-stable, its last notification a resume-all naming that
//     grandmaster.
// Throughout, a client sends "GET PTP INFO" every 100 ms and keeps the longest wait for an answer.
// The table at the end gives, per kind: faults, faults survived (every check passed),
// notifications checked, the longest request wait, the longest status lag, the longest way
// back to slave-stable; then the daemon's RSS at the start and at the end.
//
// --parallel runs each kind on a device of its own at the same time, each in a network namespace
// of its own (the daemon's ports are fixed). Needs root. Not a test: the figures are for people.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "BenchSupport.h"
#include "MgmtProbe.h"
#include "OstPmcCommands.h"
#include "SimDevice.h"
#include "TransitionActions.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto REQUEST_PERIOD = 100ms;
constexpr auto REQUEST_TIMEOUT = 15s;
constexpr auto PTP4L_STOP_TIME = 20s;
constexpr auto LINK_CUT_TIME = 30s;
constexpr auto FAULT_EFFECT_WAIT = 40s;  // 10 silent cycles, an announce time-out: well within
constexpr auto RECOVERY_WAIT = 90s;
constexpr double STATUS_LAG_TICKS = 3.0;  // a tick is the daemon's 1 s status cycle
constexpr uint16_t PARENT_DATA_SET = 0x2002;
constexpr size_t GRANDMASTER_IDENTITY_OFFSET = 24;  // in the PARENT_DATA_SET's data
constexpr uint8_t PORT_STATE_SLAVE = 9;

double seconds(Clock::duration d) {
    return std::chrono::duration<double>(d).count();
}

// Sleeps up to d; false when the campaign is being stopped.
bool pause(Clock::duration d) {
    const auto end = Clock::now() + d;
    while (!bench::stopRequested() && Clock::now() < end) {
        std::this_thread::sleep_for(std::min<Clock::duration>(100ms, end - Clock::now()));
    }
    return !bench::stopRequested();
}

// Polls cond every 100 ms for up to timeout; false on time-out or stop.
bool waitFor(const std::function<bool()>& cond, Clock::duration timeout) {
    const auto end = Clock::now() + timeout;
    while (!cond()) {
        if (bench::stopRequested() || Clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(100ms);
    }
    return true;
}

std::string identityText(const uint8_t* bytes) {
    std::string text;
    for (int i = 0; i < 8; ++i) {
        char byte[4];
        snprintf(byte, sizeof byte, "%02x", bytes[i]);
        text += (i ? "-" : "") + std::string(byte);
    }
    return text;
}

// The summary the daemon derives from a port list: 2 a slave role, 1 a master role, 0 neither.
int summaryOf(const Json::Value& ports) {
    int summary = 0;
    for (const Json::Value& port : ports) {
        const unsigned state = port["roleStatusId"].asUInt();
        if (state == 7 || state == 9) {
            summary = 2;
        } else if ((state == 5 || state == 6 || state == 10) && summary == 0) {
            summary = 1;
        }
    }
    return summary;
}

bool parseJson(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(text);
    return Json::parseFromStream(builder, in, &out, &errors);
}

// A client of the daemon's own, as the device's media services are: "GET PTP INFO" every
// 100 ms on a thread of its own, keeping the last answer and the longest wait.
class RequestClient {
  public:
    explicit RequestClient(zmq::context_t& context) : m_context(context) {
        m_thread = std::thread([this] { run(); });
    }
    ~RequestClient() {
        m_done = true;
        m_thread.join();
    }

    struct Answer {
        Json::Value status;  // the reply's "data"
        Clock::time_point at;
    };
    std::optional<Answer> last() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_last;
    }
    // The longest wait since the last call, and the requests without an answer.
    Clock::duration takeLongestWait() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_longest, Clock::duration::zero());
    }
    int takeUnanswered() { return m_unanswered.exchange(0); }

  private:
    void open() {
        m_socket = std::make_unique<zmq::socket_t>(m_context, zmq::socket_type::req);
        m_socket->set(zmq::sockopt::linger, 0);
        m_socket->set(zmq::sockopt::rcvtimeo,
                      static_cast<int>(std::chrono::milliseconds(REQUEST_TIMEOUT).count()));
        m_socket->connect("tcp://127.0.0.1:5573");
    }
    void run() {
        open();
        const std::string request = "{\"cmd\":" + std::to_string(OSTPMC_GET_PTP_INFO) + "}";
        auto next = Clock::now();
        while (!m_done) {
            next += REQUEST_PERIOD;
            const auto sent = Clock::now();
            zmq::message_t reply;
            bool answered = m_socket->send(zmq::buffer(request)) && m_socket->recv(reply);
            const auto wait = Clock::now() - sent;
            Json::Value envelope;
            answered = answered && parseJson(reply.to_string(), envelope) &&
                       envelope["result"].asInt() == 0;
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_longest = std::max(m_longest, wait);
                if (answered) {
                    m_last = Answer{envelope["data"], Clock::now()};
                }
            }
            if (!answered) {
                ++m_unanswered;
                open();  // a request socket that lost its reply sends nothing more
            }
            std::this_thread::sleep_until(std::max(next, Clock::now()));
        }
    }

    zmq::context_t& m_context;
    std::unique_ptr<zmq::socket_t> m_socket;
    std::atomic<bool> m_done{false};
    std::atomic<int> m_unanswered{0};
    std::mutex m_mutex;
    std::optional<Answer> m_last;
    Clock::duration m_longest = Clock::duration::zero();
    std::thread m_thread;
};

// The state machine's notifications (topic "1000") as they arrive, on a thread of its own.
class NotificationLog {
  public:
    explicit NotificationLog(zmq::context_t& context) : m_socket(context, zmq::socket_type::sub) {
        m_socket.set(zmq::sockopt::linger, 0);
        m_socket.set(zmq::sockopt::rcvtimeo, 100);
        m_socket.set(zmq::sockopt::subscribe, "1000");
        m_socket.connect("tcp://127.0.0.1:5574");
        m_thread = std::thread([this] { run(); });
    }
    ~NotificationLog() {
        m_done = true;
        m_thread.join();
    }
    size_t size() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received.size();
    }
    std::vector<Json::Value> since(size_t first) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return {m_received.begin() + static_cast<long>(std::min(first, m_received.size())),
                m_received.end()};
    }

  private:
    void run() {
        while (!m_done) {
            zmq::message_t topic, body;
            if (m_socket.recv(topic) && topic.more() && m_socket.recv(body)) {
                Json::Value json;
                parseJson(body.to_string(), json);
                std::lock_guard<std::mutex> lock(m_mutex);
                m_received.push_back(json);
            }
        }
    }

    zmq::socket_t m_socket;
    std::atomic<bool> m_done{false};
    std::mutex m_mutex;
    std::vector<Json::Value> m_received;
    std::thread m_thread;
};

struct KindFigures {
    int faults = 0;
    int survived = 0;
    int notifications = 0;
    int unanswered = 0;
    double longestWait = 0;  // s
    double longestLag = 0;   // ticks, from ptp4l's recovery to the status showing it
    double longestBack = 0;  // s, from the fault's end to slave-stable
    std::vector<std::string> failures;
};

struct DeviceFigures {
    std::map<std::string, KindFigures> kinds;
    long rssStart = -1, rssEnd = -1;  // KiB
    std::string failure;              // the device itself did not come up
};

const char* const ALL_KINDS[] = {"ptp4l-kill", "ptp4l-stop", "gm-stop", "link-cut", "gm-switch"};

// One simulated device and the faults run on it.
class Campaign {
  public:
    explicit Campaign(std::vector<std::string> kinds) : m_kinds(std::move(kinds)) {}

    DeviceFigures run(int count, Clock::time_point deadline) {
        DeviceFigures figures;
        if (!m_device.up() || !m_device.startDaemon()) {
            figures.failure = "the simulated device did not start:\n" + m_device.daemonLog();
            return figures;
        }
        m_gm[0] = m_device.grandmasterIdentity("gm");
        m_gm[1] = m_device.grandmasterIdentity("gm2");
        m_domain = static_cast<uint8_t>(std::atoi(m_device.bedValue("DOMAIN").c_str()));
        zmq::context_t context;
        NotificationLog notifications(context);
        RequestClient client(context);
        m_notifications = &notifications;
        m_client = &client;
        const SimDevice::Run config =
            m_device.script("sim-device.sh", {"first-config", "--dir", m_device.dir()});
        if (config.exitCode != 0 || !backToStable(RECOVERY_WAIT)) {
            figures.failure = "the device did not reach slave-stable after its first request:\n" +
                              config.out + config.err + m_device.daemonLog();
            return figures;
        }
        client.takeLongestWait();
        figures.rssStart = bench::rssKiB(m_device.daemon().pid());
        for (int round = 0; round < count && !bench::stopRequested() && Clock::now() < deadline;
             ++round) {
            for (const std::string& kind : m_kinds) {
                if (bench::stopRequested() || Clock::now() >= deadline) {
                    break;
                }
                runFault(kind, figures.kinds[kind]);
            }
        }
        figures.rssEnd = bench::rssKiB(m_device.daemon().pid());
        m_client = nullptr;
        m_notifications = nullptr;
        return figures;
    }

  private:
    // The state machine's state: where the last logged transition led.
    std::string state() {
        const auto transitions = loggedTransitions(m_device.daemonLog());
        return transitions.empty() ? "init" : transitions.back().to;
    }
    bool inject(const std::string& fault) {
        const SimDevice::Run run = m_device.fault(fault);
        if (run.exitCode != 0) {
            m_problem = fault + " failed: " + run.err;
        }
        return run.exitCode == 0;
    }
    // ptp4l's own view: its first port SLAVE of grandmaster gm.
    bool ptp4lFollows(const std::string& gm) {
        MgmtProbe probe(m_device.dir());
        const std::string socket = m_device.root() + "/var/run/ptp4l";
        const auto state = probe.portState(socket, 1, m_domain);
        if (!state || *state != PORT_STATE_SLAVE) {
            return false;
        }
        const auto parent = probe.get(socket, PARENT_DATA_SET, m_domain);
        return parent && parent->tlvType == 1 &&
               parent->data.size() >= GRANDMASTER_IDENTITY_OFFSET + 8 &&
               identityText(parent->data.data() + GRANDMASTER_IDENTITY_OFFSET) == gm;
    }
    // The daemon's status, from an answer newer than since: its first port SLAVE of gm.
    bool statusShows(const std::string& gm, Clock::time_point since) {
        const auto answer = m_client->last();
        if (!answer || answer->at < since) {
            return false;
        }
        const Json::Value& status = answer->status;
        return status["grandMaster"]["id"].asString() == gm &&
               status["port"][0]["roleStatusId"].asUInt() == PORT_STATE_SLAVE;
    }
    bool backToStable(Clock::duration timeout) {
        return waitFor(
            [&] {
                const auto last = m_notifications->since(0);
                return state() == "slave-stable" && !last.empty() &&
                       last.back()["action"].asInt() == 2 &&
                       last.back()["gmid"].asString() == m_gm[m_in_charge];
            },
            timeout);
    }

    // The notifications since the fault began against the logged transitions since then.
    bool checkNotifications(size_t firstTransition, size_t firstNotification, int& checked) {
        std::vector<LoggedTransition> expected;
        const auto transitions = loggedTransitions(m_device.daemonLog());
        for (size_t i = firstTransition; i < transitions.size(); ++i) {
            if (transitions[i].action != 0) {
                expected.push_back(transitions[i]);
            }
        }
        // The last one may still be on its way; a duplicate would come with it.
        waitFor([&] { return m_notifications->size() >= firstNotification + expected.size(); }, 3s);
        pause(500ms);
        const auto published = m_notifications->since(firstNotification);
        if (published.size() != expected.size()) {
            m_problem = std::to_string(published.size()) + " notifications for " +
                        std::to_string(expected.size()) + " transitions with an action";
            return false;
        }
        for (size_t i = 0; i < published.size(); ++i) {
            const Json::Value& n = published[i];
            const std::string to = n["ptp-state"].asString();
            const int summary = summaryOf(n["details"]["port"]);
            const int wanted = to == "failure" ? 0 : to == "master" ? 1 : 2;
            if (n["action"].asInt() != expected[i].action || to != expected[i].to ||
                summary != wanted) {
                m_problem = "notification " + std::to_string(i + 1) + " (action " +
                            n["action"].asString() + ", " + to + ", ports in summary " +
                            std::to_string(summary) +
                            ") is not the table's for the transition to " + expected[i].to;
                return false;
            }
        }
        checked += static_cast<int>(published.size());
        return true;
    }

    // Brings the fault about and ends it; false when a step did not happen.
    bool applyFault(const std::string& kind) {
        if (kind == "ptp4l-kill") {
            if (!inject("ptp4l-kill")) {
                return false;
            }
            const bool failed = waitFor([&] { return state() == "failure"; }, FAULT_EFFECT_WAIT);
            if (!failed) {
                m_problem = "no failure after ptp4l's death";
            }
            return inject("ptp4l-start") && failed;
        }
        if (kind == "ptp4l-stop") {
            return inject("ptp4l-stop") && pause(PTP4L_STOP_TIME) && inject("ptp4l-cont");
        }
        if (kind == "gm-stop") {
            const bool stopped = inject("gm-stop");
            const bool tookOver =
                stopped && waitFor([&] { return state() == "master"; }, FAULT_EFFECT_WAIT);
            if (stopped && !tookOver) {
                m_problem = "the device did not take the master role";
            }
            return inject("gm-cont") && tookOver;
        }
        if (kind == "link-cut") {
            const bool cut = inject("link-down");
            const bool failed =
                cut && waitFor([&] { return state() == "failure"; }, FAULT_EFFECT_WAIT);
            if (cut && !failed) {
                m_problem = "no failure with the link cut";
            }
            return pause(LINK_CUT_TIME) && inject("link-up") && failed;
        }
        if (kind == "gm-switch") {
            if (!inject("gm-switch")) {
                return false;
            }
            m_in_charge = 1 - m_in_charge;
            return true;
        }
        m_problem = "unknown fault " + kind;
        return false;
    }

    void runFault(const std::string& kind, KindFigures& figures) {
        m_problem.clear();
        ++figures.faults;
        m_client->takeLongestWait();
        m_client->takeUnanswered();
        const size_t firstTransition = loggedTransitions(m_device.daemonLog()).size();
        const size_t firstNotification = m_notifications->size();

        bool ok = applyFault(kind);
        const auto end = Clock::now();
        const std::string gm = m_gm[m_in_charge];
        Clock::time_point recovered;
        if (ok && !(ok = waitFor([&] { return ptp4lFollows(gm); }, RECOVERY_WAIT))) {
            m_problem = "ptp4l did not follow the grandmaster again";
        }
        if (ok) {
            recovered = Clock::now();
            ok = waitFor([&] { return statusShows(gm, recovered); }, RECOVERY_WAIT);
            const double lag = seconds(Clock::now() - recovered);
            figures.longestLag = std::max(figures.longestLag, lag);
            if (!ok || lag > STATUS_LAG_TICKS) {
                m_problem =
                    "the status showed ptp4l's recovery after " + std::to_string(lag) + " s";
                ok = false;
            }
        }
        if (ok && !(ok = backToStable(RECOVERY_WAIT))) {
            m_problem = "no slave-stable with a resume-all for " + gm;
        }
        figures.longestBack = std::max(figures.longestBack, seconds(Clock::now() - end));
        ok = checkNotifications(firstTransition, firstNotification, figures.notifications) && ok;
        figures.longestWait = std::max(figures.longestWait, seconds(m_client->takeLongestWait()));
        const int unanswered = m_client->takeUnanswered();
        figures.unanswered += unanswered;
        if (ok && unanswered > 0) {
            m_problem = std::to_string(unanswered) + " requests without an answer";
            ok = false;
        }
        if (ok) {
            ++figures.survived;
        } else {
            figures.failures.push_back(kind + " #" + std::to_string(figures.faults) + ": " +
                                       m_problem);
            fprintf(stderr, "fault_campaign: %s\n", figures.failures.back().c_str());
            // The next fault starts from a settled device, or the campaign says why not.
            backToStable(RECOVERY_WAIT);
        }
        fprintf(stderr, "fault_campaign: %s #%d %s (%.1f s back)\n", kind.c_str(), figures.faults,
                ok ? "survived" : "FAILED", seconds(Clock::now() - end));
    }

    SimDevice m_device;
    std::vector<std::string> m_kinds;
    std::string m_gm[2];
    int m_in_charge = 0;
    uint8_t m_domain = 0;
    NotificationLog* m_notifications = nullptr;
    RequestClient* m_client = nullptr;
    std::string m_problem;
};

// Results travel from a parallel device's process as lines of text.
std::string encode(const DeviceFigures& d) {
    std::ostringstream out;
    out << "rss " << d.rssStart << " " << d.rssEnd << "\n";
    for (const auto& [kind, k] : d.kinds) {
        out << "kind " << kind << " " << k.faults << " " << k.survived << " " << k.notifications
            << " " << k.unanswered << " " << k.longestWait << " " << k.longestLag << " "
            << k.longestBack << "\n";
        for (const std::string& f : k.failures) {
            out << "failure " << kind << " " << f << "\n";
        }
    }
    if (!d.failure.empty()) {
        out << "device " << d.failure.substr(0, d.failure.find('\n')) << "\n";
    }
    return out.str();
}

DeviceFigures decode(const std::string& text) {
    DeviceFigures d;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string tag, kind;
        words >> tag;
        if (tag == "rss") {
            words >> d.rssStart >> d.rssEnd;
        } else if (tag == "kind") {
            KindFigures& k = d.kinds[(words >> kind, kind)];
            words >> k.faults >> k.survived >> k.notifications >> k.unanswered >> k.longestWait >>
                k.longestLag >> k.longestBack;
        } else if (tag == "failure") {
            words >> kind;
            std::string rest;
            std::getline(words, rest);
            d.kinds[kind].failures.push_back(rest.substr(1));
        } else if (tag == "device") {
            std::getline(words, d.failure);
        }
    }
    if (text.empty()) {
        d.failure = "the device's process ended without figures";
    }
    return d;
}

// A network namespace of this process's own: the daemon's ports are fixed, and each parallel
// device has a daemon.
bool enterPrivateNetwork() {
    try {
        bench::enterPrivateNetwork();
        return true;
    } catch (const std::exception& e) {
        fprintf(stderr, "fault_campaign: %s\n", e.what());
        return false;
    }
}

// Runs each kind on a device of its own, in a process and a network of its own.
std::vector<DeviceFigures> runParallel(const std::vector<std::string>& kinds, int count,
                                       Clock::time_point deadline) {
    struct Child {
        pid_t pid;
        int fd;
    };
    std::vector<Child> children;
    for (const std::string& kind : kinds) {
        int fds[2];
        if (pipe(fds) != 0) {
            perror("fault_campaign: pipe");
            break;
        }
        const pid_t pid = fork();
        if (pid == 0) {
            close(fds[0]);
            DeviceFigures figures;
            if (enterPrivateNetwork()) {
                figures = Campaign({kind}).run(count, deadline);
            } else {
                figures.failure = "no network namespace of its own";
            }
            const std::string text = encode(figures);
            const ssize_t written = write(fds[1], text.data(), text.size());
            _exit(written == static_cast<ssize_t>(text.size()) ? 0 : 1);
        }
        close(fds[1]);
        if (pid < 0) {
            perror("fault_campaign: fork");
            close(fds[0]);
            break;
        }
        children.push_back({pid, fds[0]});
    }
    std::vector<DeviceFigures> results;
    for (const Child& child : children) {
        std::string text;
        char buf[4096];
        for (ssize_t n; (n = read(child.fd, buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR);) {
            text.append(buf, n > 0 ? static_cast<size_t>(n) : 0);
        }
        close(child.fd);
        while (waitpid(child.pid, nullptr, 0) < 0 && errno == EINTR) {
        }
        results.push_back(decode(text));
    }
    return results;
}

// Adds the figures of more faults of a kind.
void add(KindFigures& total, const KindFigures& k) {
    total.faults += k.faults;
    total.survived += k.survived;
    total.notifications += k.notifications;
    total.unanswered += k.unanswered;
    total.longestWait = std::max(total.longestWait, k.longestWait);
    total.longestLag = std::max(total.longestLag, k.longestLag);
    total.longestBack = std::max(total.longestBack, k.longestBack);
    total.failures.insert(total.failures.end(), k.failures.begin(), k.failures.end());
}

void printRow(const char* kind, const KindFigures& k) {
    printf("%-12s %7d %9d %14d %10.0f ms %11d %8.1f tks %9.1f s\n", kind, k.faults, k.survived,
           k.notifications, k.longestWait * 1000, k.unanswered, k.longestLag, k.longestBack);
}

void printTable(const std::vector<DeviceFigures>& devices, double minutes) {
    std::map<std::string, KindFigures> total;
    for (const DeviceFigures& d : devices) {
        for (const auto& [kind, k] : d.kinds) {
            add(total[kind], k);
        }
    }
    printf("\nfault campaign: %.0f minutes, %zu device(s)\n\n", minutes, devices.size());
    printf("%-12s %7s %9s %14s %13s %11s %12s %11s\n", "fault", "faults", "survived",
           "notifications", "longest wait", "unanswered", "status lag", "back after");
    KindFigures all;
    for (const char* kind : ALL_KINDS) {
        const auto it = total.find(kind);
        if (it != total.end()) {
            printRow(kind, it->second);
            add(all, it->second);
        }
    }
    printRow("all", all);
    printf("\n");
    for (size_t i = 0; i < devices.size(); ++i) {
        const DeviceFigures& d = devices[i];
        std::string kinds;
        for (const auto& entry : d.kinds) {
            kinds += (kinds.empty() ? "" : ",") + entry.first;
        }
        printf("device %zu (%s): daemon RSS %ld KiB at the start, %ld KiB at the end\n", i + 1,
               kinds.c_str(), d.rssStart, d.rssEnd);
        if (!d.failure.empty()) {
            printf("device %zu: %s\n", i + 1, d.failure.c_str());
        }
    }
    for (const std::string& f : all.failures) {
        printf("failed: %s\n", f.c_str());
    }
}

[[noreturn]] void usage() {
    fprintf(stderr,
            "usage: fault_campaign [--count N] [--duration MINUTES] [--kinds K,K,...] "
            "[--parallel]\n"
            "kinds: ptp4l-kill ptp4l-stop gm-stop link-cut gm-switch (default: all)\n");
    exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    int count = 50;
    double minutes = 24 * 60;
    bool parallel = false;
    std::vector<std::string> kinds(std::begin(ALL_KINDS), std::end(ALL_KINDS));
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (arg == "--count" && value) {
            count = std::atoi(value);
            ++i;
        } else if (arg == "--duration" && value) {
            minutes = std::atof(value);
            ++i;
        } else if (arg == "--kinds" && value) {
            kinds.clear();
            std::istringstream list(value);
            for (std::string kind; std::getline(list, kind, ',');) {
                if (std::find(std::begin(ALL_KINDS), std::end(ALL_KINDS), kind) ==
                    std::end(ALL_KINDS)) {
                    fprintf(stderr, "fault_campaign: unknown kind '%s'\n", kind.c_str());
                    usage();
                }
                kinds.push_back(kind);
            }
            ++i;
        } else if (arg == "--parallel") {
            parallel = true;
        } else {
            usage();
        }
    }
    if (count < 1 || minutes <= 0 || kinds.empty()) {
        usage();
    }
    // A stop starts no new fault; the devices go down through their destructors.
    bench::catchStopSignals();

    const auto start = Clock::now();
    const auto deadline = start + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(minutes * 60));
    std::vector<DeviceFigures> devices;
    if (parallel) {
        devices = runParallel(kinds, count, deadline);
    } else if (enterPrivateNetwork()) {
        devices.push_back(Campaign(kinds).run(count, deadline));
    } else {
        return 1;
    }
    printTable(devices, seconds(Clock::now() - start) / 60);
    for (const DeviceFigures& d : devices) {
        if (!d.failure.empty()) {
            return 1;
        }
        for (const auto& entry : d.kinds) {
            if (entry.second.survived != entry.second.faults) {
                return 1;
            }
        }
    }
    return 0;
}
