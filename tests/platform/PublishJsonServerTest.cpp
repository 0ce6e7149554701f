// Publications: framing and compact bodies as the device's subscribers expect them, and bind
// failures reported with their errno.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "Logger.h"
#include "PublishJsonServer.h"

namespace {

TEST(PublishJsonServer, MessageIsTopicFrameThenCompactJson) {
    zmq::context_t context;
    PublishJsonServer publisher(context);
    ASSERT_EQ(publisher.bindToAddress("tcp://127.0.0.1:*"), 0);
    zmq::socket_t sub(context, zmq::socket_type::sub);
    sub.set(zmq::sockopt::linger, 0);
    sub.set(zmq::sockopt::subscribe, "1000");
    sub.connect(publisher.getBoundEndpoint());

    std::string topic = "1000";
    Json::Value body;
    body["action"] = 1;
    body["state"]["name"] = "SLAVE STABLE";
    // A subscriber sees only what is published after its subscription has arrived.
    zmq::pollitem_t item{sub.handle(), 0, ZMQ_POLLIN, 0};
    bool arrived = false;
    for (int attempt = 0; attempt < 100 && !arrived; ++attempt) {
        ASSERT_EQ(publisher.publish(topic, body), 0);
        arrived = zmq::poll(&item, 1, std::chrono::milliseconds(20)) == 1;
    }
    ASSERT_TRUE(arrived);

    zmq::message_t first;
    zmq::message_t second;
    ASSERT_TRUE(sub.recv(first));
    ASSERT_TRUE(first.more());
    ASSERT_TRUE(sub.recv(second));
    EXPECT_FALSE(second.more());
    EXPECT_EQ(first.to_string(), "1000");
    EXPECT_EQ(second.to_string(), "{\"action\":1,\"state\":{\"name\":\"SLAVE STABLE\"}}");
}

TEST(PublishJsonServer, FailuresAreNegativeErrnoValues) {
    zmq::context_t context;
    PublishJsonServer first(context);
    PublishJsonServer second(context);
    std::string topic = "1001";
    Json::Value body;

    LogCapture log;
    EXPECT_EQ(second.publish(topic, body), -ENOTCONN);
    EXPECT_TRUE(
        log.contains("PublishJsonServer: topic 1001 not published: socket not bound", Logger::ERR));

    ASSERT_EQ(first.bindToAddress("tcp://127.0.0.1:*"), 0);
    const std::string taken = first.getBoundEndpoint();
    EXPECT_EQ(second.bindToAddress(taken), -EADDRINUSE);
    EXPECT_TRUE(log.contains("PublishJsonServer: cannot bind " + taken + ": error " +
                                 std::to_string(EADDRINUSE) + " (" + strerror(EADDRINUSE) + ")",
                             Logger::ERR));
    EXPECT_LT(second.bindToAddress("bogus://x"), 0);
    EXPECT_EQ(second.getBoundEndpoint(), "");
}

}  // namespace
