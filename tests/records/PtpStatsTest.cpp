#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "PtpStats.h"
#include "RecordJson.h"

namespace {

using record_json::parse;
using record_json::readFrom;
using record_json::serialized;

PtpStats makeStats() {
    PtpStats stats;
    stats.masterOffsetRMS = 12;
    stats.masterOffsetMaxAbs = -2147483647 - 1;
    stats.freqDeviationMean = -4000;
    stats.freqDeviationStdDev = 2147483647;
    stats.pathDelayMean = 850;
    stats.pathDelayStdDev = 3;
    stats.offsetFromMaster = -0.75f;
    stats.offsetScaledLogVariance = 0xFFFF;
    return stats;
}

void expectSameStats(const PtpStats& expected, const PtpStats& actual) {
    EXPECT_EQ(expected.masterOffsetRMS, actual.masterOffsetRMS);
    EXPECT_EQ(expected.masterOffsetMaxAbs, actual.masterOffsetMaxAbs);
    EXPECT_EQ(expected.freqDeviationMean, actual.freqDeviationMean);
    EXPECT_EQ(expected.freqDeviationStdDev, actual.freqDeviationStdDev);
    EXPECT_EQ(expected.pathDelayMean, actual.pathDelayMean);
    EXPECT_EQ(expected.pathDelayStdDev, actual.pathDelayStdDev);
    EXPECT_EQ(expected.offsetFromMaster, actual.offsetFromMaster);
    EXPECT_EQ(expected.offsetScaledLogVariance, actual.offsetScaledLogVariance);
}

TEST(PtpStats, FreshRecordIsAllZero) {
    EXPECT_JSON_EQ(R"({"masterOffsetRMS": 0, "masterOffsetMaxAbs": 0, "freqDeviationMean": 0,
                       "freqDeviationStdDev": 0, "pathDelayMean": 0, "pathDelayStdDev": 0,
                       "offsetFromMaster": 0.0, "offsetScaledLogVariance": 0})",
                   serialized(PtpStats()));
}

TEST(PtpStats, SerializesEveryFieldUnderItsKey) {
    EXPECT_JSON_EQ(R"({"masterOffsetRMS": 12, "masterOffsetMaxAbs": -2147483648,
                       "freqDeviationMean": -4000, "freqDeviationStdDev": 2147483647,
                       "pathDelayMean": 850, "pathDelayStdDev": 3, "offsetFromMaster": -0.75,
                       "offsetScaledLogVariance": 65535})",
                   serialized(makeStats()));
}

TEST(PtpStats, RoundTripAndMissingKeys) {
    expectSameStats(makeStats(), record_json::roundTrip(makeStats()));
    PtpStats stats = makeStats();
    Json::Value empty(Json::objectValue);
    stats.Deserialize(empty);
    expectSameStats(PtpStats(), stats);
}

TEST(PtpStats, VarianceNarrowsToSixteenBits) {
    EXPECT_EQ(1,
              readFrom<PtpStats>(R"({"offsetScaledLogVariance": 65537})").offsetScaledLogVariance);
    EXPECT_EQ(0,
              readFrom<PtpStats>(R"({"offsetScaledLogVariance": 65536})").offsetScaledLogVariance);
}

TEST(PtpStats, WrongTypedValueThrowsThrough) {
    for (const char* text :
         {R"({"masterOffsetRMS": "12"})", R"({"pathDelayMean": 2147483648})",
          R"({"offsetFromMaster": [1]})", R"({"offsetScaledLogVariance": -1})", R"(3)"}) {
        SCOPED_TRACE(text);
        Json::Value in = parse(text);
        PtpStats stats;
        EXPECT_THROW(stats.Deserialize(in), Json::Exception);
    }
}

TEST(PtpStats, DeliveredValuesRoundHalfAwayFromZero) {
    const struct {
        double delivered;
        int32_t expected;
    } cases[] = {
        {2.5, 3},
        {-2.5, -3},
        {2.49, 2},
        {-2.49, -2},
        {0.5, 1},
        {-0.5, -1},
        {0.0, 0},
        {-0.0, 0},
        {123456.7, 123457},
        // Nothing a broken data set delivers may wrap around or crash the conversion.
        {1e12, std::numeric_limits<int32_t>::max()},
        {-1e12, std::numeric_limits<int32_t>::min()},
        {std::numeric_limits<double>::infinity(), std::numeric_limits<int32_t>::max()},
        {std::nan(""), 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.delivered);
        EXPECT_EQ(c.expected, PtpStats::toStatValue(c.delivered));
    }
}

}  // namespace
