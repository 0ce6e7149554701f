#include <gtest/gtest.h>

#include "OstPmcPtpCfg.h"
#include "OstPmcPtpPortCfg.h"
#include "RecordJson.h"

namespace {

using record_json::parse;
using record_json::readFrom;
using record_json::serialized;

void expectSamePort(const OstPmcPtpPortCfg& expected, const OstPmcPtpPortCfg& actual) {
    EXPECT_EQ(expected.port, actual.port);
    EXPECT_EQ(expected.syncInterval, actual.syncInterval);
    EXPECT_EQ(expected.announceInterval, actual.announceInterval);
    EXPECT_EQ(expected.announceReceiptTimeout, actual.announceReceiptTimeout);
}

OstPmcPtpPortCfg makePort(int8_t port, int8_t sync, int8_t announce, int8_t timeout) {
    OstPmcPtpPortCfg cfg;
    cfg.port = port;
    cfg.syncInterval = sync;
    cfg.announceInterval = announce;
    cfg.announceReceiptTimeout = timeout;
    return cfg;
}

OstPmcPtpCfg makeFullConfig() {
    OstPmcPtpCfg cfg;
    cfg.profile.setProfile(PtpProfile::PROFILE_SMPTE_2059_2);
    cfg.domainNumber = 127;
    cfg.priority1 = 0;
    cfg.priority2 = 254;
    cfg.slaveOnly = 1;
    cfg.m_cfg_path = "/etc/ptp/ptpProfile.cfg";
    cfg.m_reserved_text = "kept";
    cfg.ports.push_back(makePort(1, -3, -2, 3));
    cfg.ports.push_back(makePort(2, OstPmcPtpPortCfg::NOT_SET, 1, OstPmcPtpPortCfg::NOT_SET));
    return cfg;
}

// --- Port settings ---

TEST(OstPmcPtpPortCfg, DefaultIsUnsetAndWritesNothing) {
    OstPmcPtpPortCfg cfg;
    expectSamePort(makePort(127, 127, 127, 127), cfg);
    Json::Value out(Json::objectValue);
    cfg.Serialize(out);
    EXPECT_JSON_EQ("{}", out);
}

TEST(OstPmcPtpPortCfg, ReadsLowEightBitsAsSigned) {
    const struct {
        const char* json;
        int8_t expected;
        bool written;
    } cases[] = {
        {R"({"syncInterval": -3})", -3, true},
        {R"({"syncInterval": 0})", 0, true},
        {R"({"syncInterval": -128})", -128, true},
        {R"({"syncInterval": 126})", 126, true},
        {R"({"syncInterval": 255})", -1, true},
        {R"({"syncInterval": 256})", 0, true},
        {R"({"syncInterval": -129})", 127, false},
        // 127 and anything whose low byte is 127 means not set.
        {R"({"syncInterval": 127})", 127, false},
        {R"({"syncInterval": 383})", 127, false},
        {R"({})", 127, false},
        // jsoncpp reads null as 0.
        {R"({"syncInterval": null})", 0, true},
        {R"({"syncInterval": true})", 1, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        const auto cfg = readFrom<OstPmcPtpPortCfg>(c.json);
        EXPECT_EQ(c.expected, cfg.syncInterval);
        Json::Value out = serialized(cfg);
        EXPECT_EQ(c.written, out.isMember("syncInterval"));
        if (c.written) {
            EXPECT_EQ(c.expected, out["syncInterval"].asInt());
        }
    }
}

TEST(OstPmcPtpPortCfg, EveryMemberHasItsOwnKey) {
    const auto cfg = readFrom<OstPmcPtpPortCfg>(
        R"({"port": 4, "syncInterval": -4, "announceInterval": 2, "announceReceiptTimeout": 5})");
    expectSamePort(makePort(4, -4, 2, 5), cfg);
    EXPECT_JSON_EQ(
        R"({"port": 4, "syncInterval": -4, "announceInterval": 2, "announceReceiptTimeout": 5})",
        serialized(cfg));
    expectSamePort(cfg, record_json::roundTrip(cfg));
}

TEST(OstPmcPtpPortCfg, WrongTypedValueThrowsThrough) {
    for (const char* text :
         {R"({"port": "1"})", R"({"syncInterval": [1]})", R"({"announceInterval": 3000000000})"}) {
        SCOPED_TRACE(text);
        Json::Value in = parse(text);
        OstPmcPtpPortCfg cfg;
        EXPECT_THROW(cfg.Deserialize(in), Json::Exception);
    }
}

// --- Clock-wide configuration ---

TEST(OstPmcPtpCfg, DefaultWritesOnlyTheAlwaysPresentKeys) {
    OstPmcPtpCfg cfg;
    EXPECT_EQ(PtpProfile::PROFILE_AES67_MEDIA, cfg.profile.getProfile());
    EXPECT_JSON_EQ(R"({"profile": "AES67:Media", "cfgFilePath": "", "slaveOnly": -1})",
                   serialized(cfg));
}

TEST(OstPmcPtpCfg, FullConfigurationSerializes) {
    EXPECT_JSON_EQ(R"({
        "profile": "SMPTE:2059-2", "domainNumber": 127, "priority1": 0, "priority2": 254,
        "cfgFilePath": "/etc/ptp/ptpProfile.cfg", "slaveOnly": 1,
        "port": [{"port": 1, "syncInterval": -3, "announceInterval": -2,
                  "announceReceiptTimeout": 3},
                 {"port": 2, "announceInterval": 1}]})",
                   serialized(makeFullConfig()));
}

