// The request server's replies, byte for byte: every request code, good and malformed, with
// the records in several states, against reply-bytes.golden; and the status queries' replies
// follow every change of a record at once, whatever the server keeps between requests.
//
// OSTPMC_WRITE_GOLDEN=1 writes the golden file from the running code instead of comparing.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <regex>

#include "IpcResult.h"
#include "OstPmcCommands.h"
#include "OstPmcServerProbe.h"
#include "SystemDefaultCfg.h"

namespace {

using Replies = std::vector<std::pair<std::string, std::string>>;

constexpr uint16_t PORT_DS = 0x2004, LOG_SYNC_INTERVAL = 0x200B;

// Port 1 a slave with odd figures, port 2 a master; fractional offsets and statistics that
// exercise the number formatting.
FakePtp4l::Model twoPorts() {
    FakePtp4l::Model model;
    model.ports.resize(2);
    model.ports[1].number = 2;
    model.ports[1].state = 6;
    model.ports[0].peerMeanPathDelay = 300LL * 65536;
    model.ports[0].logSyncInterval = -3;
    model.offsetFromMaster = -(1500LL * 65536 + 16384);
    model.meanPathDelay = 2500LL * 65536 + 32768;
    const double stats[6] = {2.5, -2.5, 2.4999, -2.4999, 0.0, 1e12};
    std::copy(stats, stats + 6, model.stats);
    return model;
}

// The monitor's wall-clock time and age differ from run to run; nothing else may.
std::string withoutTimes(const std::string& reply) {
    static const std::regex when(R"("lastGoodCycle":"[^"]*")");
    static const std::regex age(R"("secondsSinceLastGoodCycle":\d+)");
    return std::regex_replace(std::regex_replace(reply, when, R"("lastGoodCycle":"*")"), age,
                              R"("secondsSinceLastGoodCycle":0)");
}

// The reply to one request text, as the request socket answers it; its result in *result.
std::string ask(OstPmcServerProbe& probe, const std::string& request, int* result = nullptr) {
    std::string reply;
    const int answered = probe.server().answerRequest(request.data(), request.size(), reply);
    if (result) {
        *result = answered;
    }
    return reply;
}

std::string get(OstPmcServerProbe& probe, unsigned int code) {
    return ask(probe, "{\"cmd\":" + std::to_string(code) + "}");
}

void ticks(OstPmcServerProbe& probe, int count) {
    for (int cycle = 0; cycle < count; ++cycle) {
        probe.tick();
    }
}

struct Recorder {
    void ask(OstPmcServerProbe& probe, const std::string& name, const std::string& request) {
        int result = 0;
        const std::string reply = ::ask(probe, request, &result);
        replies.emplace_back(name, std::to_string(result) + " " + withoutTimes(reply));
    }
    void askGets(OstPmcServerProbe& probe, const std::string& state) {
        for (unsigned int code : {OSTPMC_GET_PTP_INFO, OSTPMC_GET_RUNNING_CFG, OSTPMC_GET_PTP_STATS,
                                  OSTPMC_GET_INTERNAL_DEBUG_INFO}) {
            ask(probe, state + "/get" + std::to_string(code),
                "{\"cmd\":" + std::to_string(code) + "}");
        }
    }
    Replies replies;
};

std::string nested(int depth) {
    return "{\"cmd\":0,\"data\":{\"a\":" + std::string(depth, '[') + std::string(depth, ']') + "}}";
}

std::string padded(size_t size) {
    const std::string head = "{\"cmd\":0,\"data\":{\"x\":\"", tail = "\"}}";
    return head + std::string(size - head.size() - tail.size(), 'a') + tail;
}

// The requests whose replies do not depend on the records' state.
const std::vector<std::pair<std::string, std::string>> SHAPES = {
    {"empty", ""},
    {"not-json", "not json"},
    {"array", "[0]"},
    {"string", "\"cmd\""},
    {"negative-cmd", R"({"cmd":-1})"},
    {"text-cmd", R"({"cmd":"0"})"},
    {"fraction-cmd", R"({"cmd":1.5})"},
    {"huge-cmd", R"({"cmd":4294967296})"},
    {"no-cmd", R"({"data":{}})"},
    {"data-number", R"({"cmd":0,"data":5})"},
    {"data-array", R"({"cmd":0,"data":[]})"},
    {"duplicate-cmd", R"({"cmd":0,"cmd":2})"},
    {"trailing-text", R"({"cmd":0} x)"},
    {"comment", R"({"cmd":0 /* c */})"},
    {"nul-inside", std::string("{\"cmd\":0}\0", 10)},
    {"bad-utf8", "{\"cmd\":0,\"data\":{\"x\":\"\xff\"}}"},
    {"deep-nesting", nested(200)},
    {"nesting-at-limit", nested(97)},
    {"largest", padded(64 * 1024)},
    {"too-large", padded(64 * 1024 + 1)},
    {"unknown-code", R"({"cmd":6})"},
    {"largest-code", R"({"cmd":4294967295})"},
    {"null-data", R"({"cmd":0,"data":null})"},
    {"empty-data", R"({"cmd":2,"data":{}})"},
    {"spaced", " { \"cmd\" : 2 , \"data\" : { \"ignored\" : 1 } } "},
    {"set-wrong-type", R"({"cmd":1,"data":{"priority1":"high"}})"},
    {"set-cfg-wrong-type", R"({"cmd":3,"data":{"profile":5}})"},
    {"set-cfg-bad-path", R"({"cmd":3,"data":{"profile":"AES67:Media","cfgFilePath":"/nowhere"}})"},
    {"stats-debug-data", R"({"cmd":5,"data":{"x":1}})"},
};

Replies record() {
    Recorder recorder;
    {
        OstPmcServerProbe::Setup setup;
        setup.board = KESTREL;
        setup.model = twoPorts();
        OstPmcServerProbe probe(setup);
        recorder.askGets(probe, "fresh");
        for (const auto& shape : SHAPES) {
            recorder.ask(probe, "fresh/" + shape.first, shape.second);
        }
        recorder.ask(probe, "configured/set",
                     R"({"cmd":3,"data":{"profile":"AES67:Media","priority1":90,"slaveOnly":0,)"
                     R"("port":[{"port":1,"syncInterval":-3}]}})");
        recorder.askGets(probe, "configured");
        recorder.ask(probe, "configured/repeated", R"({"cmd":3,"data":{"profile":"AES67:Media"}})");
        ticks(probe, 4);
        recorder.askGets(probe, "cycled");
        recorder.ask(probe, "parameter/set",
                     R"({"cmd":1,"data":{"priority1":100,"priority2":7,"syncInterval":-2}})");
        recorder.askGets(probe, "parameter");
        probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedSets = {LOG_SYNC_INTERVAL}; });
        recorder.ask(probe, "refused/set", R"({"cmd":1,"data":{"port":2,"syncInterval":1}})");
        recorder.askGets(probe, "refused");
        probe.ptp4l().update([](FakePtp4l::Model& m) {
            m.gmIdentity = {0x00, 0x1B, 0x19, 0xFF, 0xFE, 0x00, 0x00, 0x01};
            m.gmPriority1 = 90;
            m.offsetFromMaster = 12345LL * 65536 + 1;
            m.stepsRemoved = 3;
            m.ports[0].state = 7;
        });
        ticks(probe, 4);
        recorder.askGets(probe, "new-grandmaster");
        probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedGets = {PORT_DS}; });
        probe.tick();
        recorder.askGets(probe, "failed-cycle");
        recorder.ask(probe, "slave-only/set", R"({"cmd":1,"data":{"slaveOnly":true}})");
        recorder.ask(probe, "profile/set", R"({"cmd":1,"data":{"profile":"SMPTE:2059-2"}})");
        recorder.askGets(probe, "profile");
    }
    {
        OstPmcServerProbe::Setup setup;
        setup.board = 2;
        OstPmcServerProbe probe(setup);
        recorder.askGets(probe, "one-port");
        recorder.ask(probe, "one-port/set", R"({"cmd":3,"data":{"profile":"GPTP:L2"}})");
        ticks(probe, 2);
        recorder.askGets(probe, "one-port-cycled");
    }
    return recorder.replies;
}

