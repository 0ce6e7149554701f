// libFuzzer target for the request path: each input is one request text, answered in-process by
// a server on a throw-away device root (the recording init script, the shipped profile files,
// the clock-driver stand-in) with a fake ptp4l on its management socket. After each input the
// reply must carry the wire's envelope, and the only commands run must be the init script's
// restarts and the copy of a profile file into the active one; anything else aborts.
//
// Run it through request_fuzz.sh, which names the root and removes it afterwards, inside
// tests/support/private-net.sh: the server binds the fixed ports and the stand-in mounts.
#include <dirent.h>
#include <signal.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "BoardModel.h"
#include "FakePtp4l.h"
#include "FreePorts.h"
#include "IpcAddress.h"
#include "JsonText.h"
#include "Logger.h"
#include "OstPmcServer.h"
#include "PhcStandIn.h"
#include "ProfileFiles.h"
#include "SysRoot.h"
#include "SystemDefaultCfg.h"
#include "TestSysRoot.h"

namespace {

// A fresh server every so many inputs keeps its state (configured ports, named files) bounded
// and brings back the paths of a server whose ptp4l was never started.
constexpr int INPUTS_PER_SERVER = 2000;
const char* const COPY_PREFIX = "OSTPMC Initializing ptp4l ... ";
const int TERMINATING_SIGNALS[] = {SIGINT, SIGTERM, SIGQUIT, SIGHUP};
const char* const SHIPPED_FILES[] = {"ptpDefaultProfile.cfg", "ptpSmpteProfile.cfg",
                                     "ptpAvbProfile.cfg", "ptpAesProfile.cfg"};

[[noreturn]] void fail(const std::string& what, const std::string& detail) {
    std::fprintf(stderr, "request_fuzz: %s: %s\n", what.c_str(), detail.c_str());
    std::abort();
}

// Splits a command line as sh would, for the quoting the server uses (plain words, single
// quotes, backslashes); false if the line holds anything else the shell would act on.
bool shellWords(const std::string& line, std::vector<std::string>& words) {
    words.clear();
    std::string word;
    bool inWord = false;
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (c == ' ') {
            if (inWord) {
                words.push_back(word);
            }
            word.clear();
            inWord = false;
        } else if (c == '\'') {
            const size_t end = line.find('\'', i + 1);
            if (end == std::string::npos) {
                return false;
            }
            word += line.substr(i + 1, end - i - 1);
            inWord = true;
            i = end;
        } else if (c == '\\') {
            if (i + 1 == line.size()) {
                return false;
            }
            word += line[++i];
            inWord = true;
        } else if (std::string("\t\n\"`$;&|<>()*?[]{}~#!").find(c) != std::string::npos ||
                   c == '\0') {
            return false;
        } else {
            word += c;
            inWord = true;
        }
    }
    if (inWord) {
        words.push_back(word);
    }
    return true;
}

// The file a request names for the copy, as the server reads it; empty when there is none.
std::string namedFile(const uint8_t* data, size_t size) {
    Json::Value request;
    if (!JsonText::parse(reinterpret_cast<const char*>(data), size, request) ||
        !request.isObject()) {
        return std::string();
    }
    try {
        return request["data"].get("cfgFilePath", "").asString();
    } catch (const std::exception&) {
        return std::string();
    }
}

std::set<std::string> entries(const std::string& dir) {
    std::set<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (const dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name != "." && name != "..") {
                names.insert(name);
            }
        }
        closedir(d);
    }
    return names;
}

// What the shell and the init script were asked to run for one input, checked against what
// the server may run: "cp <profile file> <active file>" then "<init script> restart" (or
// restartslave), once per (re)start of ptp4l.
class CommandAudit {
  public:
    explicit CommandAudit(const TestSysRoot& root) : m_root(root), m_workEntries(entries(".")) {}

    // Files named by requests since the server was built: a later restart copies them again.
    void allow(const std::string& named) {
        if (!named.empty()) {
            m_named.insert(named[0] == '-' ? "./" + named : named);
        }
    }
    void forgetNamed() { m_named.clear(); }

