// Every request code answered by the running daemon through the client library.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>
#include <set>

#include "IpcResult.h"
#include "JsonText.h"
#include "Logger.h"
#include "OstPmcCommands.h"
#include "OstPmcJsonClient.h"
#include "RunningDaemon.h"

namespace {

// A client that can also send raw codes, as a misbehaving process would.
class RawClient : public OstPmcJsonClient {
  public:
    int raw(unsigned int code, Json::Value& reply) {
        IpcMsg msg(code);
        return sendMessage(msg, reply);
    }
};

class DaemonRequests : public ::testing::Test {
  protected:
    void start(int boardModel) {
        m_daemon = std::make_unique<RunningDaemon>(boardModel);
        ASSERT_TRUE(m_daemon->ready()) << m_daemon->process().stderrText();
        ASSERT_EQ(0, m_client.init(m_context));
    }
    std::string daemonLog() { return m_daemon->process().stderrText(); }

    zmq::context_t m_context;
    RawClient m_client;
    std::unique_ptr<RunningDaemon> m_daemon;
};

Json::Value parsed(const std::string& text) {
    Json::Value value;
    EXPECT_TRUE(JsonText::parse(text.data(), text.size(), value)) << text;
    return value;
}

// One request over a REQ socket of its own, as another process would send it; the reply's bytes.
std::string exchange(zmq::context_t& context, const std::string& request) {
    zmq::socket_t socket(context, zmq::socket_type::req);
    socket.set(zmq::sockopt::linger, 0);
    socket.set(zmq::sockopt::rcvtimeo, 5000);
    socket.connect("tcp://127.0.0.1:5573");
    socket.send(zmq::buffer(request));
    zmq::message_t reply;
    return socket.recv(reply) ? reply.to_string() : "";
}

std::string plainCompact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

}  // namespace

TEST_F(DaemonRequests, QueriesAnswerFromTheRecordsBeforePtp4lEverRanUnknownCodesAreRefused) {
    start(0);

    Json::Value status;
    ASSERT_EQ(0, m_client.getPtp(status));
    EXPECT_EQ("AES67:Media", status["profile"].asString());
    EXPECT_TRUE(status["slaveOnly"].asBool());
    EXPECT_TRUE(status["local"]["slaveOnly"].asBool());
    EXPECT_TRUE(status["grandMaster"]["slaveOnly"].asBool());
    EXPECT_EQ("Reserved", status["local"]["clockAccuracyTable6"].asString());
    EXPECT_FALSE(status.isMember("port"));

    Json::Value config;
    ASSERT_EQ(0, m_client.getPtpRunningConfig(config));
    EXPECT_EQ(parsed(R"({"ptp": {"profile": "AES67:Media", "cfgFilePath": "", "slaveOnly": -1}})"),
              config);

    Json::Value debug;
    ASSERT_EQ(0, m_client.getInternalDebugInfo(debug));
    EXPECT_EQ(status, debug["status"]);
    EXPECT_EQ(config["ptp"], debug["running-cfg"]);

    // Unknown codes are refused and logged, and the daemon goes on serving.
    Json::Value reply;
    EXPECT_EQ(IpcResult::ERROR_INVALID_PARAM, m_client.raw(6, reply));
    EXPECT_EQ("ERROR_INVALID_PARAM", m_client.getLastResultText());
    EXPECT_EQ(IpcResult::ERROR_INVALID_PARAM, m_client.raw(0xFFFFFFFFu, reply));
    ASSERT_TRUE(m_daemon->process().waitForStderr("Unrecognized command -1", 2000));
    EXPECT_NE(std::string::npos, daemonLog().find(" ERR OSTPMC:: Unrecognized command 6\n"));
    EXPECT_NE(std::string::npos, daemonLog().find(" ERR OSTPMC:: Unrecognized command -1\n"));
    EXPECT_EQ(0, m_client.getPtp(reply));
}

// The daemon's own loop: replies are the plain compact text of their envelope, the same bytes
// each time while nothing changes (the statistics test below sees them follow a change).
TEST_F(DaemonRequests, RepliesOnTheSocketAreTheCompactTextOfTheEnvelope) {
    start(3);
    for (const char* request : {"{\"cmd\":0}", "{\"cmd\":2}", "{\"cmd\":4}", "{\"cmd\":5}"}) {
        SCOPED_TRACE(request);
        const std::string reply = exchange(m_context, request);
        EXPECT_EQ(plainCompact(parsed(reply)), reply);
        EXPECT_EQ(0, parsed(reply)["result"].asInt());
    }
    EXPECT_EQ(exchange(m_context, "{\"cmd\":0}"), exchange(m_context, "{\"cmd\":0}"));
}

