#include "LiveDevice.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "JsonText.h"
#include "LiveSupport.h"

namespace {

namespace fs = std::filesystem;
constexpr int ANSWER_TIMEOUT_MS = 15000;  // a restart of ptp4l takes a few seconds

bool parse(const zmq::message_t& message, Json::Value& out) {
    return JsonText::parse(message.data<char>(), message.size(), out);
}

}  // namespace

LiveDevice::LiveDevice(Ptp4lBed::Options options, double threshold)
    : m_bed([&] {
          options.startSlave = false;
          return options;
      }()),
      m_threshold(threshold) {}

LiveDevice::~LiveDevice() {
    m_client.reset();
    m_subscriber.reset();
    if (m_daemon && m_daemon->running()) {
        m_daemon->signal(SIGTERM);
        m_daemon->wait(15000);
    }
    m_daemon.reset();
    // A ptp4l the daemon could not stop is still the test's to end.
    if (const pid_t pid = ptp4lPid(); pid > 0 && Ptp4lBed::processAlive(pid)) {
        live::initScript(m_root, "stop");
    }
    m_context.reset();
    m_phc.reset();
    m_probe.reset();
    // Back to the machine's network before the bed goes: taking the bed down ends every
    // process inside its namespaces.
    if (m_home_net >= 0) {
        setns(m_home_net, CLONE_NEWNET);
        close(m_home_net);
    }
}

bool LiveDevice::fail(const std::string& what) {
    m_error = what;
    return false;
}

bool LiveDevice::start() {
    if (!m_bed.up()) {
        return fail("bed: " + m_bed.error());
    }
    m_root = m_bed.dir() + "/root";
    live::makeInitRoot(m_root, m_bed);
    // Board model 2: one PTP port, and the init script drives ptp4l.
    for (const char* dir : {"/etc/ost", "/var/run", "/dev"}) {
        fs::create_directories(m_root + dir);
    }
    fs::copy_file(OSTPMC_ROOTFS_DIR "/etc/S60ptp4ld", m_root + "/etc/S60ptp4ld");
    std::ofstream(m_root + "/etc/ost/system-defaults.json")
        << "{\"boardModel\": 2, \"clockOffsetFromMasterThreshold\": " << m_threshold
        << ", \"redundancyEnable\": false}\n";
    // Software time stamps on the veth, and the bed's fast servo so that the slave locks soon.
    std::ofstream(m_root + "/etc/default/ptp4ld", std::ios::app)
        << "PTP4L_OPTIONS=\"--time_stamping=software --pi_proportional_scale=0.7 "
           "--pi_integral_scale=0.3 --logMinDelayReqInterval=-3 -m -q\"\n";

    m_phc = std::make_unique<PhcStandIn>(m_root + "/dev");
    if (!m_phc->start()) {
        return fail("clock-driver stand-in: " + m_phc->error());
    }
    m_probe = std::make_unique<MgmtProbe>(m_bed.dir());

    // From here on this process, and every child it starts, is on the device's network.
    m_home_net = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const int ns = open(("/var/run/netns/" + m_bed.slaveNamespace()).c_str(), O_RDONLY | O_CLOEXEC);
    if (m_home_net < 0 || ns < 0 || setns(ns, CLONE_NEWNET) != 0) {
        return fail("cannot join " + m_bed.slaveNamespace());
    }
    close(ns);
    m_context = std::make_unique<zmq::context_t>();

    m_daemon = std::make_unique<ChildProcess>(OSTPMC_BINARY, std::vector<std::string>{"-l", "7"},
                                              std::vector<std::string>{"OSTPMC_SYSROOT=" + m_root},
                                              m_bed.dir());
    if (!m_daemon->waitForStderr("OSTPMC: Ready to receive commands", 10000)) {
        return fail("the daemon did not start:\n" + m_daemon->stderrText());
    }
    m_client = std::make_unique<zmq::socket_t>(*m_context, zmq::socket_type::req);
    m_client->set(zmq::sockopt::linger, 0);
    m_client->set(zmq::sockopt::rcvtimeo, ANSWER_TIMEOUT_MS);
    m_client->connect("tcp://127.0.0.1:5573");
    m_subscriber = std::make_unique<zmq::socket_t>(*m_context, zmq::socket_type::sub);
    m_subscriber->set(zmq::sockopt::linger, 0);
    m_subscriber->set(zmq::sockopt::subscribe, "");
    m_subscriber->connect("tcp://127.0.0.1:5574");
    // Nothing is published before the first request; give the subscription time to arrive.
    return live::eventually([&] { return request(0).isObject(); });
}

pid_t LiveDevice::ptp4lPid() const {
    return m_root.empty() ? 0 : live::initScriptPid(m_root);
}

Json::Value LiveDevice::request(unsigned int code, const Json::Value& data) {
    Json::Value envelope(Json::objectValue);
    envelope["cmd"] = code;
    envelope["data"] = data;
    zmq::message_t reply;
    Json::Value out;
    if (!m_client->send(zmq::buffer(JsonText::compact(envelope))) || !m_client->recv(reply) ||
        !parse(reply, out)) {
        return Json::Value();
    }
    return out;
}

std::vector<LiveDevice::Publication> LiveDevice::publications(int waitMs) {
    std::vector<Publication> received;
    m_subscriber->set(zmq::sockopt::rcvtimeo, waitMs);
    zmq::message_t topic, body;
    while (m_subscriber->recv(topic) && topic.more() && m_subscriber->recv(body)) {
        Json::Value json;
        parse(body, json);
        received.emplace_back(topic.to_string(), json);
        m_subscriber->set(zmq::sockopt::rcvtimeo, 0);
    }
    return received;
}

std::pair<int, std::string> LiveDevice::ctl(const std::vector<std::string>& args) {
    ChildProcess ctl(OSTPMC_CTL_BINARY, args, {}, m_bed.dir());
    if (!ctl.wait(30000)) {
        return {-1, ""};
    }
    return {ctl.exitCode(), ctl.stdoutText()};
}
