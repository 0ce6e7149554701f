// Request/reply and publications: what the server answers to good and hostile requests, how the
// client copes with lost, refused and undecodable replies, and what subscribers receive.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "ClientJsonApi.h"
#include "IpcResult.h"
#include "Logger.h"
#include "PublishJsonServer.h"
#include "ServerJsonApi.h"

namespace {

// Every request is echoed first, so a failed one shows whether its partial reply is dropped.
// Code 1 fails as a handler reading a wrong-shaped payload does; unknown codes throw no exception.
struct TestServer : ServerJsonApi {
    int getCommandDescription(unsigned int, std::string&) override { return 0; }
    int ipcProcessMsg(IpcMsg& msg, Json::Value& reply, bool&) override {
        reply["echo"] = msg.getJsonData();
        switch (msg.getMsgCode()) {
            case 0:
                return 0;
            case 1:
                throw std::runtime_error("no n");
            case 29:
                return IpcResult::ERROR_NOT_AVAILABLE;
        }
        throw 42;
    }
};

struct TestClient : ClientJsonApi {
    TestClient(std::string address, int timeout)
        : endpoint(std::move(address)), timeoutMs(timeout) {}
    std::string getIpcConnectAddress() override { return endpoint; }
    int getCommandDescription(unsigned int, std::string&) override { return 0; }
    int getClientTimeout() override { return timeoutMs; }
    std::string endpoint;
    int timeoutMs;
};

bool waitReadable(zmq::socket_t& socket, long timeoutMs) {
    zmq_pollitem_t item{socket.handle(), 0, ZMQ_POLLIN, 0};
    return zmq_poll(&item, 1, timeoutMs) == 1;
}

std::string okEcho(const std::string& data) {
    return "{\"data\":{\"echo\":" + data + "},\"result\":0,\"resultText\":\"OK\"}";
}

// A REP socket on an ephemeral loop-back port, served from a thread until the test ends: by the
// test handler, or with the given raw answers in turn.
class RequestReply : public ::testing::Test {
  protected:
    void SetUp() override {
        ServerJsonApi::configureServerSocket(m_rep);
        m_rep.bind("tcp://127.0.0.1:*");
        m_endpoint = m_rep.get(zmq::sockopt::last_endpoint);
    }
    void TearDown() override {
        m_serving = false;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }
    void startServing(std::vector<std::string> answers = {}) {
        m_serving = true;
        m_thread = std::thread([this, answers] {
            zmq::message_t request;
            for (size_t next = 0; m_serving;) {
                if (!waitReadable(m_rep, 20)) {
                    continue;
                }
                if (answers.empty()) {
                    m_server.ipcPreProcessMsg(&m_rep);
                } else if (m_rep.recv(request)) {
                    m_rep.send(zmq::buffer(answers[next++ % answers.size()]));
                }
            }
        });
    }
    // Sends raw frames from a fresh REQ socket; the reply text ("" when none came in time).
    std::string exchange(const std::vector<std::string>& frames, long waitMs = 2000) {
        zmq::socket_t req(m_context, zmq::socket_type::req);
        req.set(zmq::sockopt::linger, 0);
        req.connect(m_endpoint);
        for (size_t i = 0; i < frames.size(); ++i) {
            req.send(zmq::buffer(frames[i]),
                     i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none);
        }
        zmq::message_t reply;
        return waitReadable(req, waitMs) && req.recv(reply) ? reply.to_string() : "";
    }

