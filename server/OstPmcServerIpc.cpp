// Request dispatch: answers come from the records as last refreshed; no request queries ptp4l.
#include "IpcResult.h"
#include "Logger.h"
#include "OstPmcCommands.h"
#include "OstPmcServer.h"
#include "SystemDefaultCfg.h"

int OstPmcServer::ipcProcessMsg(IpcMsg& msg, Json::Value& reply, bool& /*replyFlag*/) {
    const unsigned int code = msg.getMsgCode();
    if (code >= OSTPMC_MSG_COUNT) {
        Logger::log(Logger::ERR, "OSTPMC:: Unrecognized command %d", static_cast<int>(code));
        return IpcResult::ERROR_INVALID_PARAM;
    }
    switch (static_cast<ostpmc_msg_t>(code)) {
        case OSTPMC_GET_PTP_INFO:
            Logger::log(Logger::VERBOSE, "Response to show ptp...");
            m_ptp_common_info.Serialize(reply);
            return 0;
        case OSTPMC_GET_RUNNING_CFG:
            m_ptp_cfg.Serialize(reply["ptp"]);
            return 0;
        case OSTPMC_SET_PTP_PARAMETER:
            return setPtpParameter(msg.getJsonData());
        case OSTPMC_SET_RUNNING_CFG:
            return setPtpRunningCfg(msg.getJsonData());
        case OSTPMC_GET_PTP_STATS:
            if (!boardHasStats()) {
                return IpcResult::ERROR_NOT_AVAILABLE;
            }
            m_ptp_stats.Serialize(reply["ptp-stats"]);
            return 0;
        case OSTPMC_GET_INTERNAL_DEBUG_INFO: {
            Json::Value& status = reply["status"];
            Logger::log(Logger::VERBOSE, "Response to show ptp...");
            m_ptp_common_info.Serialize(status);
            m_ptp_cfg.Serialize(reply["running-cfg"]);
            serializeMonitor(reply["monitor"]);
            return 0;
        }
        default:
            break;
    }
    return IpcResult::ERROR_INVALID_PARAM;
}

bool OstPmcServer::isReplyKept(unsigned int code) {
    switch (code) {
        case OSTPMC_GET_PTP_INFO:
        case OSTPMC_GET_RUNNING_CFG:
            return true;
        case OSTPMC_GET_PTP_STATS:
            // The board model may change with the system defaults at any time: asked anew.
            return boardHasStats();
        default:
            // The debug info tells the time since the last good cycle.
            return false;
    }
}

int OstPmcServer::getCommandDescription(unsigned int code, std::string& out) {
    return OstPmcCommands::describe(code, out);
}

bool OstPmcServer::boardHasStats() {
    BoardModelType model = SystemDefaultCfg::getInstance()->getBoardModel().getType();
    return model == KESTREL || model == HERON;
}

int OstPmcServer::getPtpInfo(Json::Value& out) {
    Logger::log(Logger::VERBOSE, "Response to show ptp...");
    m_ptp_common_info.Serialize(out);
    return 0;
}

int OstPmcServer::getPtpRunningCfg(Json::Value& out) {
    m_ptp_cfg.Serialize(out);
    return 0;
}

int OstPmcServer::getInternalDebugInfo(Json::Value& out) {
    Logger::log(Logger::VERBOSE, "Response to show ptp...");
    m_ptp_common_info.Serialize(out["status"]);
    m_ptp_cfg.Serialize(out["running-cfg"]);
    serializeMonitor(out["monitor"]);
    return 0;
}

int OstPmcServer::getPtpStats(Json::Value& out) {
    if (!boardHasStats()) {
        return IpcResult::ERROR_NOT_AVAILABLE;
    }
    m_ptp_stats.Serialize(out["ptp-stats"]);
    return 0;
}