    void check(const std::vector<LogCapture::Line>& lines) const {
        size_t copies = 0;
        const std::string prefix = COPY_PREFIX;
        for (const LogCapture::Line& line : lines) {
            if (line.text.rfind(prefix, 0) == 0) {
                checkCopy(line.text.substr(prefix.size()));
                ++copies;
            }
        }
        const std::vector<std::string> runs = scriptRuns();
        for (const std::string& run : runs) {
            if (run != "restart" && run != "restartslave") {
                fail("unexpected init script run", run);
            }
        }
        if (runs.size() != copies) {
            fail("init script runs and copies differ",
                 std::to_string(runs.size()) + " runs, " + std::to_string(copies) + " copies");
        }
        checkEntries();
    }

    // The init script's record since the last call, one verb per line; the record is emptied.
    std::vector<std::string> scriptRuns() const {
        std::vector<std::string> runs;
        const std::string text = m_root.initScriptRuns();
        size_t start = 0;
        for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
            runs.push_back(text.substr(start, end - start));
        }
        if (start != text.size()) {
            runs.push_back(text.substr(start));
        }
        writeTextFile(m_root.file("/initscript.log"), "");
        return runs;
    }

  private:
    void checkCopy(const std::string& command) const {
        std::vector<std::string> words;
        if (!shellWords(command, words) || words.size() != 3 || words[0] != "cp") {
            fail("unexpected shell command", command);
        }
        if (words[2] != ProfileFiles::activeFile()) {
            fail("copy to another file than the active profile file", command);
        }
        bool shipped = false;
        for (const char* file : SHIPPED_FILES) {
            shipped = shipped || words[1] == m_root.file("/etc/ptp/") + file;
        }
        if (!shipped && m_named.count(words[1]) == 0) {
            fail("copy of a file neither shipped nor named by a request", command);
        }
    }

    // A command that slipped past the quoting would most likely leave a file behind.
    void checkEntries() const {
        if (entries(".") != m_workEntries) {
            fail("the working directory changed", "a file came or went");
        }
        for (const std::string& name : entries(m_root.path())) {
            if (name != "etc" && name != "var" && name != "dev" && name != "initscript.log") {
                fail("unexpected file in the device root", name);
            }
        }
        for (const std::string& name : entries(m_root.file("/etc/ptp"))) {
            bool known = name == "ptpProfile.cfg";
            for (const char* file : SHIPPED_FILES) {
                known = known || name == file;
            }
            if (!known) {
                fail("unexpected file in the profile directory", name);
            }
        }
    }

    const TestSysRoot& m_root;
    const std::set<std::string> m_workEntries;
    std::set<std::string> m_named;
};

// The server with everything it talks to, kept for the whole run; the server itself is
// rebuilt every INPUTS_PER_SERVER inputs.
class RequestHarness {
  public:
    explicit RequestHarness(const std::string& rootPath)
        : m_root(rootPath, KESTREL), m_phc(m_root.file("/dev")), m_audit(m_root) {
        // A board that collects statistics, so that every request code has something to serve.
        m_root.writeSystemDefaults(KESTREL);
        SystemDefaultCfg::getInstance()->reload();
        if (!m_phc.start()) {
            fail("clock-driver stand-in", m_phc.error());
        }
        m_model.anyDomain = true;
        m_ptp4l = std::make_unique<FakePtp4l>(m_root.file("/var/run/ptp4l"), m_model);
        // libFuzzer's time-out alarm would break the server's waits for ptp4l's replies with
        // EINTR, which the device never sees. The fake's thread, started above with the signal
        // open, takes it instead; every thread started from here on has it blocked.
        sigset_t alarm;
        sigemptyset(&alarm);
        sigaddset(&alarm, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &alarm, nullptr);
        buildServer();
    }

    ~RequestHarness() {
        m_server.reset();
        m_ptp4l.reset();
        m_phc.stop();
    }

