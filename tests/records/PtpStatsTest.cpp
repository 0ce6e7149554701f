#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "PtpStats.h"
#include "RecordJson.h"

namespace {

using record_json::parse;
using record_json::serialized;

TEST(PtpStats, SerialisesEveryFieldAndRoundTrips) {
    const char* full = R"({"masterOffsetRMS": 12, "masterOffsetMaxAbs": -2147483648,
                           "freqDeviationMean": -4000, "freqDeviationStdDev": 2147483647,
                           "pathDelayMean": 850, "pathDelayStdDev": 3, "offsetFromMaster": -0.75,
                           "offsetScaledLogVariance": 65535})";
    PtpStats stats = record_json::readFrom<PtpStats>(full);
    EXPECT_EQ(parse(full), serialized(stats));
    // Missing keys read as zero.
    Json::Value empty(Json::objectValue);
    stats.Deserialize(empty);
    EXPECT_EQ(parse(R"({"masterOffsetRMS": 0, "masterOffsetMaxAbs": 0, "freqDeviationMean": 0,
                        "freqDeviationStdDev": 0, "pathDelayMean": 0, "pathDelayStdDev": 0,
                        "offsetFromMaster": 0.0, "offsetScaledLogVariance": 0})"),
              serialized(stats));

    EXPECT_EQ(1, record_json::readFrom<PtpStats>(R"({"offsetScaledLogVariance": 65537})")
                     .offsetScaledLogVariance);
    record_json::expectThrows<PtpStats>(
        {R"({"masterOffsetRMS": "12"})", R"({"pathDelayMean": 2147483648})",
         R"({"offsetFromMaster": [1]})", R"({"offsetScaledLogVariance": -1})", "3"});
}

TEST(PtpStats, DeliveredValuesRoundHalfAwayFromZeroAndClamp) {
    constexpr int32_t MAX = std::numeric_limits<int32_t>::max();
    constexpr int32_t MIN = std::numeric_limits<int32_t>::min();
    const std::pair<double, int32_t> cases[] = {
        {2.5, 3},          {-2.5, -3},
        {2.49, 2},         {-0.5, -1},
        {-0.0, 0},         {1e12, MAX},
        {-1e12, MIN},      {std::numeric_limits<double>::infinity(), MAX},
        {std::nan(""), 0},
    };
    for (const auto& [delivered, expected] : cases) {
        EXPECT_EQ(expected, PtpStats::toStatValue(delivered)) << delivered;
    }
}

}  // namespace
