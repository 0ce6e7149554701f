#include "SimDevice.h"

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "MgmtProbe.h"
#include "OstPmcCommands.h"

namespace {

namespace fs = std::filesystem;
constexpr int ANSWER_TIMEOUT_MS = 15000;  // a restart of ptp4l takes a few seconds

bool parse(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    std::string errors;
    std::istringstream in(text);
    return Json::parseFromStream(builder, in, &out, &errors);
}

std::string valueOf(const std::string& file, const std::string& key) {
    std::istringstream lines(readText(file));
    std::string value;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(key + "=", 0) == 0) {
            value = line.substr(key.size() + 1);
        }
    }
    return value;
}

}  // namespace

std::string readText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

std::string SimDevice::scriptPath(const std::string& name) {
    return OSTPMC_SOURCE_DIR "/scripts/" + name;
}

SimDevice::SimDevice() {
    char pattern[] = "/tmp/ostpmc-sim-XXXXXX";
    if (mkdtemp(pattern)) {
        m_dir = pattern;
    }
}

SimDevice::~SimDevice() {
    m_client.reset();
    m_subscriber.reset();
    m_context.reset();
    if (m_daemon && m_daemon->running()) {
        m_daemon->signal(SIGTERM);
        m_daemon->wait(15000);
    }
    m_daemon.reset();
    if (!m_dir.empty()) {
        script("sim-device.sh", {"down", "--dir", m_dir});
        fs::remove_all(m_dir);
    }
}

SimDevice::Run SimDevice::script(const std::string& name, const std::vector<std::string>& args,
                                 int timeoutMs, const std::vector<std::string>& env) {
    std::vector<std::string> words{scriptPath(name)};
    words.insert(words.end(), args.begin(), args.end());
    ChildProcess child("/bin/sh", words, env, m_dir);
    Run run;
    if (child.wait(timeoutMs)) {
        run.exitCode = child.exitCode();
    }
    run.out = child.stdoutText();
    run.err = child.stderrText();
    return run;
}

bool SimDevice::up(const std::vector<std::string>& options) {
    std::vector<std::string> args{
        "up", "--dir", m_dir, "--build", OSTPMC_BUILD_DIR, "--owner", std::to_string(getpid())};
    args.insert(args.end(), options.begin(), options.end());
    const Run run = script("sim-device.sh", args);
    if (run.exitCode != 0) {
        fprintf(stderr, "sim-device.sh up failed:\n%s%s", run.out.c_str(), run.err.c_str());
    }
    return run.exitCode == 0;
}

bool SimDevice::startDaemon() {
    m_daemon = std::make_unique<ChildProcess>(
        "/bin/sh",
        std::vector<std::string>{scriptPath("sim-device.sh"), "daemon", "--dir", m_dir, "-l", "6"},
        std::vector<std::string>{}, m_dir);
    return m_daemon->waitForStderr("OSTPMC: Ready to receive commands", 10000) && connect();
}

bool SimDevice::connect() {
    m_context = std::make_unique<zmq::context_t>();
    openClient();
    m_subscriber = std::make_unique<zmq::socket_t>(*m_context, zmq::socket_type::sub);
    m_subscriber->set(zmq::sockopt::linger, 0);
    m_subscriber->set(zmq::sockopt::subscribe, "1000");
    m_subscriber->connect("tcp://127.0.0.1:5574");
    // Nothing is published before the first request: the subscription has arrived by then.
    return eventually([&] { return request(OSTPMC_GET_PTP_INFO).isObject(); }, 10000);
}

void SimDevice::openClient() {
    m_client = std::make_unique<zmq::socket_t>(*m_context, zmq::socket_type::req);
    m_client->set(zmq::sockopt::linger, 0);
    m_client->set(zmq::sockopt::rcvtimeo, ANSWER_TIMEOUT_MS);
    m_client->connect("tcp://127.0.0.1:5573");
}

Json::Value SimDevice::request(unsigned int code, const Json::Value& data) {
    Json::Value envelope(Json::objectValue);
    envelope["cmd"] = code;
    envelope["data"] = data;
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    zmq::message_t reply;
    Json::Value out;
    if (!m_client->send(zmq::buffer(Json::writeString(writer, envelope)))) {
        return Json::Value();
    }
    if (!m_client->recv(reply)) {
        // A request socket that lost its reply sends nothing more.
        openClient();
        return Json::Value();
    }
    return parse(reply.to_string(), out) ? out["data"] : Json::Value();
}

std::string SimDevice::state() {
    return request(OSTPMC_GET_INTERNAL_DEBUG_INFO)["monitor"]["ptp-state"].asString();
}

std::string SimDevice::grandmaster() {
    return request(OSTPMC_GET_PTP_INFO)["grandMaster"]["id"].asString();
}

std::vector<Json::Value> SimDevice::notifications(int waitMs) {
    std::vector<Json::Value> received;
    m_subscriber->set(zmq::sockopt::rcvtimeo, waitMs);
    zmq::message_t topic, body;
    while (m_subscriber->recv(topic) && topic.more() && m_subscriber->recv(body)) {
        Json::Value json;
        parse(body.to_string(), json);
        received.push_back(json);
        m_subscriber->set(zmq::sockopt::rcvtimeo, 0);
    }
    return received;
}

std::string SimDevice::bedValue(const std::string& key) const {
    return valueOf(bed() + "/bed.env", key);
}

std::string SimDevice::deviceValue(const std::string& key) const {
    return valueOf(m_dir + "/device.env", key);
}

std::string SimDevice::grandmasterIdentity(const std::string& role) const {
    MgmtProbe probe(m_dir);
    const auto identity =
        probe.clockIdentity(bed() + "/" + role + ".sock", std::stoi(bedValue("DOMAIN")));
    std::string text;
    for (size_t i = 0; identity && i < identity->size(); ++i) {
        char byte[4];
        snprintf(byte, sizeof byte, "%02x", (*identity)[i]);
        text += (i ? "-" : "") + std::string(byte);
    }
    return text;
}