TEST_F(DaemonRequests, StatisticsFollowTheBoardModelOfTheSystemDefaults) {
    start(0);
    Json::Value reply;
    {
        LogCapture log;
        EXPECT_EQ(IpcResult::ERROR_NOT_AVAILABLE, m_client.getPtpStats(reply));
        EXPECT_TRUE(std::regex_match(
            log.lines().at(0).text,
            std::regex(
                R"(CHK\(int OstPmcJsonClient::getPtpStats\(Json::Value&\)\)::\d+ Error Code -29)")));
    }
    EXPECT_TRUE(reply.empty());

    // The board model comes from the defaults file and follows it while the daemon runs.
    for (int model : {3, 9}) {
        m_daemon->root().writeSystemDefaults(model);
        ASSERT_TRUE(eventually(
            [&] {
                reply = Json::Value();
                return m_client.getPtpStats(reply) == 0;
            },
            5000))
            << "board model " << model;
        const Json::Value& stats = reply["ptp-stats"];
        EXPECT_EQ(8u, stats.size());
        EXPECT_EQ(0, stats["masterOffsetRMS"].asInt());
        EXPECT_EQ(0.0, stats["offsetFromMaster"].asDouble());
    }
    m_daemon->root().writeSystemDefaults(4);
    EXPECT_TRUE(eventually(
        [&] { return m_client.getPtpStats(reply) == IpcResult::ERROR_NOT_AVAILABLE; }, 5000));
}

TEST(CommandDescriptions, ServerAndClientShareOneTable) {
    OstPmcJsonClient client;
    const char* const names[] = {// in the order of their codes
                                 "GET PTP INFO",
                                 "SET PTP Parameter",
                                 "GET OstPmc running config",
                                 "SET OstPmc running config",
                                 "GET PTP STATS",
                                 "GET OstPmc internal debug info"};
    for (unsigned int code = 0; code < 6; ++code) {
        std::string out = "x";
        EXPECT_EQ(0, client.getCommandDescription(code, out));
        EXPECT_EQ(names[code], out);
    }
    // Above the table: appended, not replaced. A negative code: left as it was.
    std::string out = "x";
    EXPECT_EQ(0, client.getCommandDescription(9, out));
    EXPECT_EQ("xnot recognized", out);
    out = "x";
    EXPECT_EQ(0, client.getCommandDescription(0xFFFFFFFFu, out));
    EXPECT_EQ("x", out);
}

TEST(ClientAddress, HostIsReplacedPortStays) {
    zmq::context_t context;
    OstPmcJsonClient client;
    EXPECT_EQ("tcp://127.0.0.1:5573", client.getIpcConnectAddress());
    std::string host = "127.0.0.5";
    ASSERT_EQ(0, client.init(context, host));
    EXPECT_EQ("tcp://127.0.0.5:5573", client.getIpcConnectAddress());
}

// With nobody to answer, every method fails with a line of its own: its signature and its own
// check number, so that an operator can tell which call failed.
TEST(ClientFailures, EachMethodLogsItsOwnCheck) {
    zmq::context_t context;
    class QuickClient : public OstPmcJsonClient {
        int getClientTimeout() override { return 50; }
    } client;
    std::string host = "127.0.0.9";
    ASSERT_EQ(0, client.init(context, host));
    Json::Value params(Json::objectValue), reply;
    LogCapture log;
    EXPECT_LT(client.getPtp(reply), 0);
    EXPECT_LT(client.setPtpParameter(params, reply), 0);
    EXPECT_LT(client.getPtpRunningConfig(reply), 0);
    EXPECT_LT(client.setPtpRunningConfig(params, reply), 0);
    EXPECT_LT(client.getPtpStats(reply), 0);
    EXPECT_LT(client.getInternalDebugInfo(reply), 0);
    const std::regex check(R"(CHK\(int OstPmcJsonClient::(\w+)\(.*\)\)::(\d+) Error Code -\d+)");
    std::vector<std::string> methods;
    std::set<std::string> numbers;
    for (const LogCapture::Line& line : log.lines()) {
        std::smatch m;
        if (std::regex_match(line.text, m, check)) {
            methods.push_back(m[1]);
            numbers.insert(m[2]);
        }
    }
    EXPECT_EQ(
        (std::vector<std::string>{"getPtp", "setPtpParameter", "getPtpRunningConfig",
                                  "setPtpRunningConfig", "getPtpStats", "getInternalDebugInfo"}),
        methods);
    EXPECT_EQ(6u, numbers.size());
}