std::string escaped(const std::string& text) {
    std::string out;
    for (unsigned char c : text) {
        if (c == '\\' || c < 0x20 || c >= 0x7F) {
            char hex[5];
            std::snprintf(hex, sizeof(hex), "\\x%02X", c);
            out += hex;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

}  // namespace

TEST(ReplyBytes, EveryRequestInEveryStateKeepsItsReply) {
    const Replies replies = record();
    if (std::getenv("OSTPMC_WRITE_GOLDEN")) {
        std::ofstream out(OSTPMC_REPLY_GOLDEN);
        for (const auto& [name, reply] : replies) {
            out << name << '\t' << escaped(reply) << '\n';
        }
        ASSERT_TRUE(out.good()) << OSTPMC_REPLY_GOLDEN;
        GTEST_SKIP() << "written " << OSTPMC_REPLY_GOLDEN;
    }
    std::ifstream in(OSTPMC_REPLY_GOLDEN);
    ASSERT_TRUE(in) << OSTPMC_REPLY_GOLDEN;
    std::map<std::string, std::string> golden;
    for (std::string line; std::getline(in, line);) {
        const size_t tab = line.find('\t');
        ASSERT_NE(std::string::npos, tab) << line;
        golden[line.substr(0, tab)] = line.substr(tab + 1);
    }
    EXPECT_EQ(golden.size(), replies.size());
    for (const auto& [name, reply] : replies) {
        EXPECT_EQ(golden[name], escaped(reply)) << name;
    }
}

namespace {

// What a reply must be: the envelope around the record as it is now, written the plain way.
std::string current(const Json::Value& data) {
    Json::Value envelope(Json::objectValue);
    envelope["result"] = 0;
    envelope["resultText"] = "OK";
    envelope["data"] = data;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, envelope);
}

// Each status query answers what its record holds now, asked twice so that a second answer
// could come from whatever the first one left behind.
void expectCurrent(OstPmcServerProbe& probe) {
    Json::Value status(Json::objectValue), cfg(Json::objectValue), stats(Json::objectValue);
    probe.status().Serialize(status);
    probe.runningCfg().Serialize(cfg["ptp"]);
    probe.stats().Serialize(stats["ptp-stats"]);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(current(status), get(probe, OSTPMC_GET_PTP_INFO));
        EXPECT_EQ(current(cfg), get(probe, OSTPMC_GET_RUNNING_CFG));
        EXPECT_EQ(current(stats), get(probe, OSTPMC_GET_PTP_STATS));
    }
}

}  // namespace

