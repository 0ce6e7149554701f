#include "PhcStandIn.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// The file system type the stand-in mounts with (fuse.<subtype>).
const std::string MOUNT_TYPE = "fuse.ostpmc-phc-standin";
const std::string TMP_PREFIX = "ostpmc-phc-";

// Undoes the octal escapes of /proc/self/mountinfo (\040 for a blank and so on).
std::string unescape(const std::string& field) {
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size()) {
            out += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

// Whether a stand-in's file system is mounted on mountPoint in our mount namespace.
bool standInMounted(const std::string& mountPoint) {
    std::ifstream mountinfo("/proc/self/mountinfo");
    std::string line;
    while (std::getline(mountinfo, line)) {
        std::istringstream fields(line);
        std::string id, parent, device, root, point, word;
        fields >> id >> parent >> device >> root >> point;
        while (fields >> word && word != "-") {
        }
        std::string type;
        fields >> type;
        if (type == MOUNT_TYPE && unescape(point) == mountPoint) {
            return true;
        }
    }
    return false;
}

bool alive(pid_t pid) {
    int status = 0;
    return waitpid(pid, &status, WNOHANG) == 0;
}

// Removes the temporary directories of owners that are gone (a killed test process cannot).
void removeLeftovers() {
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/tmp", ec)) {
        const std::string name = entry.path().filename().string();
        if (name.rfind(TMP_PREFIX, 0) != 0) {
            continue;
        }
        const pid_t owner = std::atoi(name.c_str() + TMP_PREFIX.size());
        if (owner > 0 && kill(owner, 0) != 0 && errno == ESRCH) {
            fs::remove_all(entry.path(), ec);
        }
    }
}

}  // namespace

PhcStandIn::PhcStandIn(std::string dir) : m_dir(std::move(dir)) {}

PhcStandIn::~PhcStandIn() {
    stop();
}

const std::string& PhcStandIn::programPath() {
    static const std::string path = OSTPMC_PHC_STANDIN;
    return path;
}

bool PhcStandIn::fail(const std::string& what) {
    m_error = what;
    stop();
    return false;
}

std::string PhcStandIn::childOutput() const {
    std::ifstream file(m_tmpDir + "/output");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    while (!text.empty() && text.back() == '\n') {
        text.pop_back();
    }
    return text;
}

bool PhcStandIn::start() {
    if (m_pid > 0) {
        return true;
    }
    m_error.clear();
    removeLeftovers();
    std::error_code ec;
    if (!fs::is_directory(m_dir, ec)) {
        m_error = m_dir + " is not a directory";
        return false;
    }
    m_mountPoint = fs::canonical(m_dir, ec).string();
    if (standInMounted(m_mountPoint)) {
        m_error = "a stand-in is already mounted on " + m_mountPoint;
        return false;
    }
    std::string tmpTemplate = "/tmp/" + TMP_PREFIX + std::to_string(getpid()) + "-XXXXXX";
    if (mkdtemp(tmpTemplate.data()) == nullptr) {
        m_error = std::string("mkdtemp: ") + std::strerror(errno);
        return false;
    }
    m_tmpDir = tmpTemplate;

    // Everything the child needs is prepared before the fork: only async-signal-safe calls
    // follow it.
    std::vector<std::string> args = {programPath(), m_mountPoint, "--record", recordPath()};
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const int output =
        open((m_tmpDir + "/output").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const int devNull = open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (output < 0 || devNull < 0) {
        const std::string reason = std::strerror(errno);
        close(output);
        close(devNull);
        return fail("cannot open the stand-in's output: " + reason);
    }
    const pid_t owner = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        // Die with the thread that started us; if it is already gone, do not start at all.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != owner) {
            _exit(1);
        }
        // libfuse only handles the signals that are at their defaults, and a blocked SIGTERM
        // would never end it.
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) {
            sigaction(sig, &dfl, nullptr);
        }
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        dup2(devNull, STDIN_FILENO);
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
        close_range(3, ~0U, 0);
        execv(argv[0], argv.data());
        static const char message[] = "ostpmc-phc-standin: exec failed\n";
        ssize_t ignored = write(STDERR_FILENO, message, sizeof message - 1);
        (void)ignored;
        _exit(127);
    }
    const int forkErrno = errno;
    close(output);
    close(devNull);
    if (pid < 0) {
        return fail(std::string("fork: ") + std::strerror(forkErrno));
    }
    m_pid = pid;

    // Served once our file system is mounted there and answers for the node.
    const auto deadline = Clock::now() + 5s;
    for (;;) {
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_pid = 0;
            const std::string how =
                WIFEXITED(status) ? "exited with status " + std::to_string(WEXITSTATUS(status))
                                  : "was killed by signal " + std::to_string(WTERMSIG(status));
            return fail("ostpmc-phc-standin " + how + ": " + childOutput());
        }
        struct stat st {};
        if (standInMounted(m_mountPoint) && stat(nodePath().c_str(), &st) == 0 &&
            S_ISREG(st.st_mode)) {
            return true;
        }
        if (Clock::now() > deadline) {
            return fail("ostpmc-phc-standin did not serve " + nodePath() +
                        " within 5 s: " + childOutput());
        }
        std::this_thread::sleep_for(5ms);
    }
}

