#pragma once

#include <cstdint>
#include <string>

#include "MoveAverage.h"
#include "OstPmcPublisher.h"
#include "PtpFsmStates.h"
#include "PtpNotificationInfo.h"
#include "PtpStatusFsmInputInfo.h"

// Condenses the polled PTP status into INIT, FAILURE, MASTER, SLAVE UNSTABLE and SLAVE STABLE,
// and publishes the media action that a transition calls for. A slave is stable once the moving
// average of its offset from master is, in absolute value, below the stability threshold.
// Advances exactly once per update(); the polling period is its only clock.
class PtpStatusFsm {
  public:
    explicit PtpStatusFsm(OstPmcPublisher& publisher);
    PtpStatusFsm(const PtpStatusFsm&) = delete;
    PtpStatusFsm& operator=(const PtpStatusFsm&) = delete;

    // Nanoseconds; returns 0.
    int setStabilityThreshold(float& threshold);
    // One step: 0, or the negative code of a failed notification (the new state stays).
    int update(PtpStatusFsmInputInfo& input);
    // Logs and publishes one action with the machine's grandmaster, domain and state: 0, or the
    // publisher's negative code.
    int prepareActionExec(PtpNotificationInfo::en_actions action, PtpCommonInfo& commonInfo);

    PtpFsmStates::en_states getState() const { return state.state; }
    // The grandmaster identity last taken over.
    const std::string& getGmid() const { return gmid; }

  private:
    // Lets the tests put the machine into a state value it can never reach by itself.
    friend struct PtpStatusFsmTestAccess;

    enum class Average { Keep, Reset };

    int fromInit(PtpStatusFsmInputInfo& input);
    int fromFailure(PtpStatusFsmInputInfo& input);
    int fromMaster(PtpStatusFsmInputInfo& input);
    int fromSlaveUnstable(PtpStatusFsmInputInfo& input);
    int fromSlaveStable(PtpStatusFsmInputInfo& input);
    // SLAVE UNSTABLE with the same grandmaster: sample the offset, stable once the average is.
    int checkStability(PtpStatusFsmInputInfo& input);
    // SLAVE STABLE with the same grandmaster: unstable once the average reaches the threshold.
    int checkStillStable(PtpStatusFsmInputInfo& input);
    // The end of a transition row: the new state, then the average, then the action, whose
    // failure is logged with the row's check number.
    int enter(PtpFsmStates::en_states to, Average average, PtpNotificationInfo::en_actions action,
              int check, PtpStatusFsmInputInfo& input);
    int enter(PtpFsmStates::en_states to, Average average);
    void takeGrandmaster(const PtpStatusFsmInputInfo& input);

    PtpFsmStates state;
    std::string gmid;
    uint8_t domain;
    MoveAverage ofmAverage;
    float stabilityThreshold;
    OstPmcPublisher& publisher;
};