    RequestHarness(const RequestHarness&) = delete;
    RequestHarness& operator=(const RequestHarness&) = delete;

    void run(const uint8_t* data, size_t size) {
        if (m_inputs++ == INPUTS_PER_SERVER) {
            buildServer();
        }
        m_audit.allow(namedFile(data, size));
        std::string reply;
        const int result =
            requestApi().answerRequest(reinterpret_cast<const char*>(data), size, reply);
        checkReply(result, reply);
        m_audit.check(m_log.lines());
        m_log.clear();
        m_ptp4l->clearRequests();
    }

  private:
    // The server keeps its request base non-public; a C-style cast is the one conversion the
    // language allows to it from outside.
    ServerJsonApi& requestApi() { return (ServerJsonApi&)*m_server; }

    void buildServer() {
        // The server takes the terminating signals for a main loop that never runs here, and
        // gives back on its end what it found: libFuzzer keeps them throughout, so that an
        // interrupted run still ends with its figures.
        struct sigaction fuzzer[std::size(TERMINATING_SIGNALS)];
        for (size_t i = 0; i < std::size(TERMINATING_SIGNALS); ++i) {
            sigaction(TERMINATING_SIGNALS[i], nullptr, &fuzzer[i]);
        }
        if (m_server) {
            m_server.reset();  // stops its ptp4l
            for (const std::string& run : m_audit.scriptRuns()) {
                if (run != "stop") {
                    fail("unexpected init script run when the server ended", run);
                }
            }
        }
        m_log.clear();
        m_audit.forgetNamed();
        m_ptp4l->update([this](FakePtp4l::Model& m) { m = m_model; });
        if (!waitForFreePorts(500)) {
            fail("the request ports stay busy", std::to_string(IpcAddress::DEFAULT_PORT));
        }
        m_server = std::make_unique<OstPmcServer>();
        if (m_server->init() != 0) {
            // Its destructor relies on a completed init(): never run it.
            m_server.release();
            fail("the server did not start", "init() failed");
        }
        for (size_t i = 0; i < std::size(TERMINATING_SIGNALS); ++i) {
            sigaction(TERMINATING_SIGNALS[i], &fuzzer[i], nullptr);
        }
        m_inputs = 0;
    }

    static void checkReply(int result, const std::string& reply) {
        Json::Value envelope;
        if (!JsonText::parse(reply.data(), reply.size(), envelope) || !envelope.isObject()) {
            fail("the reply is not a JSON object", reply);
        }
        if (!envelope["result"].isInt() || envelope["result"].asInt() != result ||
            !envelope["resultText"].isString()) {
            fail("the reply has no result or text, or another result", reply);
        }
        for (const std::string& key : envelope.getMemberNames()) {
            if (key != "result" && key != "resultText" && key != "data") {
                fail("unexpected key in the reply", reply);
            }
        }
        if (envelope.isMember("data") && !envelope["data"].isObject()) {
            fail("the reply's data is not an object", reply);
        }
    }

    LogCapture m_log;  // first: it sees what the members below log
    TestSysRoot m_root;
    PhcStandIn m_phc;
    FakePtp4l::Model m_model;
    std::unique_ptr<FakePtp4l> m_ptp4l;
    std::unique_ptr<OstPmcServer> m_server;
    CommandAudit m_audit;
    int m_inputs = 0;
};

RequestHarness* harness = nullptr;

// On a normal exit the server stops its ptp4l, the stand-in unmounts and the root goes.
void endHarness() {
    delete harness;
    harness = nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Log lines are formatted and captured, but written nowhere.
    Logger::createLogger(0, "", "request_fuzz");
    if (SysRoot::prefix().empty()) {
        std::fprintf(stderr,
                     "request_fuzz: OSTPMC_SYSROOT must name a directory to create; run it "
                     "through fuzz/request_fuzz.sh\n");
        std::exit(2);
    }
    harness = new RequestHarness(SysRoot::prefix());
    std::atexit(endHarness);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    harness->run(data, size);
    return 0;
}
