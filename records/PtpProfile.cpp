#include "PtpProfile.h"

#include "IpcResult.h"

PtpProfile& PtpProfile::operator=(const PtpProfile& other) {
    m_profile = other.m_profile;
    return *this;
}

int PtpProfile::setProfile(std::string text) {
    // "AES67:Default" names the IEEE 1588 default profile, not AES67 media: requests from the
    // field use it that way.
    if (text == "AES67:Media" || text == "aes67") {
        m_profile = PROFILE_AES67_MEDIA;
    } else if (text == "IEEE1588:Default" || text == "AES67:Default" || text == "default") {
        m_profile = PROFILE_IEEE1588_DEFAULT;
    } else if (text == "SMPTE:2059-2" || text == "smpte") {
        m_profile = PROFILE_SMPTE_2059_2;
    } else if (text == "GPTP:L2" || text == "gptp") {
        m_profile = PROFILE_GPTP_L2;
    } else {
        return IpcResult::ERROR_INVALID_PARAM;
    }
    return 0;
}

std::string PtpProfile::toString() const {
    switch (m_profile) {
        case PROFILE_IEEE1588_DEFAULT:
            return "IEEE1588:Default";
        case PROFILE_AES67_MEDIA:
            return "AES67:Media";
        case PROFILE_SMPTE_2059_2:
            return "SMPTE:2059-2";
        case PROFILE_GPTP_L2:
            return "GPTP:L2";
    }
    return "Undefined";
}

void PtpProfile::Serialize(Json::Value& out) const {
    out["profile"] = toString();
}

void PtpProfile::Deserialize(Json::Value& in) {
    // Not knowing the text is not an error here: the value simply stays.
    (void)setProfile(in.get("profile", "").asString());
}
