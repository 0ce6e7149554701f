// Request/reply and publications: what the server answers to good and hostile requests, how the
// client copes with lost, refused and undecodable replies, and what subscribers receive.
#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <thread>

#include "ClientJsonApi.h"
#include "IpcResult.h"
#include "JsonText.h"
#include "Logger.h"
#include "PublishJsonServer.h"
#include "ServerJsonApi.h"

namespace {

// Every request is echoed first, so a failed one shows whether its partial reply is dropped.
// Code 1 fails as a handler reading a wrong-shaped payload does; unknown codes throw no exception.
// Code 2 answers how often its handler ran, and its reply is kept; it fails while failKept is set.
// Code 7 answers late.
struct TestServer : ServerJsonApi {
    int getCommandDescription(unsigned int, std::string&) override { return 0; }
    int ipcProcessMsg(IpcMsg& msg, Json::Value& reply, bool&) override {
        reply["echo"] = msg.getJsonData();
        switch (msg.getMsgCode()) {
            case 0:
                return 0;
            case 1:
                throw std::runtime_error("no n");
            case 2:
                reply["runs"] = ++keptRuns;
                if (failKept) {
                    throw std::runtime_error("kept failed");
                }
                return 0;
            case 7:
                std::this_thread::sleep_for(std::chrono::milliseconds(300));
                return 0;
            case 29:
                return IpcResult::ERROR_NOT_AVAILABLE;
        }
        throw 42;
    }
    bool isReplyKept(unsigned int code) override { return code == 2; }
    using ServerJsonApi::dropKeptReplies;

    int keptRuns = 0;
    bool failKept = false;
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

TEST_F(RequestReply, ClientRecoversFromLostReplyPassesResultsThroughNeedsAConnection) {
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

    TestClient neverInitialised("tcp://127.0.0.1:1", 100);
    EXPECT_EQ(neverInitialised.sendMessage(notHere, reply), IpcResult::ERROR_NOT_CONNECTED);
    LogCapture log;
    TestClient badAddress("tcp://no-port-here", 100);
    EXPECT_EQ(badAddress.init(m_context), IpcResult::ERROR_NOT_CONNECTED);
    EXPECT_TRUE(log.containsFragment("ClientJsonApi: cannot connect to tcp://no-port-here"));
}

// The client decodes a reply only when its bytes differ from the last reply to that code; the
// data it hands out is always that of the bytes just received, and the caller's to change.
TEST_F(RequestReply, EachReplyGivesTheDataOfItsOwnBytes) {
    const std::string one = R"({"data":{"n":1},"result":0,"resultText":"OK"})";
    startServing({one, one, R"({"data":{"n":2},"result":0,"resultText":"OK"})",
                  R"({"data":{"n":3},"result":-29,"resultText":"three"})", "garbage", "garbage",
                  R"({"result":"0"})", R"({"result":5,"data":{"x":1}})", R"({"result":0})", one});
    TestClient client(m_endpoint, 5000);
    ASSERT_EQ(client.init(m_context), 0);
    Json::Value reply;
    IpcMsg msg(0);
    EXPECT_EQ(client.sendMessage(msg, reply), 0);
    EXPECT_EQ(reply["n"], 1);
    reply["n"] = 99;
    EXPECT_EQ(client.sendMessage(msg, reply), 0);
    EXPECT_EQ(reply["n"], 1) << "a change by the caller does not reach the next reply";
    EXPECT_EQ(client.sendMessage(msg, reply), 0);
    EXPECT_EQ(reply["n"], 2);
    EXPECT_EQ(client.sendMessage(msg, reply), -29);
    EXPECT_EQ(reply["n"], 3);
    EXPECT_EQ(client.getLastResultText(), "three");
    // Not JSON, the same bytes again, a result that is no integer.
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client.sendMessage(msg, reply), IpcResult::ERROR_BAD_REPLY) << i;
        EXPECT_EQ(Json::Value(Json::objectValue), reply);
        EXPECT_EQ(client.getLastResultText(), "ERROR_BAD_REPLY");
    }
    // A result without "resultText" gets the client's own text.
    EXPECT_EQ(client.sendMessage(msg, reply), 5);
    EXPECT_EQ(reply["x"], 1);
    EXPECT_EQ(client.getLastResultText(), "OK");
    EXPECT_EQ(client.sendMessage(msg, reply), 0);
    EXPECT_EQ(Json::Value(Json::objectValue), reply);
    IpcMsg other(5);
    EXPECT_EQ(client.sendMessage(other, reply), 0);
    EXPECT_EQ(reply["n"], 1);
}

void onSignal(int) {}

