#include "CtlRunner.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>
#include <zmq.hpp>

#include "CtlFormat.h"
#include "IpcAddress.h"
#include "IpcResult.h"
#include "OstPmcJsonClient.h"

namespace {

// How long a connection to the daemon may take: on this device, or the next one, it takes
// well under a millisecond.
constexpr int CONNECT_TIMEOUT_MS = 1500;

// Whether anything accepts connections on a daemon's port. ZeroMQ retries a refused connection
// in silence until the reply time-out, so a daemon that does not run is told at once instead.
struct Reach {
    bool open = false;
    bool refused = false;  // nothing listens: the daemon does not run there
    std::string why;       // when not open: what the connection attempt met
};

Reach reachPort(const std::string& host, unsigned int port, int timeoutMs) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (rc != 0) {
        return {false, false, std::string("unknown host: ") + gai_strerror(rc)};
    }
    Reach reach{false, false, "no address"};
    for (addrinfo* at = found; at && !reach.open; at = at->ai_next) {
        const int fd =
            socket(at->ai_family, at->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, at->ai_protocol);
        if (fd < 0) {
            reach.why = strerror(errno);
            continue;
        }
        int error = connect(fd, at->ai_addr, at->ai_addrlen) == 0 ? 0 : errno;
        if (error == EINPROGRESS) {
            pollfd item{fd, POLLOUT, 0};
            const int ready = poll(&item, 1, timeoutMs);
            socklen_t size = sizeof(error);
            if (ready == 0) {
                error = ETIMEDOUT;
            } else if (ready < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
                error = errno;
            }
        }
        close(fd);
        reach.open = error == 0;
        reach.refused = error == ECONNREFUSED;
        reach.why = reach.refused ? "connection refused" : strerror(error);
    }
    freeaddrinfo(found);
    return reach;
}

int connectTimeout(const CtlRequest& request) {
    return request.timeoutMs > 0 ? std::min(request.timeoutMs, CONNECT_TIMEOUT_MS)
                                 : CONNECT_TIMEOUT_MS;
}

class CtlClient : public OstPmcJsonClient {
  public:
    explicit CtlClient(int timeoutMs) : m_timeout_ms(timeoutMs) {}
    int getClientTimeout() override {
        return m_timeout_ms > 0 ? m_timeout_ms : OstPmcJsonClient::getClientTimeout();
    }

  private:
    int m_timeout_ms;
};

int reportFailure(CtlClient& client, int rc, FILE* err) {
    const char* what = IpcResult::text(rc);
    if (rc == IpcResult::ERROR_TIMEOUT || rc == IpcResult::ERROR_TRANSPORT ||
        rc == IpcResult::ERROR_NOT_CONNECTED || rc == IpcResult::ERROR_BAD_REPLY) {
        fprintf(err, "ostpmc-ctl: no answer from ostPmc at %s within %d ms (%s)\n",
                client.getIpcConnectAddress().c_str(), client.getClientTimeout(), what);
        return CTL_NO_ANSWER;
    }
    const std::string& text = client.getLastResultText();
    fprintf(err, "ostpmc-ctl: ostPmc refused the request: %d %s\n", rc,
            text.empty() ? what : text.c_str());
    return CTL_REFUSED;
}

bool loadJsonFile(const std::string& path, Json::Value& out, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot read " + path + ": " + strerror(errno);
        return false;
    }
    Json::CharReaderBuilder builder;
    std::string parseErrors;
    if (!Json::parseFromStream(builder, in, &out, &parseErrors)) {
        error = path + " is not valid JSON: " + parseErrors;
        return false;
    }
    if (!out.isObject()) {
        error = path + " must hold a JSON object";
        return false;
    }
    return true;
}

// What "config -j" and "debug -j" print holds the configuration under "ptp" or "running-cfg".
Json::Value unwrapConfiguration(const Json::Value& file) {
    for (const char* key : {"ptp", "running-cfg"}) {
        if (file.size() == 1 && file[key].isObject()) {
            return file[key];
        }
    }
    return file;
}

void print(FILE* out, const std::string& text) {
    fputs(text.c_str(), out);
    fflush(out);
}

