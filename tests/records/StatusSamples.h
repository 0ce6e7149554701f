#pragma once

#include "PtpCommonInfo.h"

// A status whose fields all differ from the defaults, for the record tests.
inline PtpBaseInfo sampleClock(const char* id, uint8_t clockClass, uint8_t accuracy,
                               bool slaveOnly) {
    PtpBaseInfo clock;
    clock.id = id;
    clock.priority1 = 128;
    clock.priority2 = 127;
    clock.clockClass = clockClass;
    clock.clockAccuracy = accuracy;
    clock.scaledLogVariance = 0xFFFF;
    clock.slaveOnly = slaveOnly;
    return clock;
}

inline PtpBasePortInfo samplePort(uint16_t portId, const char* role, uint8_t roleId) {
    PtpBasePortInfo port;
    port.id = "00-11-22-ff-fe-33-44-55";
    port.roleStatus = role;
    port.roleStatusId = roleId;
    port.delayMechanism = "E2E";
    port.syncInterval = -3;
    port.announceInterval = 1;
    port.announceReceiptTimeout = 3;
    port.logMinPdelayReqInterval = -128;
    port.logMinDelayReqInterval = 127;
    port.portId = portId;
    // Beyond 32 bits, as ptp4l's scaled nanoseconds easily are.
    port.peerMeanPathDelay = -(int64_t(1) << 40);
    return port;
}

// GPTP profile, two clocks, two ports.
inline PtpCommonInfo sampleStatus() {
    PtpCommonInfo info;
    info.profile.setProfile(PtpProfile::PROFILE_GPTP_L2);
    info.local = sampleClock("00-11-22-ff-fe-33-44-55", 248, 0xFE, true);
    info.grandMaster = sampleClock("0a-0b-0c-ff-fe-0d-0e-0f", 6, 0x21, false);
    info.domainNumber = 127;
    info.offsetScaledLogVariance = 0x4E5D;
    info.stepsRemoved = 65535;
    info.offsetFromMaster = -12.5f;
    info.meanPathDelay = 1234.25f;
    info.slaveOnly = false;
    info.port.push_back(samplePort(1, "SLAVE", 9));
    info.port.push_back(samplePort(2, "PASSIVE", 7));
    return info;
}
