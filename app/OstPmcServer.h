#pragma once

#include <json/json.h>

#include <string>
#include <zmq.hpp>

#include "FileMgr.h"
#include "IpcAddress.h"
#include "OstPmcPtpCfg.h"
#include "PollFds.h"
#include "ProcessBasics.h"
#include "PtpCommonInfo.h"
#include "PtpStats.h"
#include "ServerJsonApi.h"

class ptp4lMng;

// The daemon's one central object: request socket, ptp4l management client, running
// configuration and the latest status, all served from a single poll loop.
class OstPmcServer : ServerJsonApi, FileMgr {
  public:
    OstPmcServer();
    ~OstPmcServer() override;
    OstPmcServer(const OstPmcServer&) = delete;
    OstPmcServer& operator=(const OstPmcServer&) = delete;

    // Binds the request socket and builds the poll list; does not start ptp4l.
    int init();
    // Serves until a terminating signal; returns 0.
    int mainLoop();

    int getCommandDescription(unsigned int code, std::string& out) override;
    int ipcProcessMsg(IpcMsg& msg, Json::Value& reply, bool& replyFlag) override;

    int getPtpInfo(Json::Value& out);
    int getPtpRunningCfg(Json::Value& out);
    int getInternalDebugInfo(Json::Value& out);
    int getPtpStats(Json::Value& out);

  private:
    // Statistics are collected on these board models only.
    static bool boardHasStats();

    PollFds m_poll_fds;
    ProcessBasics m_process_basics;
    zmq::socket_t* m_ipc_socket = nullptr;
    ptp4lMng* m_ptp4l_mng = nullptr;
    OstPmcPtpCfg m_ptp_cfg;
    PtpCommonInfo m_ptp_common_info;
    IpcAddress m_ipc_address;
    PtpStats m_ptp_stats;
};
