// The request/reply pair: what the server answers to good and hostile requests, and how the
// client copes with lost, refused and undecodable replies.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ClientJsonApi.h"
#include "IpcResult.h"
#include "Logger.h"
#include "ServerJsonApi.h"

namespace {

// Request codes of the test handler; any other code throws something that is no exception.
constexpr unsigned int ECHO = 0;
constexpr unsigned int READ_NUMBER = 1;  // returns payload "n" as an int (throws on a string)
constexpr unsigned int NOT_HERE = 29;

class TestServer : public ServerJsonApi {
  public:
    int getCommandDescription(unsigned int, std::string&) override { return 0; }
    int ipcProcessMsg(IpcMsg& msg, Json::Value& reply, bool&) override {
        // Every request is echoed, so a failed one shows whether its partial reply is dropped.
        reply["echo"] = msg.getJsonData();
        switch (msg.getMsgCode()) {
            case ECHO:
                return 0;
            case READ_NUMBER:
                return msg.getJsonData()["n"].asInt();
            case NOT_HERE:
                return IpcResult::ERROR_NOT_AVAILABLE;
            default:
                throw 42;
        }
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

const std::string INVALID = "{\"data\":{},\"result\":-8,\"resultText\":\"ERROR_INVALID_PARAM\"}";

std::string okEcho(const std::string& data) {
    return "{\"data\":{\"echo\":" + data + "},\"result\":0,\"resultText\":\"OK\"}";
}

// A REP socket on an ephemeral port of the loop-back interface, served on demand.
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

    // Serves the REP socket from a thread until the test ends: by the test handler, or with
    // the given answers in turn.
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

    zmq::context_t m_context;
    zmq::socket_t m_rep{m_context, zmq::socket_type::rep};
    std::string m_endpoint;
    TestServer m_server;
    std::atomic<bool> m_serving{false};
    std::thread m_thread;
};

TEST_F(RequestReply, HostileRequestsGetInvalidParamAndServingGoesOn) {
    std::string typeError;
    try {
        Json::Value("x").asInt();
    } catch (const std::exception& e) {
        typeError = e.what();
    }
    startServing();
    const std::string notJson = "ServerJsonApi: invalid request: not JSON";
    const std::string noCmd = "ServerJsonApi: invalid request: no unsigned \"cmd\"";
    const std::pair<std::string, std::string> cases[] = {
        {"not json", notJson},
        {"{\"cmd\":0} {}", notJson},
        {"{\"cmd\":0,\"cmd\":1}", notJson},
        {"{\"cmd\":0,\"data\":" + std::string(200, '[') + std::string(200, ']') + "}", notJson},
        {"[0,1]", "ServerJsonApi: invalid request: not a JSON object"},
        {"{}", noCmd},
        {"{\"cmd\":-1}", noCmd},
        {"{\"cmd\":4294967296}", noCmd},
        {"{\"cmd\":0,\"data\":[1]}", "ServerJsonApi: invalid request 0: \"data\" is not an object"},
        {"{\"cmd\":1,\"data\":{\"n\":\"x\"}}", "ServerJsonApi: request 1 failed: " + typeError},
        {"{\"cmd\":9}", "ServerJsonApi: request 9 failed: unknown exception"},
    };
    for (const auto& [request, logLine] : cases) {
        SCOPED_TRACE(request.substr(0, 60));
        // Each answered in turn: no request stops the serving.
        LogCapture log;
        EXPECT_EQ(exchange({request}), INVALID);
        EXPECT_TRUE(log.contains(logLine, Logger::ERR));
    }
}

TEST_F(RequestReply, ReplyEnvelopeAndSizeLimit) {
    startServing();
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
    IpcMsg lost(ECHO);
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
    IpcMsg next(ECHO, data);
    EXPECT_EQ(client.sendMessage(next, reply), 0);
    EXPECT_EQ(reply["echo"]["n"], 2);
    EXPECT_EQ(client.getLastResultText(), "OK");

    IpcMsg notHere(NOT_HERE);
    EXPECT_EQ(client.sendMessage(notHere, reply), -29);
    EXPECT_EQ(client.getLastResultText(), "ERROR_NOT_AVAILABLE_ON_THIS_BOARD");
    data["n"] = "x";
    IpcMsg invalid(READ_NUMBER, data);
    EXPECT_EQ(client.sendMessage(invalid, reply), IpcResult::ERROR_INVALID_PARAM);
    EXPECT_EQ(client.getLastResultText(), "ERROR_INVALID_PARAM");
}

TEST_F(RequestReply, ClientRejectsUndecodableRepliesAndMissingConnection) {
    const std::vector<std::string> answers = {"garbage", "{\"result\":\"0\"}",
                                              "{\"result\":5,\"data\":{\"x\":1}}"};
    startServing(answers);
    TestClient client(m_endpoint, 5000);
    ASSERT_EQ(client.init(m_context), 0);
    Json::Value reply;
    IpcMsg msg(ECHO);
    for (size_t i = 0; i + 1 < answers.size(); ++i) {
        EXPECT_EQ(client.sendMessage(msg, reply), IpcResult::ERROR_BAD_REPLY) << answers[i];
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

}  // namespace
