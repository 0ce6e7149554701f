#include <gtest/gtest.h>

#include "PtpProfile.h"
#include "RecordJson.h"

namespace {

using P = PtpProfile;

struct TextCase {
    const char* text;
    P::ptp_profile_t expected;
};

// Every text a request may use, canonical and alias, and where it leads.
const TextCase kAcceptedTexts[] = {
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

TEST(PtpProfile, AcceptsCanonicalTextsAndAliases) {
    for (const TextCase& c : kAcceptedTexts) {
        SCOPED_TRACE(c.text);
        // Start from a value that no text maps to, so every match is visible.
        P profile(P::ptp_profile_t(9));
        EXPECT_EQ(0, profile.setProfile(std::string(c.text)));
        EXPECT_EQ(c.expected, profile.getProfile());
        EXPECT_TRUE(profile.isEqual(c.expected));
    }
}

TEST(PtpProfile, RejectsOtherTextsAndKeepsTheValue) {
    for (const char* text : {"", "AES67", "Aes67", "GPTP", "SMPTE:2059-1", "ieee1588:default",
                             "gptp ", " default", "Undefined"}) {
        SCOPED_TRACE(text);
        P profile(P::PROFILE_SMPTE_2059_2);
        EXPECT_EQ(-8, profile.setProfile(std::string(text)));
        EXPECT_EQ(P::PROFILE_SMPTE_2059_2, profile.getProfile());
    }
}

TEST(PtpProfile, DefaultIsAes67Media) {
    P profile;
    EXPECT_EQ(P::PROFILE_AES67_MEDIA, profile.getProfile());
    EXPECT_JSON_EQ(R"({"profile": "AES67:Media"})", record_json::serialized(profile));
}

TEST(PtpProfile, TextOfEveryValue) {
    const struct {
        int value;
        const char* text;
    } cases[] = {
        {0, "IEEE1588:Default"}, {1, "AES67:Media"}, {2, "SMPTE:2059-2"}, {3, "GPTP:L2"},
        {4, "Undefined"},        {7, "Undefined"},   {-1, "Undefined"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.value);
        P profile;
        profile.setProfile(P::ptp_profile_t(c.value));
        EXPECT_EQ(c.text, profile.toString());
        Json::Value expected;
        expected["profile"] = c.text;
        EXPECT_EQ(expected, record_json::serialized(profile));
    }
}

TEST(PtpProfile, CanonicalTextsRoundTrip) {
    for (int value = 0; value <= 3; ++value) {
        SCOPED_TRACE(value);
        const P original{P::ptp_profile_t(value)};
        // A different starting value, so that a round trip that reads nothing shows.
        P received(P::ptp_profile_t(value == 1 ? 0 : 1));
        Json::Value wire = record_json::serialized(original);
        received.Deserialize(wire);
        EXPECT_EQ(original.getProfile(), received.getProfile());
    }
}

TEST(PtpProfile, UnreadableProfileLeavesValueUnchanged) {
    for (const char* text :
         {R"({})", R"({"profile": ""})", R"({"profile": "AES67"})", R"({"profile": "Undefined"})",
          R"({"profile": null})", R"({"other": "gptp"})"}) {
        SCOPED_TRACE(text);
        P profile(P::PROFILE_GPTP_L2);
        Json::Value in = record_json::parse(text);
        profile.Deserialize(in);
        EXPECT_EQ(P::PROFILE_GPTP_L2, profile.getProfile());
    }
    // An undefined value written out does not come back as anything else.
    P undefined(P::ptp_profile_t(7));
    Json::Value wire = record_json::serialized(undefined);
    P received(P::PROFILE_SMPTE_2059_2);
    received.Deserialize(wire);
    EXPECT_EQ(P::PROFILE_SMPTE_2059_2, received.getProfile());
}

TEST(PtpProfile, WrongTypedProfileThrowsThrough) {
    for (const char* text :
         {R"({"profile": ["gptp"]})", R"({"profile": {"a": 1}})", R"([1])", R"("gptp")"}) {
        SCOPED_TRACE(text);
        P profile;
        Json::Value in = record_json::parse(text);
        EXPECT_THROW(profile.Deserialize(in), Json::Exception);
        EXPECT_EQ(P::PROFILE_AES67_MEDIA, profile.getProfile());
    }
}

TEST(PtpProfile, CopiesCarryTheValue) {
    const P source(P::PROFILE_GPTP_L2);
    P target(P::PROFILE_SMPTE_2059_2);
    target = source;
    EXPECT_EQ(P::PROFILE_GPTP_L2, target.getProfile());
    const P copy(source);
    EXPECT_EQ(P::PROFILE_GPTP_L2, copy.getProfile());
}

}  // namespace
