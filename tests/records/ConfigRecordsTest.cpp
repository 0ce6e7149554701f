#include <gtest/gtest.h>

#include "OstPmcPtpCfg.h"
#include "OstPmcPtpPortCfg.h"
#include "RecordJson.h"

namespace {

using record_json::parse;
using record_json::readFrom;
using record_json::serialized;

OstPmcPtpCfg fullConfig() {
    OstPmcPtpCfg cfg;
    cfg.profile.setProfile(PtpProfile::PROFILE_SMPTE_2059_2);
    cfg.domainNumber = 127;
    cfg.priority1 = 0;
    cfg.priority2 = 254;
    cfg.slaveOnly = 1;
    cfg.m_cfg_path = "/etc/ptp/ptpProfile.cfg";
    cfg.m_reserved_text = "kept";
    const char* ports = R"({"port": [
        {"port": 1, "syncInterval": -3, "announceInterval": -2, "announceReceiptTimeout": 3},
        {"port": 2, "announceInterval": 1}]})";
    cfg.ports = readFrom<OstPmcPtpCfg>(ports).ports;
    return cfg;
}

TEST(OstPmcPtpCfg, SerialisesSetValuesOnlyAndRoundTrips) {
    // Unset bytes (255), unset port members (127) are left out; slaveOnly -1 is written.
    EXPECT_EQ(parse(R"({"profile": "AES67:Media", "cfgFilePath": "", "slaveOnly": -1})"),
              serialized(OstPmcPtpCfg()));
    EXPECT_EQ(parse(R"({"profile": "SMPTE:2059-2", "domainNumber": 127, "priority1": 0,
                        "priority2": 254, "cfgFilePath": "/etc/ptp/ptpProfile.cfg", "slaveOnly": 1,
                        "port": [{"port": 1, "syncInterval": -3, "announceInterval": -2,
                                  "announceReceiptTimeout": 3},
                                 {"port": 2, "announceInterval": 1}]})"),
              serialized(fullConfig()));
    record_json::expectRoundTrip(fullConfig());
    // The reserved text is never serialised.
    EXPECT_EQ("",
              readFrom<OstPmcPtpCfg>(record_json::write(serialized(fullConfig()))).m_reserved_text);
}

TEST(OstPmcPtpCfg, ValuesTakeTheirLowEightBitsAndNotSetIsLeftOut) {
    // What is read, and how it is written back (beside the keys always present).
    const struct {
        const char* json;
        const char* written;
    } cases[] = {
        {R"({"domainNumber": 300})", R"({"domainNumber": 44})"},
        {R"({"domainNumber": 256})", R"({"domainNumber": 0})"},
        {R"({"domainNumber": 255})", "{}"},
        {R"({"priority1": 511, "priority2": 2})", R"({"priority2": 2})"},
        {R"({"port": [{"syncInterval": 255}]})", R"({"port": [{"syncInterval": -1}]})"},
        {R"({"port": [{"syncInterval": 256}]})", R"({"port": [{"syncInterval": 0}]})"},
        {R"({"port": [{"announceInterval": 383}]})", R"({"port": [{}]})"},
        {R"({"port": [{"port": -129, "announceReceiptTimeout": 127}]})", R"({"port": [{}]})"},
        {R"({"slaveOnly": true})", R"({"slaveOnly": 1})"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.json);
        Json::Value expected = parse(c.written);
        expected["profile"] = "AES67:Media";
        expected["cfgFilePath"] = "";
        if (!expected.isMember("slaveOnly")) {
            expected["slaveOnly"] = -1;
        }
        EXPECT_EQ(expected, serialized(readFrom<OstPmcPtpCfg>(c.json)));
    }
}

TEST(OstPmcPtpCfg, PortEntriesAreAppendedAndUnknownProfileIsKept) {
    OstPmcPtpCfg cfg = fullConfig();
    Json::Value in = parse(R"({"profile": "ptp", "priority1": 5, "port": [{"port": 3}, {}]})");
    cfg.Deserialize(in);
    EXPECT_EQ(PtpProfile::PROFILE_SMPTE_2059_2, cfg.profile.getProfile());
    EXPECT_EQ(5, cfg.priority1);
    const Json::Value ports = serialized(cfg)["port"];
    ASSERT_EQ(4u, ports.size());
    EXPECT_EQ(serialized(fullConfig())["port"][1], ports[1]);
    EXPECT_EQ(parse(R"({"port": 3})"), ports[2]);
    // An entry with nothing set still travels as an entry.
    EXPECT_EQ(Json::Value(Json::objectValue), ports[3]);
    // Reading adds a null "port" member to input without one.
    in = parse(R"({"domainNumber": 3})");
    cfg.Deserialize(in);
    EXPECT_TRUE(in.isMember("port") && in["port"].isNull());
}

TEST(OstPmcPtpCfg, WrongTypedValuesThrow) {
    record_json::expectThrows<OstPmcPtpCfg>(
        {R"({"domainNumber": -1})", R"({"priority1": "high"})", R"({"slaveOnly": "yes"})",
         R"({"cfgFilePath": {}})", R"({"port": {"port": 1}})", R"({"port": [1]})", "[]",
         R"({"port": [{"port": "1"}]})", R"({"port": [{"announceInterval": 3000000000}]})"});
}

}  // namespace
