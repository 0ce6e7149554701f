// OstPmcServer: starting ptp4l, AVB mode, and applying configuration changes from requests.
#include <unistd.h>

#include "Check.h"
#include "IpcResult.h"
#include "Logger.h"
#include "OstPmcServer.h"
#include "PhcClockDriver.h"
#include "ProfileFiles.h"
#include "StaleReplies.h"
#include "SystemDefaultCfg.h"
#include "ptp4lMng.h"

namespace {

const char* const START_FUNCTION = "int OstPmcServer::startPtp4l(const OstPmcPtpCfg&)";
const char* const CONFIG_FUNCTION = "int OstPmcServer::setPtpConfig(OstPmcPtpCfg&)";
const char* const PARAMETER_FUNCTION = "int OstPmcServer::setPtpParameter(Json::Value&)";
const char* const RUNNING_CFG_FUNCTION = "int OstPmcServer::setPtpRunningCfg(Json::Value&)";
const char* const SLAVE_ONLY_FUNCTION = "int OstPmcServer::setPtpSlaveOnly(bool)";

constexpr uint8_t SLAVE_ONLY_FLAG = 0x02;  // in the default data set's flags

BoardModel boardModel() {
    return SystemDefaultCfg::getInstance()->getBoardModel();
}

// A key counts as given unless it is missing or null (or an empty array or object).
bool given(const Json::Value& request, const char* key) {
    return !request.get(key, Json::Value::null).empty();
}

}  // namespace

int OstPmcServer::startPtp4l(const OstPmcPtpCfg& cfg) {
    const BoardModel board = boardModel();
    Logger::log(Logger::INF, "ostPmc view of board model: %s", board.getName().c_str());
    Logger::log(Logger::INF, "ptpCfg.m_cfg_path: %s", cfg.m_cfg_path.c_str());

    std::string source = cfg.m_cfg_path;
    if (source.empty()) {
        const int rc = ProfileFiles::defaultFile(cfg.profile, source);
        if (rc < 0) {
            return logCheck(START_FUNCTION, 711, rc);
        }
    } else if (!ProfileFiles::isInstallable(source)) {
        // A request named it: nothing is run for a file that cp could not copy in one go.
        Logger::log(Logger::ERR, "OSTPMC:: %s is not a readable regular file", source.c_str());
        return logCheck(START_FUNCTION, 709, IpcResult::ERROR_INVALID_PARAM);
    }
    m_ptp4l_service.installProfileFile(source);
    m_ptp4l_service.restart(cfg.slaveOnly == 1, board);
    m_ptp4l_started = true;

    const int rc = m_timer.initTimer(m_poll_fds, 1);
    if (rc < 0) {
        return logCheck(START_FUNCTION, 743, rc);
    }
    return 0;
}

int OstPmcServer::setAvbMode(const PtpProfile& profile) {
    if (boardModel().getType() == EGRET) {
        return 0;
    }
    return PhcClockDriver::setAvbMode(profile.isEqual(PtpProfile::PROFILE_GPTP_L2));
}

int OstPmcServer::setPtpSlaveOnly(bool slaveOnly) {
    dropKeptReplies();
    if (m_ptp_cfg.slaveOnly == static_cast<int32_t>(slaveOnly)) {
        return 0;
    }
    Logger::log(Logger::INF,
                "OSTPMC:: changing slave-only mode. we need to restart ptp4l for this to take "
                "effect. new slave-only %d",
                slaveOnly);
    m_ptp_cfg.slaveOnly = slaveOnly;
    const int rc = setPtpConfig(m_ptp_cfg);
    if (rc < 0) {
        return logCheck(SLAVE_ONLY_FUNCTION, 141, rc);
    }
    return 0;
}

