#pragma once

#include <json/json.h>

#include <string>
#include <zmq.hpp>

#include "FileMgr.h"
#include "IpcAddress.h"
#include "MonitorHealth.h"
#include "OstPmcPtpCfg.h"
#include "OstPmcPublisher.h"
#include "PollFds.h"
#include "ProcessBasics.h"
#include "Ptp4lService.h"
#include "PtpCommonInfo.h"
#include "PtpStats.h"
#include "PtpStatusFsm.h"
#include "ServerJsonApi.h"
#include "Timer.h"

class ptp4lMng;

// The daemon's one central object: request socket, ptp4l management client, running
// configuration and the latest status, all served from a single poll loop.
class OstPmcServer : ServerJsonApi, FileMgr {
  public:
    OstPmcServer();
    ~OstPmcServer() override;
    OstPmcServer(const OstPmcServer&) = delete;
    OstPmcServer& operator=(const OstPmcServer&) = delete;

    // Binds the publisher and the request socket and builds the poll list; does not start
    // ptp4l.
    int init();
    // Serves until a terminating signal; returns 0.
    int mainLoop();

    int getCommandDescription(unsigned int code, std::string& out) override;
    int ipcProcessMsg(IpcMsg& msg, Json::Value& reply, bool& replyFlag) override;
    // One request text answered as the request socket would answer it (fuzzing, tests).
    using ServerJsonApi::answerRequest;

    int getPtpInfo(Json::Value& out);
    int getPtpRunningCfg(Json::Value& out);
    int getInternalDebugInfo(Json::Value& out);
    int getPtpStats(Json::Value& out);

    // ptp4l control (OstPmcServerControl, -Profile, -Setters): profile files, (re)starts,
    // configuration changes. Each returns 0 or the negative code of the first failure.
    int getPtpDefaultConfigFile(const PtpProfile& profile, std::string& path);
    int extractPtpDomainFromProfileCfgFile(const OstPmcPtpCfg& cfg, uint8_t& domain);
    // Pushes configured values that the running ptp4l does not show yet.
    int checkRunningLocalProfile();
    int startPtp4l(const OstPmcPtpCfg& cfg);
    int setAvbMode(const PtpProfile& profile);
    int setPtpSlaveOnly(bool slaveOnly);
    // Applies a whole configuration, restarting ptp4l; cfg may be the server's own.
    int setPtpConfig(OstPmcPtpCfg& cfg);
    int setPtpParameter(Json::Value& request);
    int setPtpRunningCfg(Json::Value& request);
    int setPtpDomain(uint8_t domain);
    int setPtpPriority1(uint8_t value);
    int setPtpPriority2(uint8_t value);
    int setPtpAnnounceInterval(int port, int8_t value);
    int setPtpAnnounceTimeout(int port, int8_t value);
    int setPtpSyncInterval(int port, int8_t value);

    // Status monitoring (OstPmcServerMonitor): one status cycle per timer tick.
    int refreshPtpStatus();
    int getPtpPortInfo(PtpBasePortInfo& info, int portNumber);
    int refreshPtpStats(bool fetch);
    // The cycle: 0, the state machine's result, or the negative code of a failed step.
    int monitorPTPStatus();

  private:
    friend class OstPmcServerProbe;  // drives the server in-process in the tests

    // Statistics are collected on these board models only.
    static bool boardHasStats();
    // The configured entry of a port, appended when there is none.
    OstPmcPtpPortCfg& portCfg(int port);
    // Tells the state machine that no port is usable once ptp4l has stopped answering.
    void reportSilentPtp4l();
    // The health of the status cycle and the state machine's state, for operators.
    void serializeMonitor(Json::Value& out) const;
    // The status, the running configuration and the statistics are kept as reply texts; every
    // member that changes one of them calls dropKeptReplies() (the main loop for each event
    // that is not a request, ServerJsonApi after each request that is not kept).
    bool isReplyKept(unsigned int code) override;

    PollFds m_poll_fds;
    ProcessBasics m_process_basics;
    zmq::socket_t* m_ipc_socket = nullptr;
    ptp4lMng* m_ptp4l_mng = nullptr;
    OstPmcPublisher m_publisher;
    PtpStatusFsm m_ptp_status_fsm{m_publisher};
    Timer m_timer;
    OstPmcPtpCfg m_ptp_cfg;
    PtpCommonInfo m_ptp_common_info;
    bool m_ptp4l_started = false;
    // Reconciliation runs since the start or the last parameter request; they stop at 60.
    int32_t m_profile_check_count = 0;
    IpcAddress m_ipc_address;
    PtpStats m_ptp_stats;
    int32_t m_stats_tick_count = 0;
    Ptp4lService m_ptp4l_service;
    MonitorHealth m_monitor_health;
};