TEST(StatusReplies, FollowEveryTickSetterRequestAndBoardChange) {
    OstPmcServerProbe::Setup setup;
    setup.board = KESTREL;
    setup.model = twoPorts();
    OstPmcServerProbe probe(setup);
    expectCurrent(probe);
    // A change that shows in the reply to code at once.
    auto expectMoves = [&](unsigned int code, const std::function<void()>& change) {
        const std::string before = get(probe, code);
        change();
        EXPECT_NE(before, get(probe, code));
        expectCurrent(probe);
    };
    SCOPED_TRACE("status cycles");
    expectMoves(OSTPMC_GET_PTP_INFO, [&] { probe.tick(); });
    // Only the offset moves: one figure in a long reply, as a drifting clock shows it.
    expectMoves(OSTPMC_GET_PTP_INFO, [&] {
        probe.ptp4l().update([](FakePtp4l::Model& m) { m.offsetFromMaster += 65536; });
        probe.tick();
    });
    expectMoves(OSTPMC_GET_PTP_STATS, [&] {
        probe.ptp4l().update([](FakePtp4l::Model& m) { m.stats[0] = 77.0; });
        ticks(probe, 4);
    });

    SCOPED_TRACE("requests");
    auto resultOf = [&](const std::string& request) {
        int result = 1;
        ask(probe, request, &result);
        return result;
    };
    EXPECT_EQ(0, resultOf(R"({"cmd":3,"data":{"profile":"AES67:Media","priority1":90}})"));
    EXPECT_EQ(90, probe.runningCfg().priority1);
    expectCurrent(probe);
    EXPECT_EQ(0, resultOf(R"({"cmd":1,"data":{"priority2":7,"syncInterval":-2}})"));
    EXPECT_EQ(7, probe.runningCfg().priority2);
    expectCurrent(probe);
    // A request refused half-way keeps what it applied before the refusal.
    probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedSets = {LOG_SYNC_INTERVAL}; });
    EXPECT_EQ(-1, resultOf(R"({"cmd":1,"data":{"priority1":5,"syncInterval":1}})"));
    EXPECT_EQ(5, probe.runningCfg().priority1);
    expectCurrent(probe);

    SCOPED_TRACE("the server's own setters");
    EXPECT_EQ(0, probe.server().setPtpDomain(3));
    expectCurrent(probe);
    EXPECT_EQ(0, probe.server().setPtpAnnounceInterval(2, 1));
    expectCurrent(probe);
    // The restart that follows fails with the recording init script; the record changed all
    // the same.
    probe.server().setPtpSlaveOnly(true);
    EXPECT_EQ(1, probe.runningCfg().slaveOnly);
    expectCurrent(probe);

    SCOPED_TRACE("the board model");
    probe.root().writeSystemDefaults(4);
    ASSERT_EQ(0, SystemDefaultCfg::getInstance()->reload());
    EXPECT_EQ(IpcResult::ERROR_NOT_AVAILABLE, resultOf(R"({"cmd":4})"));
    probe.root().writeSystemDefaults(KESTREL);
    ASSERT_EQ(0, SystemDefaultCfg::getInstance()->reload());
    expectCurrent(probe);
}
