#include <gtest/gtest.h>

#include "ClockIdentityText.h"
#include "PtpBaseInfo.h"
#include "PtpBasePortInfo.h"
#include "PtpCommonInfo.h"
#include "RecordJson.h"
#include "StatusSamples.h"

namespace {

using record_json::parse;
using record_json::readFrom;
using record_json::serialized;
using namespace status_samples;

// --- Clock identity text ---

TEST(ClockIdentityText, EightLowerCaseHexBytes) {
    const unsigned char gm[8] = {0x0a, 0x0b, 0x0c, 0xff, 0xfe, 0x0d, 0x0e, 0x0f};
    EXPECT_EQ("0a-0b-0c-ff-fe-0d-0e-0f", clockIdentityText(gm));
    const unsigned char zero[8] = {};
    EXPECT_EQ("00-00-00-00-00-00-00-00", clockIdentityText(zero));
    const unsigned char high[8] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff};
    EXPECT_EQ("ff-ff-ff-ff-ff-ff-ff-ff", clockIdentityText(high));
}

// --- Clock accuracy text ---

TEST(PtpBaseInfo, ClockAccuracyText) {
    // 0x2A..0x2E and 0x80..0xFC differ from IEEE 1588: operators know the device's texts.
    const struct {
        uint8_t code;
        const char* text;
    } cases[] = {
        {0x00, "Reserved"},     {0x1F, "Reserved"},
        {0x20, "within 25ns"},  {0x24, "within 2.5us"},
        {0x29, "within 1ms"},   {0x2A, "within 25ms"},
        {0x2B, "within 100ms"}, {0x2C, "within 250ms"},
        {0x2D, "within 10ms"},  {0x2E, "within 250ms"},
        {0x31, ">10s"},         {0x32, "Reserved"},
        {0x7F, "Reserved"},     {0x80, "Reserved"},
        {0xFC, "Reserved"},     {0xFD, "Alternate PTP profiles"},
        {0xFE, "Unknown"},      {0xFF, "Reserved"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(int(c.code));
        PtpBaseInfo clock;
        clock.clockAccuracy = c.code;
        EXPECT_EQ(c.text, clock.getClockAccuracyText());
        // The text travels with the code and is not read back.
        Json::Value wire = serialized(clock);
        EXPECT_EQ(c.text, wire["clockAccuracyTable6"].asString());
        wire["clockAccuracyTable6"] = "within 1s";
        PtpBaseInfo received;
        received.Deserialize(wire);
        EXPECT_EQ(c.code, received.clockAccuracy);
    }
}

// --- One clock ---

TEST(PtpBaseInfo, SerializesEveryFieldWithItsType) {
    EXPECT_JSON_EQ(R"({"id": "0a-0b-0c-ff-fe-0d-0e-0f", "priority1": 128, "priority2": 127,
                       "clockClass": 6, "clockAccuracy": 33, "clockAccuracyTable6": "within 100ns",
                       "scaledLogVariance": 65535, "slaveOnly": false})",
                   serialized(makeClock("0a-0b-0c-ff-fe-0d-0e-0f", 6, 0x21, false)));
}

TEST(PtpBaseInfo, RoundTrip) {
    const PtpBaseInfo original = makeClock("0a-0b-0c-ff-fe-0d-0e-0f", 6, 0x21, false);
    expectSameClock(original, record_json::roundTrip(original));
}

TEST(PtpBaseInfo, NumbersNarrowToTheirWidth) {
    const auto clock = readFrom<PtpBaseInfo>(
        R"({"priority1": 256, "priority2": 511, "clockClass": 300, "clockAccuracy": 4294967295,
            "scaledLogVariance": 65537})");
    EXPECT_EQ(0, clock.priority1);
    EXPECT_EQ(255, clock.priority2);
    EXPECT_EQ(44, clock.clockClass);
    EXPECT_EQ(255, clock.clockAccuracy);
    EXPECT_EQ(1, clock.scaledLogVariance);
}

// --- One port ---

TEST(PtpBasePortInfo, SerializesEveryFieldWithItsType) {
    EXPECT_JSON_EQ(R"({"id": "00-11-22-ff-fe-33-44-55", "roleStatus": "SLAVE", "roleStatusId": 9,
                       "delayMechanism": "E2E", "syncInterval": -3, "announceInterval": 1,
                       "announceReceiptTimeout": 3, "logMinPdelayReqInterval": -128,
                       "logMinDelayReqInterval": 127, "portId": 1,
                       "peerMeanPathDelay": -1099511627776})",
                   serialized(makePort(1, "SLAVE", 9)));
}

TEST(PtpBasePortInfo, RoundTripAndDefaults) {
    const PtpBasePortInfo original = makePort(65535, "GRAND_MASTER", 10);
    expectSamePort(original, record_json::roundTrip(original));
    expectSamePort(PtpBasePortInfo(), readFrom<PtpBasePortInfo>("{}"));
}