int OstPmcServer::setPtpConfig(OstPmcPtpCfg& cfg) {
    dropKeptReplies();
    int rc = startPtp4l(cfg);
    if (rc < 0) {
        return logCheck(CONFIG_FUNCTION, 506, rc);
    }
    // Whatever is queued now answered the ptp4l before the restart.
    discardQueuedReplies(*m_ptp4l_mng);

    const BoardModelType board = boardModel().getType();
    if (board == WREN || board == FINCH) {
        sleep(1);
    }
    uint8_t domain = 0;
    if ((rc = extractPtpDomainFromProfileCfgFile(cfg, domain)) < 0) {
        return logCheck(CONFIG_FUNCTION, 519, rc);
    }
    if ((rc = m_ptp4l_mng->setPtpIpcDomain(domain)) < 0) {
        return logCheck(CONFIG_FUNCTION, 520, rc);
    }
    if (setAvbMode(cfg.profile) < 0) {
        return logCheck(CONFIG_FUNCTION, 522, -1);
    }
    m_ptp_cfg.profile = cfg.profile;
    m_ptp_cfg.m_cfg_path = cfg.m_cfg_path;

    if (cfg.domainNumber != OstPmcPtpCfg::NOT_SET_U8 && (rc = setPtpDomain(cfg.domainNumber)) < 0) {
        return logCheck(CONFIG_FUNCTION, 530, rc);
    }
    if (cfg.priority1 != OstPmcPtpCfg::NOT_SET_U8 && (rc = setPtpPriority1(cfg.priority1)) < 0) {
        return logCheck(CONFIG_FUNCTION, 534, rc);
    }
    if (cfg.priority2 != OstPmcPtpCfg::NOT_SET_U8 && (rc = setPtpPriority2(cfg.priority2)) < 0) {
        return logCheck(CONFIG_FUNCTION, 538, rc);
    }
    if (cfg.slaveOnly == OstPmcPtpCfg::SLAVE_ONLY_NOT_SET) {
        defaultDS ds;
        if ((rc = m_ptp4l_mng->get_default_ds(ds)) < 0) {
            return logCheck(CONFIG_FUNCTION, 547, rc);
        }
        // 2, not 1, when on: only 1 restarts in slave-only mode.
        cfg.slaveOnly = ds.flags & SLAVE_ONLY_FLAG;
    }
    // By index: cfg may be the server's own configuration, which the setters update.
    for (size_t i = 0; i < cfg.ports.size(); ++i) {
        const OstPmcPtpPortCfg port = cfg.ports[i];
        if (port.syncInterval != OstPmcPtpPortCfg::NOT_SET &&
            (rc = setPtpSyncInterval(port.port, port.syncInterval)) < 0) {
            return logCheck(CONFIG_FUNCTION, 555, rc);
        }
        if (port.announceInterval != OstPmcPtpPortCfg::NOT_SET &&
            (rc = setPtpAnnounceInterval(port.port, port.announceInterval)) < 0) {
            return logCheck(CONFIG_FUNCTION, 559, rc);
        }
        if (port.announceReceiptTimeout != OstPmcPtpPortCfg::NOT_SET &&
            (rc = setPtpAnnounceTimeout(port.port, port.announceReceiptTimeout)) < 0) {
            return logCheck(CONFIG_FUNCTION, 563, rc);
        }
    }
    // What cfg leaves unset becomes unset here too, whatever the steps above stored.
    if (&cfg != &m_ptp_cfg) {
        m_ptp_cfg = cfg;
    }
    return 0;
}

