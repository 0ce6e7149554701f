// The JSON records as peers see them: values travel through text, so types count (an integer 0
// is not a real 0.0, true is not 1); set values only, narrowing and sentinels as the device's
// services expect; unreadable input logged or thrown, never guessed at.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cmath>
#include <limits>
#include <memory>

#include "ClockIdentityText.h"
#include "Logger.h"
#include "OstPmcPtpCfg.h"
#include "PtpFsmStates.h"
#include "PtpNotificationInfo.h"
#include "PtpStats.h"

namespace {

using P = PtpProfile;
using S = PtpFsmStates;
using N = PtpNotificationInfo;

Json::Value parse(const std::string& text) {
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    Json::Value value;
    EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
    return value;
}

std::string write(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

template <typename Record>
Json::Value serialized(const Record& record) {
    Json::Value out;
    record.Serialize(out);
    return parse(write(out));
}

template <typename Record>
Record readFrom(const std::string& text) {
    Json::Value in = parse(text);
    Record record;
    record.Deserialize(in);
    return record;
}

// Read into a fresh record, which then serialises to the same text: with values that all
// differ from the defaults, a field lost or renamed either way shows.
template <typename Record>
Record expectRoundTrip(const std::string& text) {
    const Record record = readFrom<Record>(text);
    EXPECT_EQ(parse(text), serialized(record));
    return record;
}

template <typename Record>
void expectThrows(std::initializer_list<const char*> texts) {
    for (const char* text : texts) {
        EXPECT_THROW(readFrom<Record>(text), Json::Exception) << text;
    }
}

TEST(OstPmcPtpCfg, SerialisesSetValuesOnlyAndRoundTrips) {
    EXPECT_EQ(write(serialized(OstPmcPtpCfg())),
              R"({"cfgFilePath":"","profile":"AES67:Media","slaveOnly":-1})");
    OstPmcPtpCfg cfg = expectRoundTrip<OstPmcPtpCfg>(
        R"({"profile": "SMPTE:2059-2", "domainNumber": 127, "priority1": 0, "priority2": 254,
            "cfgFilePath": "/etc/ptp/ptpProfile.cfg", "slaveOnly": 1,
            "port": [{"port": 1, "syncInterval": -3, "announceInterval": -2,
                      "announceReceiptTimeout": 3}, {"port": 2, "announceInterval": 1}]})");
    EXPECT_EQ(254, cfg.priority2);
    // The reserved text is never serialised.
    const Json::Value full = serialized(cfg);
    cfg.m_reserved_text = "kept";
    EXPECT_EQ(full, serialized(cfg));

    // Values take their low eight bits; not set (255, port members 127) is left out.
    const std::pair<const char*, const char*> narrowed[] = {
        {R"({"domainNumber": 300})", R"({"domainNumber": 44})"},
        {R"({"domainNumber": 256})", R"({"domainNumber": 0})"},
        {R"({"domainNumber": 255, "priority1": 511, "priority2": 2})", R"({"priority2": 2})"},
        {R"({"port": [{"syncInterval": 255}]})", R"({"port": [{"syncInterval": -1}]})"},
        {R"({"port": [{"syncInterval": 256}]})", R"({"port": [{"syncInterval": 0}]})"},
        {R"({"port": [{"announceInterval": 383}]})", R"({"port": [null]})"},
        {R"({"port": [{"port": -129, "announceReceiptTimeout": 127}]})", R"({"port": [null]})"},
        {R"({"slaveOnly": true})", R"({"slaveOnly": 1})"},
    };
    for (const auto& [json, written] : narrowed) {
        Json::Value expected = parse(written);
        expected["profile"] = "AES67:Media";
        expected["cfgFilePath"] = "";
        expected["slaveOnly"] = expected.get("slaveOnly", -1);
        EXPECT_EQ(expected, serialized(readFrom<OstPmcPtpCfg>(json))) << json;
    }
}

TEST(OstPmcPtpCfg, PortEntriesAreAppendedUnknownProfileKeptWrongTypesThrow) {
    OstPmcPtpCfg cfg = readFrom<OstPmcPtpCfg>(
        R"({"profile": "SMPTE:2059-2", "port": [{"port": 1}, {"port": 2, "syncInterval": 1}]})");
    Json::Value in = parse(R"({"profile": "ptp", "priority1": 5, "port": [{"port": 3}, {}]})");
    cfg.Deserialize(in);
    EXPECT_EQ(P::PROFILE_SMPTE_2059_2, cfg.profile.getProfile());
    EXPECT_EQ(5, cfg.priority1);
    // An entry with nothing set still takes its place in the list, as null.
    EXPECT_EQ(parse(R"([{"port": 1}, {"port": 2, "syncInterval": 1}, {"port": 3}, null])"),
              serialized(cfg)["port"]);
    // Reading adds a null "port" member to input without one.
    in = parse(R"({"domainNumber": 3})");
    cfg.Deserialize(in);
    EXPECT_TRUE(in.isMember("port") && in["port"].isNull());
    expectThrows<OstPmcPtpCfg>(
        {R"({"domainNumber": -1})", R"({"priority1": "high"})", R"({"slaveOnly": "yes"})",
         R"({"cfgFilePath": {}})", R"({"port": {"port": 1}})", R"({"port": [1]})", "[]",
         R"({"port": [{"port": "1"}]})", R"({"port": [{"announceInterval": 3000000000}]})"});
}

TEST(PtpProfile, TextsAndAliases) {
    const std::pair<const char*, P::ptp_profile_t> accepted[] = {
        {"IEEE1588:Default", P::PROFILE_IEEE1588_DEFAULT},
        {"default", P::PROFILE_IEEE1588_DEFAULT},
        // Names the IEEE 1588 default profile, not AES67 media.
        {"AES67:Default", P::PROFILE_IEEE1588_DEFAULT},
        {"AES67:Media", P::PROFILE_AES67_MEDIA},
        {"aes67", P::PROFILE_AES67_MEDIA},
        {"SMPTE:2059-2", P::PROFILE_SMPTE_2059_2},
        {"smpte", P::PROFILE_SMPTE_2059_2},
        {"GPTP:L2", P::PROFILE_GPTP_L2},
        {"gptp", P::PROFILE_GPTP_L2},
    };
    for (const auto& [text, expected] : accepted) {
        // From a value that no text maps to, so that every match shows.
        P profile(P::ptp_profile_t(9));
        EXPECT_EQ(0, profile.setProfile(std::string(text))) << text;
        EXPECT_EQ(expected, profile.getProfile()) << text;
    }
    // Other texts are refused, and the value stays, whether set or read.
    for (const char* text : {"", "AES67", "Gptp", "gptp ", "Undefined"}) {
        P profile(P::PROFILE_SMPTE_2059_2);
        EXPECT_EQ(-8, profile.setProfile(std::string(text))) << text;
        Json::Value in;
        in["profile"] = text;
        profile.Deserialize(in);
        EXPECT_EQ(P::PROFILE_SMPTE_2059_2, profile.getProfile()) << text;
    }
    const char* const canonical[] = {"IEEE1588:Default", "AES67:Media", "SMPTE:2059-2", "GPTP:L2"};
    for (int value = -1; value <= 4; ++value) {
        const bool known = value >= 0 && value <= 3;
        Json::Value wire = serialized(P(P::ptp_profile_t(value)));
        EXPECT_EQ(known ? canonical[value] : "Undefined", wire["profile"].asString());
        // Read back into a different value: a known text round-trips, "Undefined" changes nothing.
        P received(P::ptp_profile_t(value == 1 ? 0 : 1));
        received.Deserialize(wire);
        EXPECT_EQ(known ? value : 1, received.getProfile()) << value;
    }
    EXPECT_EQ("AES67:Media", P().toString());
    expectThrows<P>({R"({"profile": ["gptp"]})", R"({"profile": {"a": 1}})", "[1]"});
    P target(P::PROFILE_SMPTE_2059_2);
    target = P(P::PROFILE_GPTP_L2);
    EXPECT_EQ(P::PROFILE_GPTP_L2, P(target).getProfile());
}

TEST(PtpStats, SerialisesEveryFieldRoundsAndClamps) {
    expectRoundTrip<PtpStats>(R"({"masterOffsetRMS": 12, "masterOffsetMaxAbs": -2147483648,
        "freqDeviationMean": -4000, "freqDeviationStdDev": 2147483647, "pathDelayMean": 850,
        "pathDelayStdDev": 3, "offsetFromMaster": -0.75, "offsetScaledLogVariance": 65535})");
    // Missing keys read as zero.
    EXPECT_EQ(parse(R"({"masterOffsetRMS": 0, "masterOffsetMaxAbs": 0, "freqDeviationMean": 0,
                        "freqDeviationStdDev": 0, "pathDelayMean": 0, "pathDelayStdDev": 0,
                        "offsetFromMaster": 0.0, "offsetScaledLogVariance": 0})"),
              serialized(readFrom<PtpStats>("{}")));
    EXPECT_EQ(1,
              readFrom<PtpStats>(R"({"offsetScaledLogVariance": 65537})").offsetScaledLogVariance);
    expectThrows<PtpStats>({R"({"masterOffsetRMS": "12"})", R"({"pathDelayMean": 2147483648})",
                            R"({"offsetFromMaster": [1]})", R"({"offsetScaledLogVariance": -1})",
                            "3"});
    // Delivered values round half away from zero and clamp.
    constexpr int32_t MAX = std::numeric_limits<int32_t>::max();
    constexpr int32_t MIN = std::numeric_limits<int32_t>::min();
    const std::pair<double, int32_t> cases[] = {
        {2.5, 3},    {-2.5, -3},   {2.49, 2},       {-0.5, -1}, {-0.0, 0},
        {1e12, MAX}, {-1e12, MIN}, {INFINITY, MAX}, {NAN, 0},
    };
    for (const auto& [delivered, expected] : cases) {
        EXPECT_EQ(expected, PtpStats::toStatValue(delivered)) << delivered;
    }
}

