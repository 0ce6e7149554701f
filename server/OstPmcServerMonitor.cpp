// OstPmcServer: the once-a-second status cycle. Each timer tick reads ptp4l's data sets into
// the status records, reconciles the configuration, fetches statistics where the board has
// them and feeds the state machine.
#include "BoardPorts.h"
#include "Check.h"
#include "ClockIdentityText.h"
#include "Logger.h"
#include "OstPmcServer.h"
#include "StaleReplies.h"
#include "SystemDefaultCfg.h"
#include "ptp4lMng.h"

namespace {

const char* const REFRESH_FUNCTION = "int OstPmcServer::refreshPtpStatus()";
const char* const PORT_FUNCTION = "int OstPmcServer::getPtpPortInfo(PtpBasePortInfo&, int)";
const char* const STATS_FUNCTION = "int OstPmcServer::refreshPtpStats(bool)";
const char* const MONITOR_FUNCTION = "int OstPmcServer::monitorPTPStatus()";

constexpr uint8_t SLAVE_ONLY_FLAG = 0x02;
constexpr int LAST_CHECKED_RUN = 59;  // the reconciliation runs at most 60 times
constexpr int STATS_EVERY_TICKS = 4;

enum PortState : uint8_t {
    PRE_MASTER = 5,
    MASTER = 6,
    PASSIVE = 7,
    SLAVE = 9,
    GRAND_MASTER = 10,
};

// A slave role wins over a master role; any other state leaves the summary as it is.
PtpSummaryState summarise(const std::vector<PtpBasePortInfo>& ports) {
    PtpSummaryState summary = PTP_SUMMARY_UNDEFINED;
    for (const PtpBasePortInfo& port : ports) {
        switch (port.roleStatusId) {
            case PASSIVE:
            case SLAVE:
                summary = PTP_SUMMARY_SLAVE;
                break;
            case PRE_MASTER:
            case MASTER:
            case GRAND_MASTER:
                if (summary == PTP_SUMMARY_UNDEFINED) {
                    summary = PTP_SUMMARY_MASTER;
                }
                break;
            default:
                break;
        }
    }
    return summary;
}

bool boardCollectsStats(const BoardModel& board) {
    return board.getValue() == KESTREL || board.getValue() == HERON;
}

}  // namespace

int OstPmcServer::getPtpPortInfo(PtpBasePortInfo& info, int portNumber) {
    portDS ds;
    int rc = m_ptp4l_mng->get_port_data_set(&ds, static_cast<unsigned short>(portNumber));
    if (rc < 0) {
        return logCheck(PORT_FUNCTION, __LINE__, rc);
    }
    info.roleStatusId = ds.portState;
    info.syncInterval = ds.logSyncInterval;
    info.announceInterval = ds.logAnnounceInterval;
    info.announceReceiptTimeout = static_cast<int8_t>(ds.announceReceiptTimeout);
    info.logMinPdelayReqInterval = ds.logMinPdelayReqInterval;
    info.logMinDelayReqInterval = ds.logMinDelayReqInterval;
    info.portId = ds.portIdentity.portNumber;
    info.peerMeanPathDelay = ds.peerMeanPathDelay;
    if ((rc = ptp4lMng::getPortRoleString(ds.portState, &info.roleStatus)) < 0) {
        return logCheck(PORT_FUNCTION, __LINE__, rc);
    }
    if ((rc = ptp4lMng::getDelayMechanismString(ds.delayMechanism, &info.delayMechanism)) < 0) {
        return logCheck(PORT_FUNCTION, __LINE__, rc);
    }
    info.id = clockIdentityText(ds.portIdentity.clockIdentity);
    return 0;
}

int OstPmcServer::refreshPtpStatus() {
    dropKeptReplies();
    PtpCommonInfo& status = m_ptp_common_info;
    defaultDS ds;
    int rc = m_ptp4l_mng->get_default_ds(ds);
    if (rc < 0) {
        return logCheck(REFRESH_FUNCTION, __LINE__, rc);
    }
    status.local.priority1 = ds.priority1;
    status.local.priority2 = ds.priority2;
    status.local.clockClass = ds.clockQuality.clockClass;
    status.local.clockAccuracy = ds.clockQuality.clockAccuracy;
    status.local.scaledLogVariance = ds.clockQuality.offsetScaledLogVariance;
    status.domainNumber = ds.domainNumber;
    status.slaveOnly = (ds.flags & SLAVE_ONLY_FLAG) != 0;
    status.local.id = clockIdentityText(ds.clockIdentity);

    // Rebuilt from nothing: a port that ptp4l no longer reports leaves the status.
    status.port.clear();
    const SystemDefaultCfg& defaults = *SystemDefaultCfg::getInstance();
    const size_t ports =
        1 + furtherPtpInterfaces(defaults.getBoardModel().getValue(), defaults.isRedundancyEnable())
                .size();
    for (size_t number = 1; number <= ports; ++number) {
        PtpBasePortInfo port;
        if ((rc = getPtpPortInfo(port, static_cast<int>(number))) < 0) {
            return logCheck(REFRESH_FUNCTION, __LINE__, rc);
        }
        status.port.push_back(port);
    }

    unsigned char gmIdentity[8];
    rc = m_ptp4l_mng->get_parent_ds(&status.grandMaster.priority1, &status.grandMaster.priority2,
                                    &status.grandMaster.clockClass,
                                    &status.grandMaster.clockAccuracy,
                                    &status.grandMaster.scaledLogVariance, gmIdentity);
    if (rc < 0) {
        return logCheck(REFRESH_FUNCTION, __LINE__, rc);
    }
    status.grandMaster.id = clockIdentityText(gmIdentity);
    rc = m_ptp4l_mng->get_current_ds(&status.stepsRemoved, &status.offsetFromMaster,
                                     &status.meanPathDelay);
    if (rc < 0) {
        return logCheck(REFRESH_FUNCTION, __LINE__, rc);
    }
    status.profile = m_ptp_cfg.profile;
    if (m_profile_check_count <= LAST_CHECKED_RUN) {
        checkRunningLocalProfile();
    }
    return 0;
}

