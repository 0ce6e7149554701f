#pragma once

#include <cstdint>
#include <string>

#include "IJsonSerializable.h"

// Which PTP profile ptp4l runs, and its text forms in requests, replies and log lines.
class PtpProfile : public IJsonSerializable {
  public:
    enum ptp_profile_t : int32_t {
        PROFILE_IEEE1588_DEFAULT = 0,
        PROFILE_AES67_MEDIA = 1,
        PROFILE_SMPTE_2059_2 = 2,
        PROFILE_GPTP_L2 = 3,
    };

    // The device runs AES67 media unless told otherwise, hence not value 0.
    PtpProfile() = default;
    // Stores the value unchecked.
    explicit PtpProfile(ptp_profile_t profile) : m_profile(profile) {}
    // Copies carry the value only, as assignment does.
    PtpProfile(const PtpProfile& other) : m_profile(other.m_profile) {}
    // Copies the value only; the two text members stay as they were.
    PtpProfile& operator=(const PtpProfile& other);

    ptp_profile_t getProfile() const { return m_profile; }
    void setProfile(ptp_profile_t profile) { m_profile = profile; }
    // Accepts the canonical texts and their short aliases, case-sensitively. Returns 0, or -8
    // (invalid parameter) with the value unchanged.
    int setProfile(std::string text);
    bool isEqual(ptp_profile_t profile) const { return m_profile == profile; }
    // The canonical text; "Undefined" for a value outside the known profiles.
    std::string toString() const;

    void Serialize(Json::Value& out) const override;
    // A missing, empty or unknown "profile" leaves the value unchanged.
    void Deserialize(Json::Value& in) override;

  private:
    ptp_profile_t m_profile = PROFILE_AES67_MEDIA;
    // Carried by the record but read or written by nothing.
    std::string m_name;
    std::string m_description;
};
