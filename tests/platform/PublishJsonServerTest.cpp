// Publications: framing and compact bodies as the device's subscribers expect them, and
// bind failures reported with their errno.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "Logger.h"
#include "PublishJsonServer.h"

namespace {

TEST(PublishJsonServer, TopicFrameThenCompactJsonAndBindFailure) {
    zmq::context_t context;
    PublishJsonServer publisher(context);
    PublishJsonServer second(context);
    std::string topic = "1000";
    Json::Value body;
    body["action"] = 1;
    body["state"]["name"] = "SLAVE STABLE";
    LogCapture log;
    ASSERT_EQ(publisher.bindToAddress("tcp://127.0.0.1:*"), 0);
    const std::string endpoint = publisher.getBoundEndpoint();
    EXPECT_EQ(second.bindToAddress(endpoint), -EADDRINUSE);
    EXPECT_TRUE(log.contains("PublishJsonServer: cannot bind " + endpoint + ": error " +
                                 std::to_string(EADDRINUSE) + " (" + strerror(EADDRINUSE) + ")",
                             Logger::ERR));
    EXPECT_EQ(second.getBoundEndpoint(), "");

    zmq::socket_t sub(context, zmq::socket_type::sub);
    sub.set(zmq::sockopt::linger, 0);
    sub.set(zmq::sockopt::subscribe, "1000");
    sub.connect(endpoint);
    // A subscriber sees only what is published after its subscription has arrived.
    zmq::pollitem_t item{sub.handle(), 0, ZMQ_POLLIN, 0};
    bool arrived = false;
    for (int attempt = 0; attempt < 100 && !arrived; ++attempt) {
        ASSERT_EQ(publisher.publish(topic, body), 0);
        arrived = zmq::poll(&item, 1, std::chrono::milliseconds(20)) == 1;
    }
    zmq::message_t first;
    zmq::message_t last;
    ASSERT_TRUE(arrived && sub.recv(first) && first.more() && sub.recv(last));
    EXPECT_FALSE(last.more());
    EXPECT_EQ(first.to_string(), "1000");
    EXPECT_EQ(last.to_string(), "{\"action\":1,\"state\":{\"name\":\"SLAVE STABLE\"}}");
}

}  // namespace