// The client waits in one blocking receive: a signal that interrupts it neither fails the
// request nor stretches or shortens its time-out.
TEST_F(RequestReply, SignalsDuringTheWaitAreSatOut) {
    struct sigaction action {
    }, previous{};
    action.sa_handler = onSignal;  // no SA_RESTART: the wait returns EINTR
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, &previous));
    const pthread_t waiting = pthread_self();
    auto interruptSoon = [waiting] {
        return std::thread([waiting] {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            pthread_kill(waiting, SIGUSR1);
        });
    };
    startServing();
    TestClient client(m_endpoint, 5000);
    ASSERT_EQ(client.init(m_context), 0);
    Json::Value reply;
    IpcMsg late(7);
    std::thread signaller = interruptSoon();
    EXPECT_EQ(client.sendMessage(late, reply), 0);
    signaller.join();

    // While the server is busy with another client's late request, this one times out all the
    // same, and not before its time.
    std::thread busy([this] { exchange({"{\"cmd\":7}"}); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    client.timeoutMs = 200;
    signaller = interruptSoon();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(client.sendMessage(late, reply), IpcResult::ERROR_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(190));
    signaller.join();
    busy.join();
    sigaction(SIGUSR1, &previous, nullptr);
}

TEST(KeptReplies, SentAgainUntilDroppedOrAnotherRequestRan) {
    TestServer server;
    auto ask = [&](const std::string& request) {
        std::string reply;
        server.answerRequest(request.data(), request.size(), reply);
        return reply;
    };
    const std::string kept = "{\"cmd\":2}";
    const std::string first =
        "{\"data\":{\"echo\":null,\"runs\":1},\"result\":0,\"resultText\":\"OK\"}";
    EXPECT_EQ(first, ask(kept));
    EXPECT_EQ(first, ask(kept));
    EXPECT_EQ(first, ask("{\"cmd\":2,\"data\":{\"x\":1}}")) << "kept whatever the payload";
    EXPECT_EQ(1, server.keptRuns);
    server.dropKeptReplies();
    EXPECT_NE(std::string::npos, ask(kept).find("\"runs\":2"));

    // Any other request that reached its handler may have changed what the kept reply shows,
    // even one that failed; a request refused before any handler ran changed nothing.
    ask("{\"cmd\":0}");
    EXPECT_NE(std::string::npos, ask(kept).find("\"runs\":3"));
    ask("{\"cmd\":1}");
    EXPECT_NE(std::string::npos, ask(kept).find("\"runs\":4"));
    ask("not json");
    ask("{\"cmd\":2,\"data\":5}");
    EXPECT_NE(std::string::npos, ask(kept).find("\"runs\":4"));

    // A failed answer is never kept.
    server.dropKeptReplies();
    server.failKept = true;
    const std::string failed = "{\"data\":{},\"result\":-8,\"resultText\":\"ERROR_INVALID_PARAM\"}";
    EXPECT_EQ(failed, ask(kept));
    server.failKept = false;
    EXPECT_NE(std::string::npos, ask(kept).find("\"runs\":6"));
}

TEST(JsonText, KeptReaderAndWriterAgreeWithTheOneShotFunctions) {
    Json::Value values(Json::arrayValue);
    values.append(Json::Value(Json::objectValue));
    values.append(Json::Value(Json::arrayValue));
    values.append(Json::Value());
    values.append(0.1);
    values.append(-0.0);
    values.append(1e300);
    values.append(-1500.25);
    values.append(std::numeric_limits<Json::Int64>::min());
    values.append(std::numeric_limits<Json::UInt64>::max());
    values.append("quote \" backslash \\ control \x01 \xc3\xa9");
    values.append(true);
    Json::Value nested(Json::objectValue);
    nested["b"]["list"] = values;
    nested["a"] = "first by key";
    values.append(nested);

    Json::StreamWriterBuilder plain;
    plain["indentation"] = "";
    JsonText::Writer writer;
    std::string appended = "head:";
    std::string expected = "head:";
    for (const Json::Value& value : values) {
        const std::string text = Json::writeString(plain, value);
        EXPECT_EQ(text, JsonText::compact(value));
        writer.append(value, appended);
        expected += text;
    }
    EXPECT_EQ(expected, appended) << "appends, and writes each value as the plain writer does";

    // Too deep a nesting stops the reader with an exception; the kept reader goes on parsing.
    JsonText::Reader reader;
    Json::Value out = "untouched";
    const std::string deep =
        std::string(JsonText::MAX_DEPTH + 1, '[') + std::string(JsonText::MAX_DEPTH + 1, ']');
    EXPECT_FALSE(reader.parse(deep.data(), deep.size(), out));
    EXPECT_FALSE(reader.parse("{\"a\":1,\"a\":2}", 13, out));
    EXPECT_EQ("untouched", out.asString());
    EXPECT_TRUE(reader.parse(appended.data() + 5, Json::writeString(plain, values[0]).size(), out));
    EXPECT_EQ(values[0], out);
    const std::string all = Json::writeString(plain, values);
    ASSERT_TRUE(reader.parse(all.data(), all.size(), out));
    EXPECT_EQ(all, Json::writeString(plain, out));
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