// What watch waits for, said on standard error so that the output stays the publications.
void announceWatch(const CtlRequest& request, const std::string& endpoint, FILE* err) {
    bool notifications = request.topics.empty();
    bool configuration = request.topics.empty();
    for (const std::string& topic : request.topics) {
        (topic == "1000" ? notifications : configuration) = true;
    }
    const std::string what =
        notifications && configuration
            ? "state-machine notifications (1000) and configuration changes (1001)"
        : notifications ? "state-machine notifications (1000)"
                        : "configuration changes (1001)";
    std::string until;
    if (request.count > 0) {
        until = " after " + std::to_string(request.count) + " of them or";
    }
    if (request.timeoutMs > 0) {
        until += " after " + std::to_string(request.timeoutMs) + " ms without one or";
    }
    fprintf(err, "ostpmc-ctl: waiting for %s from ostPmc at %s; stops%s on Ctrl-C\n", what.c_str(),
            endpoint.c_str(), until.c_str());
    const Reach reach = reachPort(request.host, IpcAddress::PUBLISH_PORT, connectTimeout(request));
    if (!reach.open) {
        fprintf(err, "ostpmc-ctl: ostPmc does not run there yet (%s); waiting for it\n",
                reach.why.c_str());
    }
    fflush(err);
}

int runWatch(const CtlRequest& request, zmq::context_t& context, FILE* out, FILE* err) {
    std::string endpoint = "tcp://" + request.host + ":" + std::to_string(IpcAddress::PUBLISH_PORT);
    announceWatch(request, endpoint, err);
    try {
        zmq::socket_t sub(context, zmq::socket_type::sub);
        sub.set(zmq::sockopt::linger, 0);
        sub.connect(endpoint);
        if (request.topics.empty()) {
            sub.set(zmq::sockopt::subscribe, "");
        }
        for (const std::string& topic : request.topics) {
            sub.set(zmq::sockopt::subscribe, topic);
        }
        int received = 0;
        while (request.count == 0 || received < request.count) {
            zmq::pollitem_t item{sub.handle(), 0, ZMQ_POLLIN, 0};
            int ready = zmq::poll(
                &item, 1,
                std::chrono::milliseconds(request.timeoutMs > 0 ? request.timeoutMs : -1));
            if (ready == 0) {
                fprintf(err, "ostpmc-ctl: no publication from %s within %d ms\n", endpoint.c_str(),
                        request.timeoutMs);
                return CTL_NO_ANSWER;
            }
            zmq::message_t topic;
            zmq::message_t body;
            if (!sub.recv(topic) || !topic.more() || !sub.recv(body)) {
                continue;
            }
            while (body.more()) {  // a malformed publication: drop the rest of it
                zmq::message_t extra;
                if (!sub.recv(extra)) {
                    break;
                }
            }
            std::string topicText = topic.to_string();
            std::string bodyText = body.to_string();
            Json::Value json;
            Json::CharReaderBuilder builder;
            std::string parseErrors;
            std::istringstream in(bodyText);
            if (request.json || !Json::parseFromStream(builder, in, &json, &parseErrors)) {
                print(out, topicText + " " + bodyText + "\n");
            } else {
                print(out, CtlFormat::publication(topicText, json));
            }
            ++received;
        }
    } catch (const zmq::error_t& e) {
        fprintf(err, "ostpmc-ctl: cannot watch %s: %s\n", endpoint.c_str(), e.what());
        return CTL_NO_ANSWER;
    }
    return CTL_OK;
}

// The last notifications of the state machine, as one line each.
class NotificationLog {
  public:
    NotificationLog(zmq::context_t& context, const std::string& host)
        : m_socket(context, zmq::socket_type::sub) {
        m_socket.set(zmq::sockopt::linger, 0);
        m_socket.set(zmq::sockopt::subscribe, "1000");
        m_socket.connect("tcp://" + host + ":" + std::to_string(IpcAddress::PUBLISH_PORT));
    }
    // Takes what arrived, keeping the newest few.
    const std::vector<std::string>& poll() {
        zmq::message_t topic, body;
        while (m_socket.recv(topic, zmq::recv_flags::dontwait) && topic.more() &&
               m_socket.recv(body, zmq::recv_flags::dontwait)) {
            Json::Value json;
            Json::CharReaderBuilder builder;
            std::string errors;
            std::istringstream in(body.to_string());
            m_lines.push_back(Json::parseFromStream(builder, in, &json, &errors)
                                  ? CtlFormat::publication(topic.to_string(), json)
                                  : body.to_string() + "\n");
            if (m_lines.size() > KEPT) {
                m_lines.erase(m_lines.begin());
            }
        }
        return m_lines;
    }

  private:
    static constexpr size_t KEPT = 5;
    zmq::socket_t m_socket;
    std::vector<std::string> m_lines;
};

int runTop(const CtlRequest& request, CtlClient& client, zmq::context_t& context, FILE* out,
           FILE* err) {
    NotificationLog notifications(context, request.host);
    const bool terminal = isatty(fileno(out));
    for (int frame = 0; request.count == 0 || frame < request.count; ++frame) {
        if (frame > 0) {
            std::this_thread::sleep_for(std::chrono::seconds(1));
        }
        Json::Value reply;
        const int rc = client.getInternalDebugInfo(reply);
        if (rc < 0) {
            return reportFailure(client, rc, err);
        }
        print(out, std::string(terminal ? "\033[H\033[2J" : "") +
                       CtlFormat::top(reply, notifications.poll()) + (terminal ? "" : "\n"));
    }
    return CTL_OK;
}

}  // namespace

