#include <gtest/gtest.h>

#include "ClockIdentityText.h"
#include "RecordJson.h"
#include "StatusSamples.h"

namespace {

using record_json::parse;
using record_json::readFrom;
using record_json::serialized;

TEST(ClockIdentityText, EightLowerCaseHexBytes) {
    const unsigned char gm[8] = {0x0a, 0x0b, 0x0c, 0xff, 0xfe, 0x0d, 0x0e, 0x0f};
    EXPECT_EQ("0a-0b-0c-ff-fe-0d-0e-0f", clockIdentityText(gm));
}

TEST(PtpBaseInfo, ClockAccuracyText) {
    // 0x2A..0x2E and 0x80..0xFC differ from IEEE 1588: operators know the device's texts.
    const std::pair<uint8_t, const char*> cases[] = {
        {0x00, "Reserved"},     {0x1F, "Reserved"},
        {0x20, "within 25ns"},  {0x24, "within 2.5us"},
        {0x29, "within 1ms"},   {0x2A, "within 25ms"},
        {0x2B, "within 100ms"}, {0x2C, "within 250ms"},
        {0x2D, "within 10ms"},  {0x2E, "within 250ms"},
        {0x2F, "within 1s"},    {0x31, ">10s"},
        {0x32, "Reserved"},     {0x80, "Reserved"},
        {0xFC, "Reserved"},     {0xFD, "Alternate PTP profiles"},
        {0xFE, "Unknown"},      {0xFF, "Reserved"},
    };
    for (const auto& [code, text] : cases) {
        PtpBaseInfo clock;
        clock.clockAccuracy = code;
        EXPECT_EQ(text, clock.getClockAccuracyText()) << int(code);
        // The text travels with the code and is not read back.
        Json::Value wire = serialized(clock);
        EXPECT_EQ(text, wire["clockAccuracyTable6"].asString());
        wire["clockAccuracyTable6"] = "within 1s";
        EXPECT_EQ(code, readFrom<PtpBaseInfo>(record_json::write(wire)).clockAccuracy);
    }
}

TEST(PtpCommonInfo, SerialisesEveryFieldWithItsTypeAndRoundTrips) {
    const std::string clock = R"({"id": "", "priority1": 0, "priority2": 0, "clockClass": 0,
        "clockAccuracy": 0, "clockAccuracyTable6": "Reserved", "scaledLogVariance": 0,
        "slaveOnly": true})";
    EXPECT_EQ(parse(R"({"domainNumber": 0, "offsetScaledLogVariance": 0, "stepsRemoved": 0,
                        "offsetFromMaster": 0.0, "meanPathDelay": 0.0, "slaveOnly": true,
                        "profile": "AES67:Media", "local": )" +
                    clock + R"(, "grandMaster": )" + clock + "}"),
              serialized(PtpCommonInfo()));

    Json::Value expected = parse(R"({"domainNumber": 127, "offsetScaledLogVariance": 20061,
        "stepsRemoved": 65535, "offsetFromMaster": -12.5, "meanPathDelay": 1234.25,
        "slaveOnly": false, "profile": "GPTP:L2",
        "local": {"id": "00-11-22-ff-fe-33-44-55", "priority1": 128, "priority2": 127,
                  "clockClass": 248, "clockAccuracy": 254, "clockAccuracyTable6": "Unknown",
                  "scaledLogVariance": 65535, "slaveOnly": true},
        "grandMaster": {"id": "0a-0b-0c-ff-fe-0d-0e-0f", "priority1": 128, "priority2": 127,
                        "clockClass": 6, "clockAccuracy": 33, "clockAccuracyTable6": "within 100ns",
                        "scaledLogVariance": 65535, "slaveOnly": false},
        "port": [{"id": "00-11-22-ff-fe-33-44-55", "roleStatus": "SLAVE", "roleStatusId": 9,
                  "delayMechanism": "E2E", "syncInterval": -3, "announceInterval": 1,
                  "announceReceiptTimeout": 3, "logMinPdelayReqInterval": -128,
                  "logMinDelayReqInterval": 127, "portId": 1,
                  "peerMeanPathDelay": -1099511627776}]})");
    expected["port"][1] = expected["port"][0];
    expected["port"][1]["roleStatus"] = "PASSIVE";
    expected["port"][1]["roleStatusId"] = 7;
    expected["port"][1]["portId"] = 2;
    EXPECT_EQ(expected, serialized(sampleStatus()));
    record_json::expectRoundTrip(sampleStatus());
}

TEST(PtpCommonInfo, ReadingNarrowsAppendsPortsAndLeavesInputAlone) {
    const auto info = readFrom<PtpCommonInfo>(
        R"({"domainNumber": 300, "offsetScaledLogVariance": 65537, "stepsRemoved": 65536,
            "local": {"priority1": 256, "clockClass": 300, "scaledLogVariance": 65537},
            "port": [{"roleStatusId": 266, "portId": 65537, "syncInterval": 255,
                      "announceInterval": -129, "peerMeanPathDelay": -9223372036854775808}]})");
    EXPECT_EQ(44, info.domainNumber);
    EXPECT_EQ(1, info.offsetScaledLogVariance);
    EXPECT_EQ(0, info.stepsRemoved);
    EXPECT_EQ(0, info.local.priority1);
    EXPECT_EQ(44, info.local.clockClass);
    EXPECT_EQ(1, info.local.scaledLogVariance);
    ASSERT_EQ(1u, info.port.size());
    EXPECT_EQ(10, info.port[0].roleStatusId);
    EXPECT_EQ(1, info.port[0].portId);
    EXPECT_EQ(-1, info.port[0].syncInterval);
    EXPECT_EQ(127, info.port[0].announceInterval);
    EXPECT_EQ(INT64_MIN, info.port[0].peerMeanPathDelay);

    PtpCommonInfo twice;
    const Json::Value wire = serialized(sampleStatus());
    Json::Value in = wire;
    twice.Deserialize(in);
    twice.Deserialize(in);
    EXPECT_EQ(in, wire);
    ASSERT_EQ(4u, twice.port.size());
    EXPECT_EQ(serialized(sampleStatus())["port"][1], serialized(twice)["port"][3]);
    // Missing keys read as the defaults; only the profile stays as it was.
    PtpCommonInfo reread = sampleStatus();
    reread.port.clear();
    reread.profile = PtpProfile();
    Json::Value empty(Json::objectValue);
    reread.Deserialize(empty);
    EXPECT_EQ(serialized(PtpCommonInfo()), serialized(reread));

    record_json::expectThrows<PtpCommonInfo>(
        {R"({"slaveOnly": "yes"})", R"({"domainNumber": -1})", R"({"offsetFromMaster": "1.5"})",
         R"({"local": 5})", R"({"grandMaster": {"id": ["x"]}})",
         R"({"port": [{"peerMeanPathDelay": "big"}]})", R"({"port": [{"portId": 1.5e30}]})"});
}

}  // namespace
