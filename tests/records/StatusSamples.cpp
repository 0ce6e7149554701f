#include "StatusSamples.h"

#include <gtest/gtest.h>

namespace status_samples {

PtpBaseInfo makeClock(const char* id, uint8_t clockClass, uint8_t accuracy, bool slaveOnly) {
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

PtpBasePortInfo makePort(uint16_t portId, const char* role, uint8_t roleId) {
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

PtpCommonInfo makeStatus() {
    PtpCommonInfo info;
    info.profile.setProfile(PtpProfile::PROFILE_GPTP_L2);
    info.local = makeClock("00-11-22-ff-fe-33-44-55", 248, 0xFE, true);
    info.grandMaster = makeClock("0a-0b-0c-ff-fe-0d-0e-0f", 6, 0x21, false);
    info.domainNumber = 127;
    info.offsetScaledLogVariance = 0x4E5D;
    info.stepsRemoved = 65535;
    info.offsetFromMaster = -12.5f;
    info.meanPathDelay = 1234.25f;
    info.slaveOnly = false;
    info.port.push_back(makePort(1, "SLAVE", 9));
    info.port.push_back(makePort(2, "PASSIVE", 7));
    return info;
}

void expectSameClock(const PtpBaseInfo& expected, const PtpBaseInfo& actual) {
    EXPECT_EQ(expected.id, actual.id);
    EXPECT_EQ(expected.priority1, actual.priority1);
    EXPECT_EQ(expected.priority2, actual.priority2);
    EXPECT_EQ(expected.clockClass, actual.clockClass);
    EXPECT_EQ(expected.clockAccuracy, actual.clockAccuracy);
    EXPECT_EQ(expected.scaledLogVariance, actual.scaledLogVariance);
    EXPECT_EQ(expected.slaveOnly, actual.slaveOnly);
}

void expectSamePort(const PtpBasePortInfo& expected, const PtpBasePortInfo& actual) {
    EXPECT_EQ(expected.id, actual.id);
    EXPECT_EQ(expected.roleStatus, actual.roleStatus);
    EXPECT_EQ(expected.roleStatusId, actual.roleStatusId);
    EXPECT_EQ(expected.delayMechanism, actual.delayMechanism);
    EXPECT_EQ(expected.syncInterval, actual.syncInterval);
    EXPECT_EQ(expected.announceInterval, actual.announceInterval);
    EXPECT_EQ(expected.announceReceiptTimeout, actual.announceReceiptTimeout);
    EXPECT_EQ(expected.logMinPdelayReqInterval, actual.logMinPdelayReqInterval);
    EXPECT_EQ(expected.logMinDelayReqInterval, actual.logMinDelayReqInterval);
    EXPECT_EQ(expected.portId, actual.portId);
    EXPECT_EQ(expected.peerMeanPathDelay, actual.peerMeanPathDelay);
}

void expectSameStatus(const PtpCommonInfo& expected, const PtpCommonInfo& actual) {
    EXPECT_EQ(expected.profile.getProfile(), actual.profile.getProfile());
    expectSameClock(expected.local, actual.local);
    expectSameClock(expected.grandMaster, actual.grandMaster);
    EXPECT_EQ(expected.domainNumber, actual.domainNumber);
    EXPECT_EQ(expected.offsetScaledLogVariance, actual.offsetScaledLogVariance);
    EXPECT_EQ(expected.stepsRemoved, actual.stepsRemoved);
    EXPECT_EQ(expected.offsetFromMaster, actual.offsetFromMaster);
    EXPECT_EQ(expected.meanPathDelay, actual.meanPathDelay);
    EXPECT_EQ(expected.slaveOnly, actual.slaveOnly);
    ASSERT_EQ(expected.port.size(), actual.port.size());
    for (size_t i = 0; i < expected.port.size(); ++i) {
        SCOPED_TRACE(i);
        expectSamePort(expected.port[i], actual.port[i]);
    }
}

}  // namespace status_samples
