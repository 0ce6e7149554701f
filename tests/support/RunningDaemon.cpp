#include "RunningDaemon.h"

#include <signal.h>

#include "OstPmcJsonClient.h"

namespace {

class ImpatientClient : public OstPmcJsonClient {
  public:
    explicit ImpatientClient(int timeoutMs) : m_timeout_ms(timeoutMs) {}
    int getClientTimeout() override { return m_timeout_ms; }

  private:
    int m_timeout_ms;
};

}  // namespace

bool daemonAnswers(int timeoutMs) {
    zmq::context_t context;
    ImpatientClient client(timeoutMs);
    Json::Value reply;
    return client.init(context) == 0 && client.getPtp(reply) == 0;
}

RunningDaemon::RunningDaemon(int boardModel, std::vector<std::string> args) : m_root(boardModel) {
    m_process = std::make_unique<ChildProcess>(
        OSTPMC_BINARY, args, std::vector<std::string>{"OSTPMC_SYSROOT=" + m_root.path()},
        m_root.path());
    m_ready = m_process->waitForStderr("OSTPMC: Ready to receive commands", 10000);
}

RunningDaemon::~RunningDaemon() {
    if (m_process->running()) {
        stop();
    }
}

int RunningDaemon::stop(int signo) {
    m_process->signal(signo);
    return m_process->wait(10000) ? m_process->exitCode() : -1000;
}
