#include "OstPmcPublisher.h"

#include <cstdio>

#include "Check.h"
#include "IpcAddress.h"
#include "PublishJsonServer.h"

namespace {
const char* const FSM_TOPIC = "1000";
const char* const CONFIG_TOPIC = "1001";
constexpr int BIND_CHECK = 41;

int publishRecord(PublishJsonServer& server, const char* topicText,
                  const IJsonSerializable& record) {
    std::string topic = topicText;
    Json::Value body;
    record.Serialize(body);
    return server.publish(topic, body);
}
}  // namespace

OstPmcPublisher::OstPmcPublisher()
    : publishPort(IpcAddress::PUBLISH_PORT), publishAddress("127.0.0.1") {}

OstPmcPublisher::~OstPmcPublisher() = default;

int OstPmcPublisher::init(zmq::context_t& context) {
    publishServer = std::make_unique<PublishJsonServer>(context);
    char port[16];
    snprintf(port, sizeof(port), "%u", publishPort);
    const int rc = publishServer->bindToAddress("tcp://" + publishAddress + ":" + port);
    if (rc < 0) {
        return logCheck("int OstPmcPublisher::init(zmq::context_t&)", BIND_CHECK, rc);
    }
    return 0;
}

int OstPmcPublisher::notifyFsmStateChange(PtpNotificationInfo& notification) {
    return publishRecord(*publishServer, FSM_TOPIC, notification);
}

int OstPmcPublisher::notifyPtpConfigChange(OstPmcPtpCfg& cfg) {
    return publishRecord(*publishServer, CONFIG_TOPIC, cfg);
}