    zmq::context_t m_context;
    zmq::socket_t m_rep{m_context, zmq::socket_type::rep};
    std::string m_endpoint;
    TestServer m_server;
    std::atomic<bool> m_serving{false};
    std::thread m_thread;
};

TEST_F(RequestReply, EveryRequestIsAnsweredAndServingGoesOn) {
    startServing();
    const std::string notJson = "ServerJsonApi: invalid request: not JSON";
    const std::string noCmd = "ServerJsonApi: invalid request: no unsigned \"cmd\"";
    const std::pair<std::string, std::string> hostile[] = {
        {"not json", notJson},
        {"{\"cmd\":0} {}", notJson},
        {"{\"cmd\":0,\"cmd\":1}", notJson},
        {"{\"cmd\":0,\"data\":" + std::string(200, '[') + std::string(200, ']') + "}", notJson},
        {"[0,1]", "ServerJsonApi: invalid request: not a JSON object"},
        {"{}", noCmd},
        {"{\"cmd\":-1}", noCmd},
        {"{\"cmd\":0,\"data\":[1]}", "ServerJsonApi: invalid request 0: \"data\" is not an object"},
        {"{\"cmd\":1,\"data\":{}}", "ServerJsonApi: request 1 failed: no n"},
        {"{\"cmd\":9}", "ServerJsonApi: request 9 failed: unknown exception"},
    };
    for (const auto& [request, logLine] : hostile) {
        SCOPED_TRACE(request.substr(0, 60));
        LogCapture log;
        EXPECT_EQ(exchange({request}),
                  "{\"data\":{},\"result\":-8,\"resultText\":\"ERROR_INVALID_PARAM\"}");
        EXPECT_TRUE(log.contains(logLine, Logger::ERR));
    }
    EXPECT_EQ(exchange({"{\"cmd\":0,\"data\":null}"}), okEcho("null"));
    // Only the first frame is the request; the others are dropped so the reply can go out.
    LogCapture log;
    EXPECT_EQ(exchange({"{\"cmd\":0,\"data\":{}}", "b", "c"}), okEcho("{}"));
    EXPECT_TRUE(log.contains("ServerJsonApi: 2 extra request frames dropped", Logger::WRN));
    // Exactly 64 KiB is still a request; one byte more and the socket drops the sender.
    const std::string pad(ServerJsonApi::MAX_REQUEST_SIZE - 27, 'x');
    const std::string padded = "{\"cmd\":0,\"data\":{\"pad\":\"" + pad + "\"}}";
    ASSERT_EQ(padded.size(), 65536u);
    EXPECT_EQ(exchange({padded}), okEcho("{\"pad\":\"" + pad + "\"}"));
    EXPECT_EQ(exchange({padded + " "}, 300), "");
    EXPECT_EQ(exchange({"{\"cmd\":0,\"data\":{}}"}), okEcho("{}"));
}

TEST_F(RequestReply, ClientRecoversFromLostReplyAndPassesResultsThrough) {
    TestClient client(m_endpoint, 200);
    ASSERT_EQ(client.init(m_context), 0);
    Json::Value reply;
    IpcMsg lost(0);
    {
        // Nobody serves yet: the request stays queued and no reply comes.
        LogCapture log;
        EXPECT_EQ(client.sendMessage(lost, reply), IpcResult::ERROR_TIMEOUT);
        EXPECT_EQ(client.getLastResultText(), "ERROR_TIMEOUT");
        EXPECT_TRUE(
            log.contains("ClientJsonApi: request 0: no reply from " + m_endpoint + " within 200 ms",
                         Logger::ERR));
    }
    // The server now answers the stale request too; its reply must not be taken for this one.
    startServing();
    client.timeoutMs = 5000;
    Json::Value data;
    data["n"] = 2;
    IpcMsg next(0, data);
    EXPECT_EQ(client.sendMessage(next, reply), 0);
    EXPECT_EQ(reply["echo"]["n"], 2);
    EXPECT_EQ(client.getLastResultText(), "OK");
    IpcMsg notHere(29);
    EXPECT_EQ(client.sendMessage(notHere, reply), -29);
    EXPECT_EQ(client.getLastResultText(), "ERROR_NOT_AVAILABLE_ON_THIS_BOARD");
}

TEST_F(RequestReply, ClientRejectsUndecodableRepliesAndMissingConnection) {
    startServing({"garbage", "{\"result\":\"0\"}", "{\"result\":5,\"data\":{\"x\":1}}"});
    TestClient client(m_endpoint, 5000);
    ASSERT_EQ(client.init(m_context), 0);
    Json::Value reply;
    IpcMsg msg(0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(client.sendMessage(msg, reply), IpcResult::ERROR_BAD_REPLY) << i;
        EXPECT_EQ(client.getLastResultText(), "ERROR_BAD_REPLY");
    }
    // A positive result without "resultText" gets the client's own text.
    EXPECT_EQ(client.sendMessage(msg, reply), 5);
    EXPECT_EQ(reply["x"], 1);
    EXPECT_EQ(client.getLastResultText(), "OK");

    TestClient neverInitialised("tcp://127.0.0.1:1", 100);
    EXPECT_EQ(neverInitialised.sendMessage(msg, reply), IpcResult::ERROR_NOT_CONNECTED);
    LogCapture log;
    TestClient badAddress("tcp://no-port-here", 100);
    EXPECT_EQ(badAddress.init(m_context), IpcResult::ERROR_NOT_CONNECTED);
    EXPECT_TRUE(log.containsFragment("ClientJsonApi: cannot connect to tcp://no-port-here"));
}

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
    bool arrived = false;
    for (int attempt = 0; attempt < 100 && !arrived; ++attempt) {
        ASSERT_EQ(publisher.publish(topic, body), 0);
        arrived = waitReadable(sub, 20);
    }
    zmq::message_t first;
    zmq::message_t json;
    ASSERT_TRUE(arrived && sub.recv(first) && first.more() && sub.recv(json));
    EXPECT_FALSE(json.more());
    EXPECT_EQ(first.to_string(), "1000");
    EXPECT_EQ(json.to_string(), "{\"action\":1,\"state\":{\"name\":\"SLAVE STABLE\"}}");
}

}  // namespace
