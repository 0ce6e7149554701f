#pragma once

#include <sys/types.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

// A program run by a test, with its output in files and a bounded wait for its end. The
// destructor ends it (by its pid) if the test did not.
class ChildProcess {
  public:
    ChildProcess(const std::string& program, const std::vector<std::string>& args,
                 const std::vector<std::string>& extraEnv, const std::string& outputDir);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // Waits up to timeoutMs for the process to end; true with its status filled in.
    bool wait(int timeoutMs);
    bool running();
    void signal(int signo);
    // Exit code when it exited normally, else -1 - the terminating signal.
    int exitCode() const { return m_exit_code; }
    std::string stdoutText() const;
    std::string stderrText() const;
    // Waits up to timeoutMs until standard error holds text.
    bool waitForStderr(const std::string& text, int timeoutMs) const;

  private:
    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_exit_code = 0;
    std::string m_stdout_path;
    std::string m_stderr_path;
};

// Polls cond every 20 ms for up to timeoutMs.
template <typename Cond>
bool eventually(Cond cond, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}