TEST(PtpBaseInfo, ClockAccuracyTextTravelsAndIsNotReadBack) {
    const unsigned char gm[8] = {0x0a, 0x0b, 0x0c, 0xff, 0xfe, 0x0d, 0x0e, 0x0f};
    EXPECT_EQ("0a-0b-0c-ff-fe-0d-0e-0f", clockIdentityText(gm));
    // 0x2A..0x2E and 0x80..0xFC differ from IEEE 1588: operators know the device's texts.
    const std::pair<uint8_t, const char*> cases[] = {
        {0x1F, "Reserved"},     {0x20, "within 25ns"},  {0x2A, "within 25ms"},
        {0x2B, "within 100ms"}, {0x2C, "within 250ms"}, {0x2D, "within 10ms"},
        {0x2E, "within 250ms"}, {0x31, ">10s"},         {0x32, "Reserved"},
        {0x80, "Reserved"},     {0xFC, "Reserved"},     {0xFD, "Alternate PTP profiles"},
        {0xFE, "Unknown"},      {0xFF, "Reserved"},
    };
    for (const auto& [code, text] : cases) {
        PtpBaseInfo clock;
        clock.clockAccuracy = code;
        Json::Value wire = serialized(clock);
        EXPECT_EQ(text, wire["clockAccuracyTable6"].asString()) << int(code);
        wire["clockAccuracyTable6"] = "within 1s";
        EXPECT_EQ(code, readFrom<PtpBaseInfo>(write(wire)).clockAccuracy);
    }
}

