// The request/reply pair: what the server answers to good and hostile requests, and how the
// client copes with lost, refused and undecodable replies.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "ClientJsonApi.h"
#include "IpcResult.h"
#include "JsonText.h"
#include "Logger.h"
#include "ServerJsonApi.h"

namespace {

// Request codes of the test handler.
constexpr unsigned int ECHO = 0;         // reply {"echo": <payload>}
constexpr unsigned int READ_NUMBER = 1;  // returns payload "n" as an int (throws on a string)
constexpr unsigned int NO_DATA = 7;      // clears the reply flag, returns 3
constexpr unsigned int THROW_OTHER = 9;  // throws something that is no std::exception
constexpr unsigned int NOT_HERE = 29;    // returns -29

class TestServer : public ServerJsonApi {
  public:
    int getCommandDescription(unsigned int, std::string&) override { return 0; }
    int ipcProcessMsg(IpcMsg& msg, Json::Value& reply, bool& replyFlag) override {
        switch (msg.getMsgCode()) {
            case ECHO:
                reply["echo"] = msg.getJsonData();
                return 0;
            case READ_NUMBER:
                reply["partial"] = true;
                return msg.getJsonData()["n"].asInt();
            case NO_DATA:
                replyFlag = false;
                return 3;
            case NOT_HERE:
                return IpcResult::ERROR_NOT_AVAILABLE;
            case THROW_OTHER:
            default:
                throw 42;
        }
    }
};

std::string endpointOf(zmq::socket_t& socket) {
    return socket.get(zmq::sockopt::last_endpoint);
}

bool waitReadable(zmq::socket_t& socket, long timeoutMs) {
    zmq_pollitem_t item{};
    item.socket = socket.handle();
    item.events = ZMQ_POLLIN;
    return zmq_poll(&item, 1, timeoutMs) == 1;
}

// A REP socket on an ephemeral port of the loop-back interface, served on demand.
class RequestReply : public ::testing::Test {
  protected:
    void SetUp() override {
        ServerJsonApi::configureServerSocket(m_rep);
        m_rep.bind("tcp://127.0.0.1:*");
        m_endpoint = endpointOf(m_rep);
    }
    void TearDown() override { stopServing(); }

    // Sends raw frames from a fresh REQ socket, lets the server handle what arrives and
    // returns the reply text ("" when none came).
    std::string exchange(const std::vector<std::string>& frames, int* handled = nullptr) {
        zmq::socket_t req(m_context, zmq::socket_type::req);
        req.set(zmq::sockopt::linger, 0);
        req.connect(m_endpoint);
        for (size_t i = 0; i < frames.size(); ++i) {
            const auto more =
                i + 1 < frames.size() ? zmq::send_flags::sndmore : zmq::send_flags::none;
            req.send(zmq::buffer(frames[i]), more);
        }
        if (!waitReadable(m_rep, 2000)) {
            return "";
        }
        const int rc = m_server.ipcPreProcessMsg(&m_rep);
        if (handled) {
            *handled = rc;
        }
        zmq::message_t reply;
        if (!waitReadable(req, 2000) || !req.recv(reply)) {
            return "";
        }
        return reply.to_string();
    }
    std::string exchange(const std::string& request, int* handled = nullptr) {
        return exchange(std::vector<std::string>{request}, handled);
    }

    // Serves the REP socket from a thread until the test ends.
    void startServing() {
        m_serving = true;
        m_thread = std::thread([this] {
            while (m_serving) {
                if (waitReadable(m_rep, 20)) {
                    m_server.ipcPreProcessMsg(&m_rep);
                }
            }
        });
    }
    void stopServing() {
        m_serving = false;
        if (m_thread.joinable()) {
            m_thread.join();
        }
    }

