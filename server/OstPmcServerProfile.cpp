// OstPmcServer: the profile files, the domain read from them, and the reconciliation of the
// running ptp4l with the configuration.
#include "Check.h"
#include "FileMgr.h"
#include "Logger.h"
#include "OstPmcServer.h"
#include "ProfileFiles.h"

namespace {
const char* const EXTRACT_FUNCTION =
    "int OstPmcServer::extractPtpDomainFromProfileCfgFile(const OstPmcPtpCfg&, uint8_t&)";
const char* const CHECK_FUNCTION = "int OstPmcServer::checkRunningLocalProfile()";
const char* const NOT_APPLIED = "OSTPMC:: PTP profile has not yet been fully applied";
}  // namespace

int OstPmcServer::getPtpDefaultConfigFile(const PtpProfile& profile, std::string& path) {
    return ProfileFiles::defaultFile(profile, path);
}

int OstPmcServer::extractPtpDomainFromProfileCfgFile(const OstPmcPtpCfg& cfg, uint8_t& domain) {
    dropKeptReplies();
    std::string path;
    if (cfg.m_cfg_path.empty()) {
        const int rc = ProfileFiles::defaultFile(cfg.profile, path);
        if (rc < 0) {
            return logCheck(EXTRACT_FUNCTION, 644, rc);
        }
    } else {
        path = cfg.m_cfg_path + cfg.m_reserved_text;
    }
    std::string content;
    const int rc = loadFileContent(path, content);
    if (rc < 0) {
        return logCheck(EXTRACT_FUNCTION, 646, rc);
    }
    ProfileFiles::readDomainNumber(content, domain, m_ptp_cfg.domainNumber);
    return 0;
}

int OstPmcServer::checkRunningLocalProfile() {
    int changes = 0;
    int rc;
    const uint8_t notSet = OstPmcPtpCfg::NOT_SET_U8;
    if (m_ptp_cfg.domainNumber != notSet &&
        m_ptp_common_info.domainNumber != m_ptp_cfg.domainNumber) {
        if ((rc = setPtpDomain(m_ptp_cfg.domainNumber)) < 0) {
            return logCheck(CHECK_FUNCTION, 380, rc);
        }
        changes = 1;
    }
    if (m_ptp_cfg.priority1 != notSet && m_ptp_common_info.local.priority1 != m_ptp_cfg.priority1) {
        if ((rc = setPtpPriority1(m_ptp_cfg.priority1)) < 0) {
            return logCheck(CHECK_FUNCTION, 385, rc);
        }
        changes = 1;
    }
    if (m_ptp_cfg.priority2 != notSet && m_ptp_common_info.local.priority2 != m_ptp_cfg.priority2) {
        if ((rc = setPtpPriority2(m_ptp_cfg.priority2)) < 0) {
            return logCheck(CHECK_FUNCTION, 390, rc);
        }
        changes = 1;
    }
    // Unlike the clock-wide values, a port value of 127 (not set) that differs from the running
    // one is sent as it is.
    for (const PtpBasePortInfo& running : m_ptp_common_info.port) {
        // By index: the setters update the entries of this very list.
        for (size_t i = 0; i < m_ptp_cfg.ports.size(); ++i) {
            const OstPmcPtpPortCfg wanted = m_ptp_cfg.ports[i];
            if (wanted.port != running.portId) {
                continue;
            }
            if (running.syncInterval != wanted.syncInterval) {
                if ((rc = setPtpSyncInterval(wanted.port, wanted.syncInterval)) < 0) {
                    return logCheck(CHECK_FUNCTION, 402, rc);
                }
                ++changes;
            }
            if (running.announceInterval != wanted.announceInterval) {
                if ((rc = setPtpAnnounceInterval(wanted.port, wanted.announceInterval)) < 0) {
                    return logCheck(CHECK_FUNCTION, 407, rc);
                }
                ++changes;
            }
            if (running.announceReceiptTimeout != wanted.announceReceiptTimeout) {
                if ((rc = setPtpAnnounceTimeout(wanted.port, wanted.announceReceiptTimeout)) < 0) {
                    return logCheck(CHECK_FUNCTION, 412, rc);
                }
                ++changes;
            }
        }
    }
    if (changes != 0) {
        Logger::log(Logger::ERR, "%s", NOT_APPLIED);
    }
    ++m_profile_check_count;
    return 0;
}