// GPTP profile, two clocks, two ports; every value differs from the defaults.
const std::string STATUS = R"({"domainNumber": 127, "offsetScaledLogVariance": 20061,
    "stepsRemoved": 65535, "offsetFromMaster": -12.5, "meanPathDelay": 1234.25,
    "slaveOnly": false, "profile": "GPTP:L2",
    "local": {"id": "00-11-22-ff-fe-33-44-55", "priority1": 128, "priority2": 127,
              "clockClass": 248, "clockAccuracy": 254, "clockAccuracyTable6": "Unknown",
              "scaledLogVariance": 65535, "slaveOnly": true},
    "grandMaster": {"id": "0a-0b-0c-ff-fe-0d-0e-0f", "priority1": 1, "priority2": 2,
                    "clockClass": 6, "clockAccuracy": 33, "clockAccuracyTable6": "within 100ns",
                    "scaledLogVariance": 17, "slaveOnly": false},
    "port": [{"id": "00-11-22-ff-fe-33-44-55", "roleStatus": "SLAVE", "roleStatusId": 9,
              "delayMechanism": "E2E", "syncInterval": -3, "announceInterval": 1,
              "announceReceiptTimeout": 3, "logMinPdelayReqInterval": -128,
              "logMinDelayReqInterval": 127, "portId": 1, "peerMeanPathDelay": -1099511627776},
             {"id": "", "roleStatus": "PASSIVE", "roleStatusId": 7, "delayMechanism": "P2P",
              "syncInterval": 0, "announceInterval": 0, "announceReceiptTimeout": 0,
              "logMinPdelayReqInterval": 0, "logMinDelayReqInterval": 0, "portId": 2,
              "peerMeanPathDelay": 0}]})";

