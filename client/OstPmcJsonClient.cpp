#include "OstPmcJsonClient.h"

#include "Check.h"
#include "OstPmcCommands.h"

namespace {
const char* const INIT_FUNCTION = "int OstPmcJsonClient::init(zmq::context_t&)";
}

int OstPmcJsonClient::init(zmq::context_t& context, std::string& host) {
    m_ipc_address.host = host;
    int rc = ClientJsonApi::init(context);
    if (rc < 0) {
        return logCheck(INIT_FUNCTION, __LINE__, rc);
    }
    return 0;
}

int OstPmcJsonClient::init(zmq::context_t& context) {
    int rc = ClientJsonApi::init(context);
    if (rc < 0) {
        return logCheck(INIT_FUNCTION, __LINE__, rc);
    }
    return 0;
}

std::string OstPmcJsonClient::getIpcConnectAddress() {
    return m_ipc_address.getBindAddress();
}

int OstPmcJsonClient::getCommandDescription(unsigned int code, std::string& out) {
    return OstPmcCommands::describe(code, out);
}

int OstPmcJsonClient::request(IpcMsg& msg, Json::Value& reply, const char* function, int check) {
    int rc = sendMessage(msg, reply);
    if (rc < 0) {
        return logCheck(function, check, rc);
    }
    return 0;
}

int OstPmcJsonClient::getPtp(Json::Value& reply) {
    IpcMsg msg(OSTPMC_GET_PTP_INFO);
    return request(msg, reply, "int OstPmcJsonClient::getPtp(Json::Value&)", __LINE__);
}

int OstPmcJsonClient::setPtpParameter(Json::Value& params, Json::Value& reply) {
    IpcMsg msg(OSTPMC_SET_PTP_PARAMETER, params);
    return request(msg, reply, "int OstPmcJsonClient::setPtpParameter(Json::Value&, Json::Value&)",
                   __LINE__);
}

int OstPmcJsonClient::getPtpRunningConfig(Json::Value& reply) {
    IpcMsg msg(OSTPMC_GET_RUNNING_CFG);
    return request(msg, reply, "int OstPmcJsonClient::getPtpRunningConfig(Json::Value&)", __LINE__);
}

int OstPmcJsonClient::setPtpRunningConfig(Json::Value& cfg, Json::Value& reply) {
    IpcMsg msg(OSTPMC_SET_RUNNING_CFG, cfg);
    return request(msg, reply,
                   "int OstPmcJsonClient::setPtpRunningConfig(Json::Value&, Json::Value&)",
                   __LINE__);
}

int OstPmcJsonClient::getPtpStats(Json::Value& reply) {
    IpcMsg msg(OSTPMC_GET_PTP_STATS);
    return request(msg, reply, "int OstPmcJsonClient::getPtpStats(Json::Value&)", __LINE__);
}

int OstPmcJsonClient::getInternalDebugInfo(Json::Value& reply) {
    IpcMsg msg(OSTPMC_GET_INTERNAL_DEBUG_INFO);
    return request(msg, reply, "int OstPmcJsonClient::getInternalDebugInfo(Json::Value&)",
                   __LINE__);
}
