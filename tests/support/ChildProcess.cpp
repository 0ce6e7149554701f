#include "ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>

#include "TestSysRoot.h"

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& args,
                           const std::vector<std::string>& extraEnv, const std::string& outputDir) {
    static int serial = 0;
    const std::string stem = outputDir + "/child" + std::to_string(++serial);
    m_stdout_path = stem + ".out";
    m_stderr_path = stem + ".err";

    std::vector<std::string> argStore{program};
    argStore.insert(argStore.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : argStore) {
        argv.push_back(&a[0]);
    }
    argv.push_back(nullptr);

    m_pid = fork();
    if (m_pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
        int out = open(m_stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(m_stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int in = open("/dev/null", O_RDONLY);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        // Nothing of the test's own: a daemon must show only what it opened itself.
        close_range(3, ~0U, 0);
        for (const std::string& entry : extraEnv) {
            putenv(const_cast<char*>(entry.c_str()));
        }
        execv(program.c_str(), argv.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    if (running()) {
        kill(m_pid, SIGKILL);
        wait(5000);
    }
}

bool ChildProcess::wait(int timeoutMs) {
    if (m_reaped) {
        return true;
    }
    return eventually(
        [this] {
            int status = 0;
            pid_t done = waitpid(m_pid, &status, WNOHANG);
            if (done != m_pid) {
                return false;
            }
            m_reaped = true;
            m_exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1 - WTERMSIG(status);
            return true;
        },
        timeoutMs);
}

bool ChildProcess::running() {
    return !wait(0);
}

void ChildProcess::signal(int signo) {
    if (!m_reaped) {
        kill(m_pid, signo);
    }
}

std::string ChildProcess::stdoutText() const {
    return readTextFile(m_stdout_path);
}

std::string ChildProcess::stderrText() const {
    return readTextFile(m_stderr_path);
}

bool ChildProcess::waitForStderr(const std::string& text, int timeoutMs) const {
    return eventually([&] { return stderrText().find(text) != std::string::npos; }, timeoutMs);
}