int runCtl(const CtlRequest& request, FILE* out, FILE* err) {
    zmq::context_t context;
    if (request.command == CtlRequest::Command::Watch) {
        return runWatch(request, context, out, err);
    }

    Json::Value payload;
    if (request.command == CtlRequest::Command::Apply) {
        std::string error;
        if (!loadJsonFile(request.file, payload, error)) {
            fprintf(err, "ostpmc-ctl: %s\n", error.c_str());
            return CTL_USAGE;
        }
        payload = unwrapConfiguration(payload);
    }

    CtlClient client(request.timeoutMs);
    std::string host = request.host;
    int rc = client.init(context, host);
    if (rc < 0) {
        return reportFailure(client, rc, err);
    }
    const Reach reach = reachPort(request.host, IpcAddress::DEFAULT_PORT, connectTimeout(request));
    if (!reach.open) {
        fprintf(err,
                reach.refused ? "ostpmc-ctl: ostPmc is not running at %s (%s)\n"
                              : "ostpmc-ctl: cannot reach ostPmc at %s: %s\n",
                client.getIpcConnectAddress().c_str(), reach.why.c_str());
        return CTL_NO_ANSWER;
    }

    if (request.command == CtlRequest::Command::Top) {
        return runTop(request, client, context, out, err);
    }
    Json::Value reply;
    Json::Value parameters = request.parameters;
    // A change is reported as the difference of the running configuration around it.
    const bool changes = request.command == CtlRequest::Command::Set ||
                         request.command == CtlRequest::Command::Apply;
    Json::Value before;
    if (changes && !request.json && (rc = client.getPtpRunningConfig(before)) < 0) {
        return reportFailure(client, rc, err);
    }
    switch (request.command) {
        case CtlRequest::Command::Status:
            // The debug reply also tells whether the status is a reading at all.
            rc = request.json ? client.getPtp(reply) : client.getInternalDebugInfo(reply);
            break;
        case CtlRequest::Command::None:
        case CtlRequest::Command::Help:
        case CtlRequest::Command::Watch:
        case CtlRequest::Command::Top:
            rc = client.getPtp(reply);
            break;
        case CtlRequest::Command::Stats:
            rc = client.getPtpStats(reply);
            break;
        case CtlRequest::Command::Config:
            rc = client.getPtpRunningConfig(reply);
            break;
        case CtlRequest::Command::Debug:
            rc = client.getInternalDebugInfo(reply);
            break;
        case CtlRequest::Command::Set:
            rc = client.setPtpParameter(parameters, reply);
            break;
        case CtlRequest::Command::Apply:
            rc = client.setPtpRunningConfig(payload, reply);
            break;
    }
    if (rc < 0) {
        return reportFailure(client, rc, err);
    }

    if (request.json) {
        Json::StreamWriterBuilder builder;
        builder["indentation"] = "  ";
        print(out, Json::writeString(builder, reply) + "\n");
        return CTL_OK;
    }
    switch (request.command) {
        case CtlRequest::Command::Stats:
            print(out, CtlFormat::stats(reply["ptp-stats"]));
            break;
        case CtlRequest::Command::Config:
            print(out, CtlFormat::config(reply["ptp"]));
            break;
        case CtlRequest::Command::Debug:
            print(out, "status:\n" + CtlFormat::status(reply["status"]) +
                           "running configuration:\n" + CtlFormat::config(reply["running-cfg"]));
            break;
        case CtlRequest::Command::Set:
        case CtlRequest::Command::Apply: {
            Json::Value after;
            if ((rc = client.getPtpRunningConfig(after)) < 0) {
                return reportFailure(client, rc, err);
            }
            const std::string changed = CtlFormat::configChanges(before["ptp"], after["ptp"]);
            if (!changed.empty()) {
                print(out, "applied; the running configuration changed:\n" + changed);
            } else if (request.command == CtlRequest::Command::Apply) {
                print(out,
                      "nothing applied: this profile is already active and ptp4l runs (change "
                      "single values with 'set')\n");
            } else {
                print(out, "applied; the running configuration is unchanged\n");
            }
            break;
        }
        case CtlRequest::Command::Status:
            // Before the first reading the records hold defaults: they are not shown.
            print(out,
                  CtlFormat::health(reply["monitor"]) + (CtlFormat::hasReading(reply["monitor"])
                                                             ? CtlFormat::status(reply["status"])
                                                             : std::string()));
            break;
        default:
            print(out, CtlFormat::status(reply));
            break;
    }
    return CTL_OK;
}