    zmq::context_t m_context;
    zmq::socket_t m_rep{m_context, zmq::socket_type::rep};
    std::string m_endpoint;
    TestServer m_server;
    std::atomic<bool> m_serving{false};
    std::thread m_thread;
};

Json::Value decode(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(JsonText::parse(text.data(), text.size(), value)) << text;
    return value;
}

std::string echoRequest(const std::string& data) {
    return "{\"cmd\":0,\"data\":" + data + "}";
}

TEST_F(RequestReply, HostileRequestsGetInvalidParamAndServingGoesOn) {
    Json::Value wrongType;
    std::string typeError;
    try {
        wrongType["n"] = "x";
        wrongType["n"].asInt();
    } catch (const std::exception& e) {
        typeError = e.what();
    }
    ASSERT_FALSE(typeError.empty());

    const std::string notJson = "ServerJsonApi: invalid request: not JSON";
    const std::string noCmd = "ServerJsonApi: invalid request: no unsigned \"cmd\"";
    const struct {
        std::string request;
        std::string logLine;
    } cases[] = {
        {"not json", notJson},
        {"", notJson},
        {"{\"cmd\":0} {}", notJson},
        {"{\"cmd\":0,}", notJson},
        {"{\"cmd\":0,\"cmd\":1}", notJson},
        {"{\"cmd\":0,\"data\":" + std::string(200, '[') + std::string(200, ']') + "}", notJson},
        {"[0,1]", "ServerJsonApi: invalid request: not a JSON object"},
        {"{}", noCmd},
        {"{\"cmd\":-1}", noCmd},
        {"{\"cmd\":\"0\"}", noCmd},
        {"{\"cmd\":1.5}", noCmd},
        {"{\"cmd\":4294967296}", noCmd},
        {"{\"cmd\":0,\"data\":[1]}", "ServerJsonApi: invalid request 0: \"data\" is not an object"},
        {"{\"cmd\":1,\"data\":{\"n\":\"x\"}}", "ServerJsonApi: request 1 failed: " + typeError},
        {"{\"cmd\":9}", "ServerJsonApi: request 9 failed: unknown exception"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.request.substr(0, 60));
        LogCapture log;
        int handled = 0;
        // Compact, and nothing the handler wrote before it failed.
        EXPECT_EQ(exchange(c.request, &handled),
                  "{\"data\":{},\"result\":-8,\"resultText\":\"ERROR_INVALID_PARAM\"}");
        EXPECT_EQ(handled, IpcResult::ERROR_INVALID_PARAM);
        EXPECT_TRUE(log.contains(c.logLine, Logger::ERR));
    }
    const Json::Value reply = decode(exchange(echoRequest("{\"k\":\"v\"}")));
    EXPECT_EQ(reply["result"].asInt(), 0);
    EXPECT_EQ(reply["data"]["echo"]["k"].asString(), "v");
}

TEST_F(RequestReply, ReplyCarriesResultTextAndHandlerData) {
    Json::Value reply = decode(exchange(echoRequest("{\"a\":[1,2]}")));
    EXPECT_EQ(reply["resultText"].asString(), "OK");
    EXPECT_EQ(reply["data"]["echo"]["a"][1].asInt(), 2);

    // Absent and null payloads both reach the handler as null.
    EXPECT_TRUE(decode(exchange("{\"cmd\":0}"))["data"]["echo"].isNull());
    EXPECT_TRUE(decode(exchange("{\"cmd\":0,\"data\":null}"))["data"]["echo"].isNull());

    reply = decode(exchange("{\"cmd\":29}"));
    EXPECT_EQ(reply["result"].asInt(), -29);
    EXPECT_EQ(reply["resultText"].asString(), "ERROR_NOT_AVAILABLE_ON_THIS_BOARD");

    reply = decode(exchange("{\"cmd\":7}"));
    EXPECT_EQ(reply["result"].asInt(), 3);
    EXPECT_FALSE(reply.isMember("data"));

    // Only the first frame is the request; the others are dropped so the reply can go out.
    LogCapture log;
    reply = decode(exchange({echoRequest("{\"first\":1}"), "second", "third"}));
    EXPECT_EQ(reply["data"]["echo"]["first"].asInt(), 1);
    EXPECT_TRUE(log.contains("ServerJsonApi: 2 extra request frames dropped", Logger::WRN));
}

TEST_F(RequestReply, SocketRefusesRequestsOverSixtyFourKiB) {
    // Exactly the limit is still a request.
    const std::string frame = echoRequest("{\"pad\":\"\"}");
    const std::string padded = echoRequest(
        "{\"pad\":\"" + std::string(ServerJsonApi::MAX_REQUEST_SIZE - frame.size(), 'x') + "\"}");
    ASSERT_EQ(padded.size(), static_cast<size_t>(ServerJsonApi::MAX_REQUEST_SIZE));
    EXPECT_EQ(decode(exchange(padded))["result"].asInt(), 0);

    // One byte more and the socket drops the sender before the server sees anything.
    zmq::socket_t req(m_context, zmq::socket_type::req);
    req.set(zmq::sockopt::linger, 0);
    req.connect(m_endpoint);
    req.send(zmq::buffer(padded + " "), zmq::send_flags::none);
    EXPECT_FALSE(waitReadable(m_rep, 300));

    EXPECT_EQ(decode(exchange(echoRequest("{}")))["result"].asInt(), 0);
}

TEST(ServerJsonApi, RequestOverLimitOnUnlimitedSocketIsRefused) {
    zmq::context_t context;
    zmq::socket_t rep(context, zmq::socket_type::rep);
    rep.bind("inproc://unlimited");
    zmq::socket_t req(context, zmq::socket_type::req);
    req.connect("inproc://unlimited");
    const std::string request = echoRequest("{\"pad\":\"" + std::string(70 * 1024, 'x') + "\"}");
    req.send(zmq::buffer(request), zmq::send_flags::none);

    LogCapture log;
    TestServer server;
    ASSERT_TRUE(waitReadable(rep, 2000));
    EXPECT_EQ(server.ipcPreProcessMsg(&rep), IpcResult::ERROR_INVALID_PARAM);
    EXPECT_TRUE(log.contains("ServerJsonApi: invalid request: " + std::to_string(request.size()) +
                                 " bytes, more than 65536",
                             Logger::ERR));
    zmq::message_t reply;
    ASSERT_TRUE(waitReadable(req, 2000));
    ASSERT_TRUE(req.recv(reply));
    EXPECT_EQ(decode(reply.to_string())["result"].asInt(), IpcResult::ERROR_INVALID_PARAM);

    // Nothing to receive is a socket failure, not a request.
    EXPECT_LT(server.ipcPreProcessMsg(&rep), 0);
    EXPECT_LT(server.ipcPreProcessMsg(nullptr), 0);
}

class TestClient : public ClientJsonApi {
  public:
    TestClient(std::string endpoint, int timeoutMs)
        : m_endpoint(std::move(endpoint)), m_timeout_ms(timeoutMs) {}
    std::string getIpcConnectAddress() override { return m_endpoint; }
    int getCommandDescription(unsigned int, std::string&) override { return 0; }
    int getClientTimeout() override { return m_timeout_ms; }
    void setClientTimeout(int timeoutMs) { m_timeout_ms = timeoutMs; }