TEST(OstPmcPtpCfg, RoundTripKeepsEverythingButTheReservedText) {
    const OstPmcPtpCfg original = makeFullConfig();
    const OstPmcPtpCfg received = record_json::roundTrip(original);
    EXPECT_EQ(original.profile.getProfile(), received.profile.getProfile());
    EXPECT_EQ(original.domainNumber, received.domainNumber);
    EXPECT_EQ(original.priority1, received.priority1);
    EXPECT_EQ(original.priority2, received.priority2);
    EXPECT_EQ(original.slaveOnly, received.slaveOnly);
    EXPECT_EQ(original.m_cfg_path, received.m_cfg_path);
    EXPECT_EQ("", received.m_reserved_text);
    ASSERT_EQ(2u, received.ports.size());
    expectSamePort(original.ports[0], received.ports[0]);
    expectSamePort(original.ports[1], received.ports[1]);
}

TEST(OstPmcPtpCfg, BytesTakeTheirLowEightBits) {
    const struct {
        const char* json;
        uint8_t expected;
        bool written;
    } cases[] = {
        {R"({"domainNumber": 0})", 0, true},
        {R"({"domainNumber": 254})", 254, true},
        // 255 is the not-set marker, so it can never be configured.
        {R"({"domainNumber": 255})", 255, false},
        {R"({"domainNumber": 256})", 0, true},
        {R"({"domainNumber": 511})", 255, false},
        {R"({"domainNumber": 300})", 44, true},
        {R"({})", 255, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        const auto cfg = readFrom<OstPmcPtpCfg>(c.json);
        EXPECT_EQ(c.expected, cfg.domainNumber);
        Json::Value out = serialized(cfg);
        EXPECT_EQ(c.written, out.isMember("domainNumber"));
    }
    // The three bytes are read from their own keys.
    const auto cfg = readFrom<OstPmcPtpCfg>(R"({"priority1": 1, "priority2": 2})");
    EXPECT_EQ(255, cfg.domainNumber);
    EXPECT_EQ(1, cfg.priority1);
    EXPECT_EQ(2, cfg.priority2);
}

TEST(OstPmcPtpCfg, SlaveOnlyReadsNumbersAndBooleans) {
    const struct {
        const char* json;
        int32_t expected;
    } cases[] = {
        {R"({"slaveOnly": true})", 1}, {R"({"slaveOnly": false})", 0}, {R"({"slaveOnly": 1})", 1},
        {R"({"slaveOnly": 0})", 0},    {R"({"slaveOnly": -1})", -1},   {R"({})", -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        const auto cfg = readFrom<OstPmcPtpCfg>(c.json);
        EXPECT_EQ(c.expected, cfg.slaveOnly);
        EXPECT_EQ(c.expected, serialized(cfg)["slaveOnly"].asInt());
    }
}

TEST(OstPmcPtpCfg, PartialPortEntryKeepsOtherMembersUnset) {
    const auto cfg = readFrom<OstPmcPtpCfg>(R"({"port": [{"port": 1, "syncInterval": -3}]})");
    ASSERT_EQ(1u, cfg.ports.size());
    expectSamePort(makePort(1, -3, 127, 127), cfg.ports[0]);
    EXPECT_JSON_EQ(R"({"port": 1, "syncInterval": -3})", serialized(cfg)["port"][0]);
}

TEST(OstPmcPtpCfg, PortEntriesAreAppendedToThoseHeld) {
    OstPmcPtpCfg cfg = makeFullConfig();
    Json::Value in = parse(R"({"port": [{"port": 3}, {}]})");
    cfg.Deserialize(in);
    ASSERT_EQ(4u, cfg.ports.size());
    expectSamePort(makePort(1, -3, -2, 3), cfg.ports[0]);
    expectSamePort(makePort(3, 127, 127, 127), cfg.ports[2]);
    expectSamePort(OstPmcPtpPortCfg(), cfg.ports[3]);
    // An entry with nothing set still travels as an entry.
    EXPECT_JSON_EQ("{}", serialized(cfg)["port"][3]);
}

TEST(OstPmcPtpCfg, ReadingAddsANullPortMemberToTheRequest) {
    Json::Value in = parse(R"({"domainNumber": 3})");
    OstPmcPtpCfg cfg;
    cfg.Deserialize(in);
    EXPECT_TRUE(cfg.ports.empty());
    ASSERT_TRUE(in.isMember("port"));
    EXPECT_TRUE(in["port"].isNull());
}

TEST(OstPmcPtpCfg, UnknownProfileKeepsTheProfileAndReadsTheRest) {
    OstPmcPtpCfg cfg;
    cfg.profile.setProfile(PtpProfile::PROFILE_GPTP_L2);
    Json::Value in = parse(R"({"profile": "ptp", "priority1": 5})");
    cfg.Deserialize(in);
    EXPECT_EQ(PtpProfile::PROFILE_GPTP_L2, cfg.profile.getProfile());
    EXPECT_EQ(5, cfg.priority1);
}

TEST(OstPmcPtpCfg, WrongTypedValueThrowsThrough) {
    for (const char* text :
         {R"({"domainNumber": -1})", R"({"priority1": "high"})", R"({"slaveOnly": "yes"})",
          R"({"cfgFilePath": {}})", R"({"port": {"port": 1}})", R"({"port": [1]})", R"([])"}) {
        SCOPED_TRACE(text);
        Json::Value in = parse(text);
        OstPmcPtpCfg cfg;
        EXPECT_THROW(cfg.Deserialize(in), Json::Exception);
    }
}

TEST(OstPmcPtpCfg, CopyTakesEveryMember) {
    const OstPmcPtpCfg source = makeFullConfig();
    OstPmcPtpCfg target;
    target.ports.push_back(makePort(9, 9, 9, 9));
    target = source;
    EXPECT_EQ(PtpProfile::PROFILE_SMPTE_2059_2, target.profile.getProfile());
    EXPECT_EQ(127, target.domainNumber);
    EXPECT_EQ(0, target.priority1);
    EXPECT_EQ(254, target.priority2);
    EXPECT_EQ(1, target.slaveOnly);
    EXPECT_EQ("/etc/ptp/ptpProfile.cfg", target.m_cfg_path);
    EXPECT_EQ("kept", target.m_reserved_text);
    ASSERT_EQ(2u, target.ports.size());
    expectSamePort(source.ports[1], target.ports[1]);
}

}  // namespace
