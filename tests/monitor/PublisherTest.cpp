// The publisher on its fixed endpoint, as the device's media services subscribe to it.
#include <gtest/gtest.h>

#include <zmq.hpp>

#include "Logger.h"
#include "OstPmcPublisher.h"
#include "PublishJsonServer.h"

namespace {

// One publication as a subscriber sees it: topic, then the body text.
std::pair<std::string, std::string> receive(zmq::socket_t& sub) {
    zmq::message_t topic, body;
    if (!sub.recv(topic) || !sub.recv(body)) {
        return {};
    }
    return {topic.to_string(), body.to_string()};
}

// Each test has a context of its own, so that a publisher's port is free again when its test
// ends.
TEST(Publisher, TopicsAndBodiesOnTheFixedPort) {
    zmq::context_t context;
    OstPmcPublisher publisher;
    ASSERT_EQ(0, publisher.init(context));

    zmq::socket_t sub(context, zmq::socket_type::sub);
    sub.set(zmq::sockopt::rcvtimeo, 2000);
    sub.set(zmq::sockopt::subscribe, "");
    sub.connect("tcp://127.0.0.1:5574");
    // A subscription takes a moment to reach the publisher; publish until one arrives.
    OstPmcPtpCfg cfg;
    cfg.priority1 = 100;
    sub.set(zmq::sockopt::rcvtimeo, 50);
    std::pair<std::string, std::string> got;
    for (int i = 0; i < 100 && got.first.empty(); ++i) {
        ASSERT_EQ(0, publisher.notifyPtpConfigChange(cfg));
        got = receive(sub);
    }
    EXPECT_EQ("1001", got.first);
    EXPECT_EQ(R"({"cfgFilePath":"","priority1":100,"profile":"AES67:Media","slaveOnly":-1})",
              got.second);
    while (!receive(sub).first.empty()) {
    }

    PtpNotificationInfo notification;
    notification.action = PtpNotificationInfo::ACTION_RESUME_ALL;
    notification.gmid = "00-11-22-ff-fe-33-44-55";
    ASSERT_EQ(0, publisher.notifyFsmStateChange(notification));
    sub.set(zmq::sockopt::rcvtimeo, 2000);
    got = receive(sub);
    EXPECT_EQ("1000", got.first);
    EXPECT_NE(std::string::npos, got.second.find(R"("gmid":"00-11-22-ff-fe-33-44-55")"))
        << got.second;
}

TEST(Publisher, TakenPortFailsInitAndLaterPublications) {
    zmq::context_t context;
    PublishJsonServer other(context);
    ASSERT_EQ(0, other.bindToAddress("tcp://127.0.0.1:5574"));

    LogCapture log;
    OstPmcPublisher publisher;
    const int rc = publisher.init(context);
    EXPECT_EQ(-EADDRINUSE, rc);
    EXPECT_TRUE(log.contains(
        "CHK(int OstPmcPublisher::init(zmq::context_t&))::41 Error Code " + std::to_string(rc),
        Logger::ERR));
    OstPmcPtpCfg cfg;
    EXPECT_LT(publisher.notifyPtpConfigChange(cfg), 0);
}

}  // namespace