int OstPmcServer::refreshPtpStats(bool fetch) {
    dropKeptReplies();
    if (fetch) {
        statsResultsDS ds;
        const int rc = m_ptp4l_mng->get_stats_results_ds(ds);
        if (rc < 0) {
            return logCheck(STATS_FUNCTION, __LINE__, rc);
        }
        m_ptp_stats.masterOffsetRMS = PtpStats::toStatValue(ds.masterOffsetRMS);
        m_ptp_stats.masterOffsetMaxAbs = PtpStats::toStatValue(ds.masterOffsetMaxAbs);
        m_ptp_stats.freqDeviationMean = PtpStats::toStatValue(ds.freqDeviationMean);
        m_ptp_stats.freqDeviationStdDev = PtpStats::toStatValue(ds.freqDeviationStdDev);
        m_ptp_stats.pathDelayMean = PtpStats::toStatValue(ds.pathDelayMean);
        m_ptp_stats.pathDelayStdDev = PtpStats::toStatValue(ds.pathDelayStdDev);
    }
    m_ptp_stats.offsetFromMaster = m_ptp_common_info.offsetFromMaster;
    m_ptp_stats.offsetScaledLogVariance = m_ptp_common_info.offsetScaledLogVariance;
    return 0;
}

int OstPmcServer::monitorPTPStatus() {
    dropKeptReplies();
    // Replies are not matched to requests: one that came after its request timed out would
    // answer this cycle's first request, and every later one would be a reply behind.
    discardQueuedReplies(*m_ptp4l_mng);
    int rc = refreshPtpStatus();
    if (rc < 0) {
        logCheck(MONITOR_FUNCTION, __LINE__, rc);
        if (m_monitor_health.cycleFailed()) {
            reportSilentPtp4l();
        }
        return rc;
    }
    m_monitor_health.cycleSucceeded();

    if (boardCollectsStats(SystemDefaultCfg::getInstance()->getBoardModel())) {
        if (++m_stats_tick_count >= STATS_EVERY_TICKS) {
            if ((rc = refreshPtpStats(true)) < 0) {
                return logCheck(MONITOR_FUNCTION, __LINE__, rc);
            }
            m_stats_tick_count = 0;
        } else {
            refreshPtpStats(false);
        }
    }

    PtpStatusFsmInputInfo input;
    input.gmid = m_ptp_common_info.grandMaster.id;
    input.domain = m_ptp_common_info.domainNumber;
    input.summaryState = summarise(m_ptp_common_info.port);
    input.offsetFromMaster = m_ptp_common_info.offsetFromMaster;
    input.commonInfo = m_ptp_common_info;
    if ((rc = m_ptp_status_fsm.update(input)) < 0) {
        return logCheck(MONITOR_FUNCTION, __LINE__, rc);
    }
    return rc;
}

void OstPmcServer::reportSilentPtp4l() {
    // Without this the state machine would keep its last state for good, and media would go on
    // playing on a clock that nobody disciplines.
    Logger::log(Logger::WRN,
                "OSTPMC:: ptp4l has not answered for %d status cycles: no usable PTP port",
                MonitorHealth::SILENT_CYCLES);
    PtpStatusFsmInputInfo input;
    input.gmid = m_ptp_common_info.grandMaster.id;
    input.domain = m_ptp_common_info.domainNumber;
    input.summaryState = PTP_SUMMARY_UNDEFINED;
    input.offsetFromMaster = m_ptp_common_info.offsetFromMaster;
    input.commonInfo = m_ptp_common_info;
    input.commonInfo.port.clear();
    const int rc = m_ptp_status_fsm.update(input);
    if (rc < 0) {
        logCheck(MONITOR_FUNCTION, __LINE__, rc);
    }
}

void OstPmcServer::serializeMonitor(Json::Value& out) const {
    m_monitor_health.Serialize(out, m_ptp4l_started);
    out["ptp-state"] = PtpFsmStates::toText(m_ptp_status_fsm.getState());
}