TEST(PtpCommonInfo, SerialisesEveryFieldWithItsTypeAndRoundTrips) {
    const std::string clock = R"({"id": "", "priority1": 0, "priority2": 0, "clockClass": 0,
        "clockAccuracy": 0, "clockAccuracyTable6": "Reserved", "scaledLogVariance": 0,
        "slaveOnly": true})";
    EXPECT_EQ(parse(R"({"domainNumber": 0, "offsetScaledLogVariance": 0, "stepsRemoved": 0,
                        "offsetFromMaster": 0.0, "meanPathDelay": 0.0, "slaveOnly": true,
                        "profile": "AES67:Media", "local": )" +
                    clock + R"(, "grandMaster": )" + clock + "}"),
              serialized(PtpCommonInfo()));
    const PtpCommonInfo info = expectRoundTrip<PtpCommonInfo>(STATUS);
    EXPECT_EQ(128, info.local.priority1);
    EXPECT_EQ(-1099511627776, info.port[0].peerMeanPathDelay);

    // Reading narrows to each field's width.
    const auto narrowed = readFrom<PtpCommonInfo>(
        R"({"domainNumber": 300, "stepsRemoved": 65536, "local": {"scaledLogVariance": 65537},
            "port": [{"roleStatusId": 266, "portId": 65537, "syncInterval": 255,
                      "announceInterval": -129, "peerMeanPathDelay": -9223372036854775808}]})");
    EXPECT_EQ(44, narrowed.domainNumber);
    EXPECT_EQ(0, narrowed.stepsRemoved);
    EXPECT_EQ(1, narrowed.local.scaledLogVariance);
    EXPECT_EQ(10, narrowed.port[0].roleStatusId);
    EXPECT_EQ(1, narrowed.port[0].portId);
    EXPECT_EQ(-1, narrowed.port[0].syncInterval);
    EXPECT_EQ(127, narrowed.port[0].announceInterval);
    EXPECT_EQ(INT64_MIN, narrowed.port[0].peerMeanPathDelay);
}

TEST(PtpCommonInfo, ReadingAppendsPortsAndLeavesInputAlone) {
    PtpCommonInfo twice;
    const Json::Value wire = parse(STATUS);
    Json::Value in = wire;
    twice.Deserialize(in);
    twice.Deserialize(in);
    EXPECT_EQ(in, wire);
    ASSERT_EQ(4u, twice.port.size());
    EXPECT_EQ(wire["port"][1], serialized(twice)["port"][3]);
    // Missing keys read as the defaults; only the profile stays as it was.
    PtpCommonInfo reread = readFrom<PtpCommonInfo>(STATUS);
    reread.port.clear();
    reread.profile = PtpProfile();
    Json::Value empty(Json::objectValue);
    reread.Deserialize(empty);
    EXPECT_EQ(serialized(PtpCommonInfo()), serialized(reread));
    expectThrows<PtpCommonInfo>(
        {R"({"slaveOnly": "yes"})", R"({"domainNumber": -1})", R"({"offsetFromMaster": "1.5"})",
         R"({"local": 5})", R"({"grandMaster": {"id": ["x"]}})",
         R"({"port": [{"peerMeanPathDelay": "big"}]})", R"({"port": [{"portId": 1.5e30}]})"});
}

// The state read from text into a record that was in state from; nothing may be logged.
S::en_states readState(const std::string& text, S::en_states from) {
    LogCapture log;
    S state(from);
    Json::Value in = parse(text);
    state.Deserialize(in);
    EXPECT_TRUE(log.lines().empty()) << text;
    return state.state;
}