TEST(PtpBasePortInfo, NumbersNarrowToTheirWidth) {
    const auto port = readFrom<PtpBasePortInfo>(
        R"({"roleStatusId": 266, "portId": 65537, "syncInterval": 255, "announceInterval": -129,
            "announceReceiptTimeout": 256, "peerMeanPathDelay": -9223372036854775808})");
    EXPECT_EQ(10, port.roleStatusId);
    EXPECT_EQ(1, port.portId);
    EXPECT_EQ(-1, port.syncInterval);
    EXPECT_EQ(127, port.announceInterval);
    EXPECT_EQ(0, port.announceReceiptTimeout);
    EXPECT_EQ(INT64_MIN, port.peerMeanPathDelay);
}

// --- The whole status ---

TEST(PtpCommonInfo, DefaultSerialization) {
    const char* clock = R"({"id": "", "priority1": 0, "priority2": 0, "clockClass": 0,
                            "clockAccuracy": 0, "clockAccuracyTable6": "Reserved",
                            "scaledLogVariance": 0, "slaveOnly": true})";
    const std::string expected =
        std::string(R"({"domainNumber": 0, "offsetScaledLogVariance": 0, "stepsRemoved": 0,
                        "offsetFromMaster": 0.0, "meanPathDelay": 0.0, "slaveOnly": true,
                        "profile": "AES67:Media", "local": )") +
        clock + R"(, "grandMaster": )" + clock + "}";
    EXPECT_JSON_EQ(expected, serialized(PtpCommonInfo()));
}

TEST(PtpCommonInfo, SerializesNestedClocksAndPortsInOrder) {
    Json::Value wire = serialized(makeStatus());
    EXPECT_EQ("GPTP:L2", wire["profile"].asString());
    EXPECT_TRUE(wire["offsetFromMaster"].isDouble());
    EXPECT_EQ(-12.5, wire["offsetFromMaster"].asDouble());
    EXPECT_EQ(1234.25, wire["meanPathDelay"].asDouble());
    EXPECT_FALSE(wire["slaveOnly"].asBool());
    EXPECT_TRUE(wire["local"]["slaveOnly"].asBool());
    EXPECT_EQ("Unknown", wire["local"]["clockAccuracyTable6"].asString());
    EXPECT_EQ("0a-0b-0c-ff-fe-0d-0e-0f", wire["grandMaster"]["id"].asString());
    ASSERT_TRUE(wire["port"].isArray());
    ASSERT_EQ(2u, wire["port"].size());
    EXPECT_EQ("SLAVE", wire["port"][0]["roleStatus"].asString());
    EXPECT_EQ(2, wire["port"][1]["portId"].asInt());
}

TEST(PtpCommonInfo, RoundTrip) {
    const PtpCommonInfo original = makeStatus();
    expectSameStatus(original, record_json::roundTrip(original));
}

TEST(PtpCommonInfo, EmptyObjectReadsAsDefaults) {
    PtpCommonInfo info;
    info.slaveOnly = false;
    info.local.slaveOnly = false;
    info.grandMaster.slaveOnly = false;
    Json::Value in(Json::objectValue);
    info.Deserialize(in);
    expectSameStatus(PtpCommonInfo(), info);
    // Reading leaves the received JSON as it was.
    EXPECT_EQ(Json::Value(Json::objectValue), in);
}

TEST(PtpCommonInfo, PortsAreAppendedOnEveryRead) {
    const Json::Value wire = serialized(makeStatus());
    PtpCommonInfo info;
    Json::Value first = wire;
    info.Deserialize(first);
    Json::Value second = wire;
    info.Deserialize(second);
    ASSERT_EQ(4u, info.port.size());
    expectSamePort(makePort(1, "SLAVE", 9), info.port[2]);
    expectSamePort(makePort(2, "PASSIVE", 7), info.port[3]);
}

TEST(PtpCommonInfo, NumbersNarrowToTheirWidth) {
    const auto info = readFrom<PtpCommonInfo>(
        R"({"domainNumber": 300, "offsetScaledLogVariance": 65537, "stepsRemoved": 65536,
            "offsetFromMaster": 7, "local": {"clockClass": 300}})");
    EXPECT_EQ(44, info.domainNumber);
    EXPECT_EQ(1, info.offsetScaledLogVariance);
    EXPECT_EQ(0, info.stepsRemoved);
    EXPECT_EQ(7.0f, info.offsetFromMaster);
    EXPECT_EQ(44, info.local.clockClass);
}

TEST(PtpCommonInfo, WrongTypedValueThrowsThrough) {
    for (const char* text :
         {R"({"slaveOnly": "yes"})", R"({"domainNumber": -1})", R"({"offsetFromMaster": "1.5"})",
          R"({"local": 5})", R"({"grandMaster": {"id": ["x"]}})",
          R"({"port": [{"peerMeanPathDelay": "big"}]})", R"({"port": [{"portId": 1.5e30}]})",
          R"({"profile": 1, "local": {"slaveOnly": "no"}})"}) {
        SCOPED_TRACE(text);
        Json::Value in = parse(text);
        PtpCommonInfo info;
        EXPECT_THROW(info.Deserialize(in), Json::Exception);
    }
}

}  // namespace