  private:
    std::string m_endpoint;
    int m_timeout_ms;
};

Json::Value payload(int n) {
    Json::Value data;
    data["n"] = n;
    return data;
}

TEST_F(RequestReply, ClientRecoversFromLostReply) {
    TestClient client(m_endpoint, 200);
    ASSERT_EQ(client.init(m_context), 0);
    Json::Value reply;
    {
        // Nobody serves yet: the request stays queued and no reply comes.
        LogCapture log;
        IpcMsg first(ECHO, payload(1));
        EXPECT_EQ(client.sendMessage(first, reply), IpcResult::ERROR_TIMEOUT);
        EXPECT_EQ(client.getLastResultText(), "ERROR_TIMEOUT");
        EXPECT_TRUE(
            log.contains("ClientJsonApi: request 0: no reply from " + m_endpoint + " within 200 ms",
                         Logger::ERR));
    }
    // The server now answers the stale request too; its reply must not be taken for this one.
    startServing();
    client.setClientTimeout(5000);
    IpcMsg second(ECHO, payload(2));
    EXPECT_EQ(client.sendMessage(second, reply), 0);
    EXPECT_EQ(reply["echo"]["n"].asInt(), 2);
    EXPECT_EQ(client.getLastResultText(), "OK");

    // A request the socket refuses is a lost reply as well, and the client recovers again.
    IpcMsg huge(ECHO, payload(0));
    huge.getJsonData()["pad"] = std::string(70 * 1024, 'x');
    client.setClientTimeout(300);
    EXPECT_EQ(client.sendMessage(huge, reply), IpcResult::ERROR_TIMEOUT);
    client.setClientTimeout(5000);
    IpcMsg third(ECHO, payload(3));
    EXPECT_EQ(client.sendMessage(third, reply), 0);
    EXPECT_EQ(reply["echo"]["n"].asInt(), 3);
}

TEST_F(RequestReply, ClientPassesServerResultsThrough) {
    startServing();
    TestClient client(m_endpoint, 5000);
    ASSERT_EQ(client.init(m_context), 0);
    Json::Value reply = "stale";

    IpcMsg notHere(NOT_HERE);
    EXPECT_EQ(client.sendMessage(notHere, reply), -29);
    EXPECT_EQ(client.getLastResultText(), "ERROR_NOT_AVAILABLE_ON_THIS_BOARD");
    EXPECT_EQ(reply, Json::Value(Json::objectValue));

    IpcMsg noData(NO_DATA);
    EXPECT_EQ(client.sendMessage(noData, reply), 3);
    EXPECT_EQ(reply, Json::Value(Json::objectValue));

    // A null payload travels as no payload at all.
    IpcMsg bare(ECHO);
    EXPECT_EQ(client.sendMessage(bare, reply), 0);
    EXPECT_TRUE(reply.isMember("echo"));
    EXPECT_TRUE(reply["echo"].isNull());

    IpcMsg invalid(READ_NUMBER, Json::Value(Json::objectValue));
    invalid.getJsonData()["n"] = "x";
    EXPECT_EQ(client.sendMessage(invalid, reply), IpcResult::ERROR_INVALID_PARAM);
    EXPECT_EQ(client.getLastResultText(), "ERROR_INVALID_PARAM");
}

TEST(ClientJsonApi, UndecodableRepliesAndMissingConnection) {
    zmq::context_t context;
    zmq::socket_t rep(context, zmq::socket_type::rep);
    rep.set(zmq::sockopt::linger, 0);
    rep.bind("tcp://127.0.0.1:*");
    const std::vector<std::string> answers = {"garbage", "{\"result\":\"0\"}",
                                              "{\"result\":0,\"data\":[1]}", "[0]",
                                              "{\"result\":5,\"data\":{\"x\":1}}"};
    std::thread peer([&] {
        for (const std::string& answer : answers) {
            zmq::message_t request;
            if (!waitReadable(rep, 2000) || !rep.recv(request)) {
                return;
            }
            rep.send(zmq::buffer(answer), zmq::send_flags::none);
        }
    });

    TestClient client(endpointOf(rep), 5000);
    ASSERT_EQ(client.init(context), 0);
    Json::Value reply;
    for (size_t i = 0; i + 1 < answers.size(); ++i) {
        IpcMsg msg(ECHO);
        EXPECT_EQ(client.sendMessage(msg, reply), IpcResult::ERROR_BAD_REPLY) << answers[i];
        EXPECT_EQ(client.getLastResultText(), "ERROR_BAD_REPLY");
    }
    // A positive result without "resultText" gets the client's own text.
    IpcMsg last(ECHO);
    EXPECT_EQ(client.sendMessage(last, reply), 5);
    EXPECT_EQ(reply["x"].asInt(), 1);
    EXPECT_EQ(client.getLastResultText(), "OK");
    peer.join();

    TestClient neverInitialised("tcp://127.0.0.1:1", 100);
    IpcMsg msg(ECHO);
    EXPECT_EQ(neverInitialised.sendMessage(msg, reply), IpcResult::ERROR_NOT_CONNECTED);

    LogCapture log;
    TestClient badAddress("tcp://no-port-here", 100);
    EXPECT_EQ(badAddress.init(context), IpcResult::ERROR_NOT_CONNECTED);
    EXPECT_TRUE(log.containsFragment("ClientJsonApi: cannot connect to tcp://no-port-here"));
}

}  // namespace
