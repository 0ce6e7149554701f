#include <gtest/gtest.h>

#include "PtpProfile.h"
#include "RecordJson.h"

namespace {

using P = PtpProfile;

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
        const P profile{P::ptp_profile_t(value)};
        const bool known = value >= 0 && value <= 3;
        EXPECT_EQ(known ? canonical[value] : "Undefined", profile.toString());
        // Read back into a different value: a known text round-trips, "Undefined" changes nothing.
        const Json::Value wire = record_json::serialized(profile);
        P received(P::ptp_profile_t(value == 1 ? 0 : 1));
        Json::Value in = wire;
        received.Deserialize(in);
        EXPECT_EQ(known ? value : 1, received.getProfile()) << value;
    }
}

TEST(PtpProfile, WrongTypesThrowAndCopiesCarryTheValue) {
    record_json::expectThrows<P>({R"({"profile": ["gptp"]})", R"({"profile": {"a": 1}})", "[1]"});
    P target(P::PROFILE_SMPTE_2059_2);
    target = P(P::PROFILE_GPTP_L2);
    EXPECT_EQ(P::PROFILE_GPTP_L2, P(target).getProfile());
}

}  // namespace
