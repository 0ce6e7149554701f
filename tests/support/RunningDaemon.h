#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ChildProcess.h"
#include "TestSysRoot.h"

// True when a daemon on the fixed request port answers a status request within timeoutMs:
// it is then past its start-up and serving from its main loop.
bool daemonAnswers(int timeoutMs);

// The built ostPmc running on a throw-away device root, serving on its fixed ports.
class RunningDaemon {
  public:
    explicit RunningDaemon(int boardModel = 0, std::vector<std::string> args = {"-l", "7"});
    ~RunningDaemon();

    // True once the daemon logged that it serves requests.
    bool ready() const { return m_ready; }
    TestSysRoot& root() { return m_root; }
    ChildProcess& process() { return *m_process; }
    // A terminating signal and a bounded wait; the exit code, or -1000 when it did not stop.
    int stop(int signo = 15);

  private:
    TestSysRoot m_root;
    std::unique_ptr<ChildProcess> m_process;
    bool m_ready = false;
};
