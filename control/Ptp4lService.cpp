#include "Ptp4lService.h"

#include <cstdlib>

#include "Logger.h"
#include "ProfileFiles.h"
#include "ShellWord.h"
#include "SysRoot.h"

namespace {
const char* const INIT_SCRIPT = "/etc/S60ptp4ld";
const char* const START_FUNCTION = "int OstPmcServer::startPtp4l(const OstPmcPtpCfg&)";
const char* const STOP_FUNCTION = "virtual OstPmcServer::~OstPmcServer()";
}  // namespace

Ptp4lService::Ptp4lService(Shell shell) : m_shell(std::move(shell)) {}

int Ptp4lService::runWithSystem(const std::string& command) {
    return system(command.c_str());
}

std::string Ptp4lService::installCommand(const std::string& source) const {
    // A name starting with "-" would be read by cp as an option.
    const std::string file = !source.empty() && source[0] == '-' ? "./" + source : source;
    return "cp " + shellWord(file) + " " + shellWord(ProfileFiles::activeFile());
}

std::string Ptp4lService::scriptCommand(const BoardModel& board, const char* action) const {
    const std::string script =
        board.getType() == EGRET ? std::string() : shellWord(SysRoot::path(INIT_SCRIPT));
    return script + " " + action;
}

void Ptp4lService::installProfileFile(const std::string& source) const {
    const std::string command = installCommand(source);
    Logger::log(Logger::NTF, "OSTPMC Initializing ptp4l ... %s", command.c_str());
    if (m_shell(command) != 0) {
        Logger::log(Logger::ERR, "%s: system call failed: initializing ptp4l", START_FUNCTION);
    }
}

void Ptp4lService::restart(bool slaveOnly, const BoardModel& board) const {
    if (slaveOnly) {
        Logger::log(Logger::NTF, "PTP SLAVE_ONLY MODE");
        if (scriptFailed(m_shell(scriptCommand(board, "restartslave")))) {
            Logger::log(Logger::ERR, "%s: system call failed: restartslave", START_FUNCTION);
        }
    } else {
        Logger::log(Logger::NTF, "PTP NORMAL MODE");
        if (scriptFailed(m_shell(scriptCommand(board, "restart")))) {
            Logger::log(Logger::ERR, "%s: system call failed: restart", START_FUNCTION);
        }
    }
}

void Ptp4lService::stop(const BoardModel& board) const {
    if (board.getType() == EGRET) {
        return;
    }
    Logger::log(Logger::NTF, "OSTPMC:: Stopping ptp4l");
    if (scriptFailed(m_shell(scriptCommand(board, "stop")))) {
        Logger::log(Logger::ERR, "%s: system call failed", STOP_FUNCTION);
    }
}
