#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "IJsonSerializable.h"
#include "OstPmcPtpPortCfg.h"
#include "PtpProfile.h"

// The device's PTP configuration: clock-wide settings, the ptp4l configuration file in use and
// per-port settings. Unset settings are left out of the JSON, so a record may carry only part
// of a configuration. 255 marks an unset byte, so 255 itself can never be configured.
class OstPmcPtpCfg : public IJsonSerializable {
  public:
    static constexpr uint8_t NOT_SET_U8 = 255;
    static constexpr int32_t SLAVE_ONLY_NOT_SET = -1;

    PtpProfile profile;
    uint8_t domainNumber = NOT_SET_U8;
    uint8_t priority1 = NOT_SET_U8;
    uint8_t priority2 = NOT_SET_U8;
    // 1 slave only, 0 normal.
    int32_t slaveOnly = SLAVE_ONLY_NOT_SET;
    std::string m_cfg_path;
    // Never serialised; travels with copies and is appended to m_cfg_path by the domain lookup.
    std::string m_reserved_text;
    std::vector<OstPmcPtpPortCfg> ports;

    void Serialize(Json::Value& out) const override;
    // Appends the "port" entries to the ports already held: decode into a fresh record.
    // Reading "port" adds a null "port" member to the input when it has none.
    void Deserialize(Json::Value& in) override;
};