TEST(PtpFsmStates, TextsTravelAndOnlyExactOnesAreRead) {
    const char* const texts[] = {"init", "failure", "master", "slave-unstable", "slave-stable"};
    for (int value = -1; value <= 5; ++value) {
        const bool known = value >= 0 && value <= 4;
        const std::string json =
            R"({"ptp-state": ")" + std::string(known ? texts[value] : "undefined") + "\"}";
        EXPECT_EQ(parse(json), serialized(S(S::en_states(value))));
        // Read back from another state: an unknown text, "undefined" included, is INIT.
        EXPECT_EQ(known ? S::en_states(value) : S::INIT,
                  readState(json, value == 2 ? S::SLAVE_STABLE : S::MASTER));
    }
    for (const char* text : {R"({"ptp-state": "Master"})", R"({"ptp-state": ""})", "{}"}) {
        EXPECT_EQ(S::INIT, readState(text, S::MASTER));
    }
    // A state that is no text is logged and the state kept.
    for (const char* text : {R"({"ptp-state": 2})", R"({"ptp-state": null})",
                             R"({"ptp-state": ["master"]})", R"([1, 2])", R"("master")"}) {
        LogCapture log;
        S state(S::SLAVE_UNSTABLE);
        Json::Value in = parse(text);
        state.Deserialize(in);
        EXPECT_EQ(S::SLAVE_UNSTABLE, state.state) << text;
        ASSERT_EQ(1u, log.lines().size()) << text;
        EXPECT_TRUE(log.contains(
            "[PtpFsmStates] Error de-serializing json [" + in.toStyledString() + "]", Logger::ERR));
    }
}

TEST(PtpNotificationInfo, ActionAsNumberStateAsTextAndRoundTrip) {
    const char* const actions[] = {"no-action",    "mute-all",  "resume-all",
                                   "reset-rtp-ts", "no-action", "undefined"};
    for (int value = 0; value <= 5; ++value) {
        EXPECT_STREQ(actions[value], N::actionText(N::en_actions(value)));
    }
    const std::string json = R"({"action": 1, "gmid": "0a-0b-0c-ff-fe-0d-0e-0f", "domain": 127,
                                 "ptp-state": "failure", "details": )" +
                             STATUS + "}";
    N info = expectRoundTrip<N>(json);
    EXPECT_EQ(N::ACTION_MUTE_ALL, info.action);
    // Details' ports are appended; the domain takes its low eight bits; a state that is no text
    // is the state record's fault alone and keeps the state.
    Json::Value wire = parse(json);
    wire["domain"] = 300;
    wire["ptp-state"] = 4;
    LogCapture log;
    info.Deserialize(wire);
    EXPECT_EQ(4u, info.details.port.size());
    EXPECT_EQ(44, info.domain);
    EXPECT_EQ(S::FAILURE, info.ptpState.state);
    EXPECT_TRUE(log.containsFragment("[PtpFsmStates] Error de-serializing json"));
}

TEST(PtpNotificationInfo, FaultIsLoggedAndKeepsFieldsReadBeforeIt) {
    // Fields are read in the order gmid, domain, action, state, details.
    const struct {
        const char* json;
        const char* gmid;
        int domain;
        N::en_actions action;
        int detailsDomain;
    } cases[] = {
        {R"({"gmid": ["x"], "domain": 1})", "old", 99, N::ACTION_MUTE_ALL, 50},
        {R"({"gmid": "new", "domain": 1, "action": 2, "details": 7})", "new", 1,
         N::ACTION_RESUME_ALL, 50},
        {R"({"details": {"domainNumber": 3, "slaveOnly": "yes"}})", "", 0, N::ACTION_UNDEFINED, 3},
        {R"([])", "old", 99, N::ACTION_MUTE_ALL, 50},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        LogCapture log;
        N info;
        info.gmid = "old";
        info.domain = 99;
        info.action = N::ACTION_MUTE_ALL;
        info.details.domainNumber = 50;
        Json::Value in = parse(c.json);
        info.Deserialize(in);
        EXPECT_EQ(c.gmid, info.gmid);
        EXPECT_EQ(c.domain, info.domain);
        EXPECT_EQ(c.action, info.action);
        EXPECT_EQ(c.detailsDomain, info.details.domainNumber);
        ASSERT_EQ(1u, log.lines().size());
        EXPECT_TRUE(log.contains(
            "[PtpNotificationInfo] Error de-serializing json [" + in.toStyledString() + "]",
            Logger::ERR));
    }
}

}  // namespace
