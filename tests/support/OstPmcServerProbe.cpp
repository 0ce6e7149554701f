#include "OstPmcServerProbe.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "FreePorts.h"
#include "JsonText.h"
#include "SysRoot.h"
#include "SystemDefaultCfg.h"
#include "ZmqUtils.h"

namespace {

constexpr int ANSWER_TIMEOUT_MS = 5000;
const std::string MARKER = "probe-marker-";

bool parse(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(text);
    return Json::parseFromStream(builder, in, &out, &errors);
}

}  // namespace

std::string OstPmcServerProbe::probeRoot() {
    return "/tmp/ostpmc-probe-" + std::to_string(getpid());
}

OstPmcServerProbe::OstPmcServerProbe(const Setup& setup)
    : m_log(setup.captureLog ? std::make_unique<LogCapture>() : nullptr),
      m_root(probeRoot(), setup.board) {
    if (SysRoot::prefix() != m_root.path()) {
        throw std::runtime_error("OSTPMC_SYSROOT must name " + m_root.path());
    }
    m_root.writeSystemDefaults(setup.board, setup.threshold, setup.redundancy);
    SystemDefaultCfg::getInstance()->reload();
    m_phc = std::make_unique<PhcStandIn>(m_root.file("/dev"));
    if (setup.clockDriver && !m_phc->start()) {
        throw std::runtime_error("clock-driver stand-in: " + m_phc->error());
    }
    if (setup.fakePtp4l) {
        m_ptp4l = std::make_unique<FakePtp4l>(m_root.file("/var/run/ptp4l"), setup.model);
    }
    waitForFreePorts(200);
    m_server = std::make_unique<OstPmcServer>();
    if (m_server->init() != 0) {
        // Like the daemon, never destroy a server that did not start: its destructor relies
        // on a completed init().
        m_server.release();
        throw std::runtime_error("the server did not start");
    }

    zmq::context_t& context = ZmqUtils::getInstance()->getContext();
    m_client = std::make_unique<zmq::socket_t>(context, zmq::socket_type::req);
    m_client->set(zmq::sockopt::linger, 0);
    m_client->set(zmq::sockopt::rcvtimeo, ANSWER_TIMEOUT_MS);
    m_client->connect("tcp://127.0.0.1:5573");
    m_subscriber = std::make_unique<zmq::socket_t>(context, zmq::socket_type::sub);
    m_subscriber->set(zmq::sockopt::linger, 0);
    m_subscriber->set(zmq::sockopt::subscribe, "");
    m_subscriber->connect("tcp://127.0.0.1:5574");
    // A subscription reaches the publisher a moment after connecting: the first marker that
    // arrives proves it connected.
    m_subscriber->set(zmq::sockopt::rcvtimeo, 10);
    std::vector<Publication> ignored;
    bool connected = false;
    for (int i = 0; i < 500 && !connected; ++i) {
        connected = readToMarker(ignored);
    }
    if (!connected) {
        throw std::runtime_error("no publication reached the probe");
    }
    m_subscriber->set(zmq::sockopt::rcvtimeo, ANSWER_TIMEOUT_MS);
    if (m_log) {
        m_log->clear();
    }
}

OstPmcServerProbe::~OstPmcServerProbe() {
    m_client.reset();
    m_subscriber.reset();
    m_server.reset();
    m_ptp4l.reset();
    m_phc.reset();
}

std::string OstPmcServerProbe::clientPath() const {
    return m_root.file("/var/run/udsClient.") + std::to_string(getpid());
}

Json::Value OstPmcServerProbe::request(unsigned int code, const Json::Value& data) {
    Json::Value envelope(Json::objectValue);
    envelope["cmd"] = code;
    envelope["data"] = data;
    Json::Value out;
    if (!parse(requestText(JsonText::compact(envelope)), out)) {
        return Json::Value();
    }
    return out;
}

std::string OstPmcServerProbe::requestText(const std::string& frame) {
    m_client->send(zmq::buffer(frame));
    zmq::pollitem_t item{m_server->m_ipc_socket->handle(), 0, ZMQ_POLLIN, 0};
    if (zmq::poll(&item, 1, std::chrono::milliseconds(ANSWER_TIMEOUT_MS)) != 1) {
        return "";
    }
    m_server->ipcPreProcessMsg(m_server->m_ipc_socket);
    zmq::message_t reply;
    if (!m_client->recv(reply)) {
        return "";
    }
    return reply.to_string();
}

std::vector<OstPmcServerProbe::Publication> OstPmcServerProbe::publications() {
    std::vector<Publication> received;
    if (!readToMarker(received)) {
        throw std::runtime_error("the probe's marker publication did not arrive");
    }
    return received;
}

bool OstPmcServerProbe::readToMarker(std::vector<Publication>& received) {
    // Publications arrive in order: all that was published before the marker is here once the
    // marker is. Markers of earlier calls that came late are dropped on the way.
    OstPmcPtpCfg marker;
    marker.m_cfg_path = MARKER + std::to_string(++m_markers);
    m_server->m_publisher.notifyPtpConfigChange(marker);
    zmq::message_t topic, body;
    while (m_subscriber->recv(topic) && topic.more() && m_subscriber->recv(body)) {
        Json::Value json;
        parse(body.to_string(), json);
        const std::string path = json["cfgFilePath"].asString();
        if (path == marker.m_cfg_path) {
            return true;
        }
        if (path.rfind(MARKER, 0) != 0) {
            received.emplace_back(topic.to_string(), json);
        }
    }
    return false;
}

std::vector<std::string> OstPmcServerProbe::initScriptRuns() const {
    std::vector<std::string> runs;
    std::istringstream lines(m_root.initScriptRuns());
    for (std::string line; std::getline(lines, line);) {
        runs.push_back(line);
    }
    return runs;
}

std::vector<std::string> OstPmcServerProbe::copyCommands() const {
    const std::string prefix = "OSTPMC Initializing ptp4l ... ";
    std::vector<std::string> commands;
    for (const LogCapture::Line& line : m_log->lines()) {
        if (line.text.rfind(prefix, 0) == 0) {
            commands.push_back(line.text.substr(prefix.size()));
        }
    }
    return commands;
}
