#include "Ptp4lBed.h"

#include "MgmtProbe.h"
#include "Subprocess.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

constexpr auto SCRIPT_TIMEOUT = std::chrono::seconds(60);
constexpr auto POLL_PERIOD = std::chrono::milliseconds(50);
constexpr auto IDENTITY_TIMEOUT = std::chrono::seconds(3);

std::string readFirstLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

pid_t readPid(const std::string& path) {
    std::string text = readFirstLine(path);
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 10);
    return (end != text.c_str() && value > 0) ? static_cast<pid_t>(value) : 0;
}

std::string tail(const std::string& path, size_t lines) {
    std::ifstream in(path);
    if (!in) {
        return "(no " + path + ")\n";
    }
    std::deque<std::string> last;
    std::string line;
    while (std::getline(in, line)) {
        last.push_back(line);
        if (last.size() > lines) {
            last.pop_front();
        }
    }
    std::string text;
    for (const std::string& l : last) {
        text += l + "\n";
    }
    return text;
}

}  // namespace

Ptp4lBed::Ptp4lBed() : Ptp4lBed(Options{}) {}

Ptp4lBed::Ptp4lBed(Options options) : m_options(std::move(options)) {}

Ptp4lBed::~Ptp4lBed() {
    down();
}

const std::string& Ptp4lBed::scriptPath() {
    static const std::string path = OSTPMC_TESTBED_SCRIPT;
    return path;
}

const std::string& Ptp4lBed::clockGuardPath() {
    static const std::string path = OSTPMC_CLOCKGUARD;
    return path;
}

std::vector<std::string> Ptp4lBed::guardedPrefix(const std::string& ns) {
    return {"ip",
            "netns",
            "exec",
            ns,
            "setpriv",
            "--inh-caps=-sys_time",
            "--bounding-set=-sys_time",
            "env",
            "LD_PRELOAD=" + clockGuardPath()};
}

bool Ptp4lBed::fail(const std::string& what) {
    m_error = what;
    down();
    return false;
}

bool Ptp4lBed::up() {
    if (m_up) {
        return true;
    }
    m_error.clear();
    char dirTemplate[] = "/tmp/ostpmc-bed-XXXXXX";
    if (mkdtemp(dirTemplate) == nullptr) {
        m_error = "cannot create a bed directory";
        return false;
    }
    m_dir = dirTemplate;

    std::vector<std::string> argv = {scriptPath(),
                                     "up",
                                     m_dir,
                                     "--guard",
                                     clockGuardPath(),
                                     "--owner",
                                     std::to_string(getpid()),
                                     "--domain",
                                     std::to_string(m_options.domain)};
    if (m_options.delayAsymmetry != 0) {
        argv.insert(argv.end(), {"--asymmetry", std::to_string(m_options.delayAsymmetry)});
    }
    if (m_options.secondPort) {
        argv.push_back("--second-port");
    }
    if (m_options.freeRunning) {
        argv.push_back("--free-running");
    }
    if (!m_options.startSlave) {
        argv.push_back("--no-slave");
    }
    for (const std::string& line : m_options.extraLines) {
        argv.insert(argv.end(), {"--extra", line});
    }
    for (const std::string& line : m_options.gmExtraLines) {
        argv.insert(argv.end(), {"--gm-extra", line});
    }
    for (const std::string& line : m_options.slaveExtraLines) {
        argv.insert(argv.end(), {"--slave-extra", line});
    }

    Subprocess::Result result = Subprocess::run(argv, {}, SCRIPT_TIMEOUT);
    if (result.exitCode != 0) {
        return fail("ptp4l-bed.sh up failed (" + std::to_string(result.exitCode) + "):\n" +
                    result.output);
    }
    if (!loadEnvironment()) {
        return fail("bed.env is incomplete");
    }
    m_gmPid = readPid(m_dir + "/gm.pid");
    m_slavePid = m_options.startSlave ? readPid(m_dir + "/sl.pid") : 0;
    if (m_gmPid == 0 || (m_options.startSlave && m_slavePid == 0)) {
        return fail("pid files are missing");
    }

    MgmtProbe probe(m_dir);
    const auto deadline = std::chrono::steady_clock::now() + IDENTITY_TIMEOUT;
    const auto domain = static_cast<uint8_t>(m_options.domain);
    while (m_gmIdentity.empty() && std::chrono::steady_clock::now() < deadline) {
        if (auto identity = probe.clockIdentity(m_gmSocket, domain)) {
            m_gmIdentity = *identity;
        } else {
            std::this_thread::sleep_for(POLL_PERIOD);
        }
    }
    if (m_gmIdentity.empty()) {
        return fail("the grandmaster does not answer on " + m_gmSocket + "\n" + logTails());
    }
    m_up = true;
    return true;
}

