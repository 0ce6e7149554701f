// Hostile requests through the server's own request socket, in-process against a fake ptp4l
// and a recording init script: each one is answered with the wire's envelope, and none of them
// changes the running configuration, the status, ptp4l, the init script or the publications.
#include <gtest/gtest.h>

#include <set>

#include "HostileRequests.h"
#include "JsonText.h"
#include "OstPmcServerProbe.h"
#include "ServerJsonApi.h"

namespace {

using Answer = HostileRequest::Answer;

constexpr int ONE_PORT_BOARD = 2;
const char* const GET_PTP_INFO = "{\"cmd\":0}";
const char* const GET_RUNNING_CFG = "{\"cmd\":2}";

// What can be seen of the server from outside, and what it did.
struct Observed {
    std::string runningCfg;  // reply text of GET OstPmc running config
    std::string status;      // reply text of GET PTP INFO
    std::vector<std::string> scriptRuns;

    bool operator==(const Observed& o) const {
        return runningCfg == o.runningCfg && status == o.status && scriptRuns == o.scriptRuns;
    }
};

Observed observe(OstPmcServerProbe& probe) {
    return {probe.requestText(GET_RUNNING_CFG), probe.requestText(GET_PTP_INFO),
            probe.initScriptRuns()};
}

bool loggedError(const LogCapture& log) {
    for (const LogCapture::Line& line : log.lines()) {
        if (line.level == Logger::ERR) {
            return true;
        }
    }
    return false;
}

// Empty when the reply is what the answer expects, else what is wrong with it.
std::string checkReply(const std::string& text, Answer answer) {
    Json::Value reply;
    if (!JsonText::parse(text.data(), text.size(), reply) || !reply.isObject()) {
        return "the reply is not a JSON object: " + text.substr(0, 200);
    }
    const Json::Value& result = reply["result"];
    const Json::Value& resultText = reply["resultText"];
    if (!result.isInt() || !resultText.isString() || !reply["data"].isObject()) {
        return "the reply is not the envelope: " + text.substr(0, 200);
    }
    const bool refused = result.asInt() == -8 && resultText.asString() == "ERROR_INVALID_PARAM" &&
                         reply["data"].empty();
    const bool ok = result.asInt() == 0 && resultText.asString() == "OK";
    const bool expected = answer == Answer::Refused   ? refused
                          : answer == Answer::Ignored ? ok
                                                      : refused || ok;
    return expected ? "" : "unexpected reply: " + text.substr(0, 200);
}

TEST(HostileRequests, KindsAreNamedOnceFitTheSocketAndComeOutTheSameEachTime) {
    const std::vector<HostileRequest> kinds = hostileRequests();
    EXPECT_GE(kinds.size(), 300u);
    std::set<std::string> names;
    std::set<Answer> answers;
    for (const HostileRequest& kind : kinds) {
        EXPECT_TRUE(names.insert(kind.name).second) << "named twice: " << kind.name;
        EXPECT_LE(kind.bytes.size(), static_cast<size_t>(ServerJsonApi::MAX_REQUEST_SIZE))
            << kind.name;
        answers.insert(kind.answer);
    }
    EXPECT_EQ(3u, answers.size());

    const std::vector<HostileRequest> again = hostileRequests();
    ASSERT_EQ(kinds.size(), again.size());
    for (size_t i = 0; i < kinds.size(); ++i) {
        EXPECT_EQ(kinds[i].name, again[i].name);
        EXPECT_EQ(kinds[i].bytes, again[i].bytes) << kinds[i].name;
    }
}

TEST(HostileRequests, EachIsAnsweredAndChangesNothingThenANormalRequestWorks) {
    OstPmcServerProbe probe(ONE_PORT_BOARD);
    // Configured and running, so that every value has something to overwrite.
    Json::Value cfg;
    cfg["profile"] = "AES67:Media";
    cfg["domainNumber"] = 0;
    cfg["priority1"] = 100;
    cfg["priority2"] = 120;
    cfg["port"][0]["port"] = 1;
    cfg["port"][0]["syncInterval"] = -3;
    cfg["port"][0]["announceInterval"] = 0;
    ASSERT_EQ(0, probe.result(3, cfg));
    ASSERT_EQ(0, probe.tick());
    ASSERT_EQ(1u, probe.initScriptRuns().size());
    probe.publications();
    probe.ptp4l().clearRequests();
    Observed before = observe(probe);

    for (const HostileRequest& kind : hostileRequests()) {
        SCOPED_TRACE(kind.name);
        probe.log().clear();
        const std::string reply = probe.requestText(kind.bytes);
        // A request left unanswered leaves the request socket stuck: nothing more can follow.
        ASSERT_FALSE(reply.empty()) << "no reply";
        const std::string wrong = checkReply(reply, kind.answer);
        EXPECT_EQ("", wrong);
        if (kind.answer == Answer::Refused) {
            EXPECT_TRUE(loggedError(probe.log())) << "refused without an ERR line";
        }
        EXPECT_TRUE(probe.copyCommands().empty()) << "a shell command ran";
        EXPECT_TRUE(probe.ptp4l().requests().empty()) << "ptp4l was asked something";
        probe.ptp4l().clearRequests();
        EXPECT_TRUE(probe.publications().empty()) << "something was published";

        const Observed now = observe(probe);
        if (!(now == before)) {
            // Named once; the kinds after it are compared with what it left.
            ADD_FAILURE() << "changed the server:\n  running config " << before.runningCfg
                          << "\n  -> " << now.runningCfg << "\n  status " << before.status
                          << "\n  -> " << now.status << "\n  init script runs "
                          << before.scriptRuns.size() << " -> " << now.scriptRuns.size();
            before = now;
        }
    }

    Json::Value parameter;
    parameter["priority1"] = 90;
    EXPECT_EQ(0, probe.result(1, parameter));
    EXPECT_EQ(90u, probe.request(2)["data"]["ptp"]["priority1"].asUInt());
    EXPECT_EQ(90, probe.ptp4l().model().priority1);
}

}  // namespace
