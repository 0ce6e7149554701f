// OstPmcServer: the six single-parameter setters. Each sends its SET to the running ptp4l and,
// when ptp4l took it, keeps the value in the server's configuration.
#include "Check.h"
#include "OstPmcServer.h"
#include "ptp4lMng.h"

int OstPmcServer::setPtpDomain(uint8_t domain) {
    dropKeptReplies();
    const int rc = m_ptp4l_mng->set_domain(domain);
    if (rc < 0) {
        return logCheck("int OstPmcServer::setPtpDomain(uint8_t)", 114, rc);
    }
    m_ptp_cfg.domainNumber = domain;
    return 0;
}

int OstPmcServer::setPtpPriority1(uint8_t value) {
    dropKeptReplies();
    const int rc = m_ptp4l_mng->set_priority1(value);
    if (rc < 0) {
        return logCheck("int OstPmcServer::setPtpPriority1(uint8_t)", 122, rc);
    }
    m_ptp_cfg.priority1 = value;
    return 0;
}

int OstPmcServer::setPtpPriority2(uint8_t value) {
    dropKeptReplies();
    const int rc = m_ptp4l_mng->set_priority2(value);
    if (rc < 0) {
        return logCheck("int OstPmcServer::setPtpPriority2(uint8_t)", 130, rc);
    }
    m_ptp_cfg.priority2 = value;
    return 0;
}

int OstPmcServer::setPtpAnnounceInterval(int port, int8_t value) {
    const int rc = m_ptp4l_mng->set_announce_interval(port, static_cast<uint8_t>(value));
    if (rc < 0) {
        return logCheck("int OstPmcServer::setPtpAnnounceInterval(int, int8_t)", 149, rc);
    }
    portCfg(port).announceInterval = value;
    return 0;
}

int OstPmcServer::setPtpAnnounceTimeout(int port, int8_t value) {
    const int rc = m_ptp4l_mng->set_announce_receipt_timeout(port, static_cast<uint8_t>(value));
    if (rc < 0) {
        return logCheck("int OstPmcServer::setPtpAnnounceTimeout(int, int8_t)", 169, rc);
    }
    portCfg(port).announceReceiptTimeout = value;
    return 0;
}

int OstPmcServer::setPtpSyncInterval(int port, int8_t value) {
    const int rc = m_ptp4l_mng->set_sync_interval(port, static_cast<uint8_t>(value));
    if (rc < 0) {
        return logCheck("int OstPmcServer::setPtpSyncInterval(int, int8_t)", 189, rc);
    }
    portCfg(port).syncInterval = value;
    return 0;
}

OstPmcPtpPortCfg& OstPmcServer::portCfg(int port) {
    dropKeptReplies();
    const auto number = static_cast<int8_t>(port);
    for (OstPmcPtpPortCfg& entry : m_ptp_cfg.ports) {
        if (entry.port == number) {
            return entry;
        }
    }
    OstPmcPtpPortCfg entry;
    entry.port = number;
    m_ptp_cfg.ports.push_back(entry);
    return m_ptp_cfg.ports.back();
}