int OstPmcServer::setPtpParameter(Json::Value& request) {
    dropKeptReplies();
    bool applied = false;
    int rc;
    if (given(request, "domain")) {
        if ((rc = setPtpDomain(static_cast<uint8_t>(request["domain"].asUInt()))) < 0) {
            return logCheck(PARAMETER_FUNCTION, 212, rc);
        }
        applied = true;
    }
    if (given(request, "priority1")) {
        if ((rc = setPtpPriority1(static_cast<uint8_t>(request["priority1"].asUInt()))) < 0) {
            return logCheck(PARAMETER_FUNCTION, 217, rc);
        }
        applied = true;
    }
    if (given(request, "priority2")) {
        if ((rc = setPtpPriority2(static_cast<uint8_t>(request["priority2"].asUInt()))) < 0) {
            return logCheck(PARAMETER_FUNCTION, 222, rc);
        }
        applied = true;
    }
    const int port = request.get("port", 1).asInt();
    if (given(request, "announceInterval")) {
        const auto value = static_cast<int8_t>(request["announceInterval"].asInt());
        if ((rc = setPtpAnnounceInterval(port, value)) < 0) {
            return logCheck(PARAMETER_FUNCTION, 228, rc);
        }
        applied = true;
    }
    if (given(request, "announceReceiptTimeout")) {
        const auto value = static_cast<int8_t>(request["announceReceiptTimeout"].asInt());
        if ((rc = setPtpAnnounceTimeout(port, value)) < 0) {
            return logCheck(PARAMETER_FUNCTION, 233, rc);
        }
        applied = true;
    }
    if (given(request, "syncInterval")) {
        const auto value = static_cast<int8_t>(request["syncInterval"].asInt());
        if ((rc = setPtpSyncInterval(port, value)) < 0) {
            return logCheck(PARAMETER_FUNCTION, 238, rc);
        }
        applied = true;
    }
    if (given(request, "slaveOnly")) {
        if ((rc = setPtpSlaveOnly(request["slaveOnly"].asBool())) < 0) {
            return logCheck(PARAMETER_FUNCTION, 243, rc);
        }
        if (!given(request, "profile")) {
            // Published whenever slave-only mode was named, changed or not.
            m_publisher.notifyPtpConfigChange(m_ptp_cfg);
            m_profile_check_count = 0;
            return 0;
        }
        applied = true;
    }
    if (given(request, "profile")) {
        PtpProfile wanted;
        wanted.Deserialize(request);
        if (wanted.getProfile() == m_ptp_cfg.profile.getProfile()) {
            Logger::log(Logger::INF,
                        "OSTPMC:: ignoring attempt to change ptp profile. This is already the "
                        "active profile. (%s)",
                        wanted.toString().c_str());
        } else {
            Logger::log(Logger::INF, "OSTPMC: Changing PTP profile: %s to %s",
                        m_ptp_cfg.profile.toString().c_str(), wanted.toString().c_str());
            // The new profile's own file decides domain, priorities and ports.
            OstPmcPtpCfg fresh;
            fresh.profile = wanted;
            fresh.slaveOnly = m_ptp_cfg.slaveOnly;
            if (setPtpConfig(fresh) < 0) {
                // Back to the default profile, not the previous one.
                m_ptp_cfg.profile = PtpProfile();
                Logger::log(Logger::ERR, "OSTPMC:: error changing PTP profile to %s",
                            wanted.toString().c_str());
                return IpcResult::ERROR_GENERIC;
            }
            applied = true;
        }
    }
    if (applied) {
        m_publisher.notifyPtpConfigChange(m_ptp_cfg);
    }
    // Grants the reconciliation its 60 runs again, even when nothing was applied.
    m_profile_check_count = 0;
    return 0;
}

int OstPmcServer::setPtpRunningCfg(Json::Value& request) {
    dropKeptReplies();
    OstPmcPtpCfg cfg;
    cfg.Deserialize(request);
    Logger::log(Logger::INF, "setPtpRunningCfg profile: %s", cfg.profile.toString().c_str());
    // The same profile on a started ptp4l: nothing is applied, even if other values differ.
    if (cfg.profile.getProfile() == m_ptp_cfg.profile.getProfile() && m_ptp4l_started) {
        return 0;
    }
    const int rc = setPtpConfig(cfg);
    if (rc < 0) {
        return logCheck(RUNNING_CFG_FUNCTION, 578, rc);
    }
    m_publisher.notifyPtpConfigChange(m_ptp_cfg);
    return 0;
}
