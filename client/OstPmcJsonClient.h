#pragma once

#include <json/json.h>

#include <string>
#include <zmq.hpp>

#include "ClientJsonApi.h"
#include "IpcAddress.h"

// Typed access to the daemon's requests for the device's other processes.
// Every method returns 0 on success or the negative code of the failure (the daemon's result,
// or the framework's code when no reply came), logged once.
class OstPmcJsonClient : public ClientJsonApi {
  public:
    OstPmcJsonClient() = default;
    ~OstPmcJsonClient() override = default;

    int init(zmq::context_t& context, std::string& host);
    int init(zmq::context_t& context);

    std::string getIpcConnectAddress() override;
    int getCommandDescription(unsigned int code, std::string& out) override;

    int getPtp(Json::Value& reply);
    int setPtpParameter(Json::Value& params, Json::Value& reply);
    int getPtpRunningConfig(Json::Value& reply);
    int setPtpRunningConfig(Json::Value& cfg, Json::Value& reply);
    int getPtpStats(Json::Value& reply);
    int getInternalDebugInfo(Json::Value& reply);

  private:
    // The CHK line of a failure names the calling method and its own check number.
    int request(IpcMsg& msg, Json::Value& reply, const char* function, int check);

    IpcAddress m_ipc_address;
};