bool Ptp4lBed::loadEnvironment() {
    std::ifstream in(m_dir + "/bed.env");
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (eq == std::string::npos) {
            continue;
        }
        std::string key = line.substr(0, eq);
        std::string value = line.substr(eq + 1);
        if (key == "GM_NS") {
            m_gmNamespace = value;
        } else if (key == "SL_NS") {
            m_slaveNamespace = value;
        } else if (key == "SL_IF") {
            m_slaveInterface = value;
        } else if (key == "GM_SOCK") {
            m_gmSocket = value;
        } else if (key == "SL_SOCK") {
            m_slaveSocket = value;
        }
    }
    return !m_gmNamespace.empty() && !m_slaveNamespace.empty() && !m_slaveInterface.empty() &&
           !m_gmSocket.empty() && !m_slaveSocket.empty();
}

void Ptp4lBed::down() {
    if (m_dir.empty()) {
        return;
    }
    if (std::filesystem::exists(m_dir + "/bed.env")) {
        Subprocess::Result result =
            Subprocess::run({scriptPath(), "down", m_dir}, {}, SCRIPT_TIMEOUT);
        if (result.exitCode != 0) {
            std::fprintf(stderr, "ptp4l-bed.sh down failed:\n%s", result.output.c_str());
        }
    }
    std::error_code ignored;
    std::filesystem::remove_all(m_dir, ignored);
    m_dir.clear();
    m_up = false;
    m_gmPid = 0;
    m_slavePid = 0;
}

int Ptp4lBed::portState(const std::string& socketPath, uint16_t port) const {
    MgmtProbe probe(m_dir);
    auto state = probe.portState(socketPath, port, static_cast<uint8_t>(m_options.domain));
    return state ? *state : -1;
}

bool Ptp4lBed::waitForPortState(const std::string& socketPath, uint16_t port, uint8_t state,
                                std::chrono::milliseconds timeout) const {
    MgmtProbe probe(m_dir);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        auto now = probe.portState(socketPath, port, static_cast<uint8_t>(m_options.domain));
        if (now && *now == state) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(POLL_PERIOD);
    }
}

bool Ptp4lBed::waitForSlave(std::chrono::milliseconds timeout, uint16_t port) const {
    return m_up && waitForPortState(m_slaveSocket, port, MgmtProbe::PORT_STATE_SLAVE, timeout);
}

std::string Ptp4lBed::gmClockIdentityText() const {
    std::string text;
    for (size_t i = 0; i < m_gmIdentity.size(); ++i) {
        char byte[4];
        std::snprintf(byte, sizeof byte, "%02x", m_gmIdentity[i]);
        text += (i ? "-" : "") + std::string(byte);
    }
    return text;
}

std::string Ptp4lBed::logTails(size_t lines) const {
    std::ostringstream out;
    out << "--- " << gmLog() << "\n" << tail(gmLog(), lines);
    if (m_options.startSlave) {
        out << "--- " << slaveLog() << "\n" << tail(slaveLog(), lines);
    }
    return out.str();
}

bool Ptp4lBed::processAlive(pid_t pid) {
    if (pid <= 0) {
        return false;
    }
    // The state follows the command name in parentheses: "pid (comm) S ...".
    std::string stat = readFirstLine("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos || close + 2 >= stat.size()) {
        return false;
    }
    char state = stat[close + 2];
    return state != 'Z' && state != 'X';
}