void PhcStandIn::stop() {
    if (m_pid > 0) {
        kill(m_pid, SIGTERM);
        kill(m_pid, SIGCONT);  // a stopped stand-in must see it too
        const auto deadline = Clock::now() + 3s;
        while (alive(m_pid) && Clock::now() < deadline) {
            std::this_thread::sleep_for(5ms);
        }
        if (alive(m_pid)) {
            std::fprintf(stderr, "PhcStandIn: pid %d ignored SIGTERM, killing it\n", m_pid);
            kill(m_pid, SIGKILL);
            while (waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }
        m_pid = 0;
    }
    if (!m_mountPoint.empty()) {
        // A stand-in that was killed leaves the unmount to its fusermount3, which does it
        // within milliseconds; detach it ourselves if that did not happen.
        const auto deadline = Clock::now() + 2s;
        while (standInMounted(m_mountPoint) && Clock::now() < deadline) {
            std::this_thread::sleep_for(5ms);
        }
        if (standInMounted(m_mountPoint) && umount2(m_mountPoint.c_str(), MNT_DETACH) != 0) {
            std::fprintf(stderr, "PhcStandIn: cannot unmount %s: %s\n", m_mountPoint.c_str(),
                         std::strerror(errno));
        }
        m_mountPoint.clear();
    }
    if (!m_tmpDir.empty()) {
        std::error_code ignored;
        fs::remove_all(m_tmpDir, ignored);
        m_tmpDir.clear();
    }
}

std::vector<PhcStandIn::Request> PhcStandIn::requests() const {
    std::vector<Request> result;
    if (m_tmpDir.empty()) {
        return result;
    }
    std::ifstream file(recordPath());
    std::string line;
    while (std::getline(file, line)) {
        if (file.eof()) {
            break;  // a line still being written
        }
        std::istringstream words(line);
        Request request{};
        size_t count = 0;
        while (count < request.size() && (words >> std::hex >> request[count])) {
            ++count;
        }
        if (count == request.size()) {
            result.push_back(request);
        }
    }
    return result;
}

bool PhcStandIn::failWith(int err) {
    if (m_pid <= 0) {
        m_error = "the stand-in is not running";
        return false;
    }
    const std::string command = err == 0 ? "ok\n" : "fail " + std::to_string(err) + "\n";
    const int fd = open(nodePath().c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) {
        m_error = "open " + nodePath() + ": " + std::strerror(errno);
        return false;
    }
    const ssize_t written = write(fd, command.data(), command.size());
    const int writeErrno = errno;
    close(fd);
    if (written != static_cast<ssize_t>(command.size())) {
        m_error = "the stand-in refused \"" + command.substr(0, command.size() - 1) +
                  "\": " + std::strerror(writeErrno);
        return false;
    }
    return true;
}
