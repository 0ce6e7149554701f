#include "PtpStatusFsm.h"

#include <cmath>

#include "Check.h"
#include "Logger.h"

namespace {
using State = PtpFsmStates;
using Action = PtpNotificationInfo;

const char* const UPDATE_FUNCTION = "int PtpStatusFsm::update(PtpStatusFsmInputInfo&)";
const char* const ACTION_FUNCTION =
    "int PtpStatusFsm::prepareActionExec(PtpNotificationInfo::en_actions, PtpCommonInfo&)";
constexpr int PUBLISH_CHECK = 54;

// Five offsets make the average, two are enough to judge stability.
constexpr size_t AVERAGE_LENGTH = 5;
constexpr size_t AVERAGE_MIN_SIZE = 2;
constexpr float DEFAULT_THRESHOLD_NS = 1500.0f;

// Only the three actions the machine requests have a text of their own in its log.
const char* actionLogText(PtpNotificationInfo::en_actions action) {
    switch (action) {
        case Action::ACTION_MUTE_ALL:
        case Action::ACTION_RESUME_ALL:
        case Action::ACTION_RESET_RTP_TS:
            return PtpNotificationInfo::actionText(action);
        default:
            return "no-action";
    }
}
}  // namespace

PtpStatusFsm::PtpStatusFsm(OstPmcPublisher& publisherRef)
    : domain(0),
      ofmAverage(AVERAGE_LENGTH, AVERAGE_MIN_SIZE),
      stabilityThreshold(DEFAULT_THRESHOLD_NS),
      publisher(publisherRef) {}

int PtpStatusFsm::setStabilityThreshold(float& threshold) {
    stabilityThreshold = threshold;
    return 0;
}

int PtpStatusFsm::update(PtpStatusFsmInputInfo& input) {
    if (input.domain != domain) {
        Logger::log(Logger::INF, "PTP FSM: domain switched from %d-->%d", domain, input.domain);
        domain = input.domain;
    }
    int rc = 0;
    switch (state.state) {
        case State::INIT:
            rc = fromInit(input);
            break;
        case State::FAILURE:
            rc = fromFailure(input);
            break;
        case State::MASTER:
            rc = fromMaster(input);
            break;
        case State::SLAVE_UNSTABLE:
            rc = fromSlaveUnstable(input);
            break;
        case State::SLAVE_STABLE:
            rc = fromSlaveStable(input);
            break;
        default:
            Logger::log(Logger::WRN, "PTP FSM: SHOULD NEVER REACH THIS. MOVE TO INIT STATE");
            rc = enter(State::INIT, Average::Keep);
            break;
    }
    if (rc < 0) {
        return rc;
    }
    Logger::log(Logger::VERBOSE, "PTP FSM: Current state: %s", State::toText(state.state));
    return 0;
}

int PtpStatusFsm::fromInit(PtpStatusFsmInputInfo& input) {
    Logger::log(Logger::INF, "PTP FSM: transition from INIT to FAILURE state");
    gmid = input.gmid;
    return enter(State::FAILURE, Average::Keep);
}

int PtpStatusFsm::fromFailure(PtpStatusFsmInputInfo& input) {
    switch (input.summaryState) {
        case PTP_SUMMARY_MASTER:
            Logger::log(Logger::INF, "PTP FSM: transition from FAILURE to MASTER state");
            return enter(State::MASTER, Average::Keep, Action::ACTION_RESUME_ALL, 85, input);
        case PTP_SUMMARY_SLAVE:
            Logger::log(Logger::INF, "PTP FSM: transition from FAILURE to SLAVE UNSTABLE state");
            return enter(State::SLAVE_UNSTABLE, Average::Keep);
        default:
            return 0;
    }
}

int PtpStatusFsm::fromMaster(PtpStatusFsmInputInfo& input) {
    switch (input.summaryState) {
        case PTP_SUMMARY_UNDEFINED:
            Logger::log(Logger::INF, "PTP FSM: transition from MASTER to FAIL state");
            return enter(State::FAILURE, Average::Keep, Action::ACTION_MUTE_ALL, 109, input);
        case PTP_SUMMARY_SLAVE:
            Logger::log(Logger::INF, "PTP FSM: transition from MASTER to SLAVE UNSTABLE state");
            return enter(State::SLAVE_UNSTABLE, Average::Keep, Action::ACTION_MUTE_ALL, 114, input);
        default:
            return 0;
    }
}

int PtpStatusFsm::fromSlaveUnstable(PtpStatusFsmInputInfo& input) {
    switch (input.summaryState) {
        case PTP_SUMMARY_UNDEFINED:
            Logger::log(Logger::INF, "PTP FSM: transition from SLAVE UNSTABLE to FAIL state");
            return enter(State::FAILURE, Average::Reset, Action::ACTION_MUTE_ALL, 135, input);
        case PTP_SUMMARY_MASTER:
            Logger::log(Logger::INF, "PTP FSM: transition from SLAVE UNSTABLE to MASTER state");
            return enter(State::MASTER, Average::Reset, Action::ACTION_MUTE_ALL, 163, input);
        case PTP_SUMMARY_SLAVE:
            if (input.gmid != gmid) {
                // The offset of a switch-over step says nothing about the new grandmaster.
                Logger::log(Logger::INF,
                            "PTP FSM: maintaining state SLAVE UNSTABLE on GMID change");
                takeGrandmaster(input);
                return 0;
            }
            return checkStability(input);
        default:
            return 0;
    }
}

int PtpStatusFsm::fromSlaveStable(PtpStatusFsmInputInfo& input) {
    switch (input.summaryState) {
        case PTP_SUMMARY_UNDEFINED:
            Logger::log(Logger::INF, "PTP FSM: transition from SLAVE STABLE to FAIL state");
            return enter(State::FAILURE, Average::Reset, Action::ACTION_MUTE_ALL, 185, input);
        case PTP_SUMMARY_MASTER:
            Logger::log(Logger::INF, "PTP FSM: transition from SLAVE STABLE to MASTER state");
            return enter(State::MASTER, Average::Reset, Action::ACTION_RESET_RTP_TS, 210, input);
        case PTP_SUMMARY_SLAVE:
            if (input.gmid != gmid) {
                Logger::log(
                    Logger::INF,
                    "PTP FSM: transition from SLAVE STABLE to SLAVE UNSTABLE - GMID changed");
                takeGrandmaster(input);
                return enter(State::SLAVE_UNSTABLE, Average::Reset);
            }
            return checkStillStable(input);
        default:
            return 0;
    }
}

int PtpStatusFsm::checkStability(PtpStatusFsmInputInfo& input) {
    ofmAverage.addSample(input.offsetFromMaster);
    const double average = ofmAverage.getAverage();
    // Strictly below, so that a NaN average never counts as stable.
    if (ofmAverage.minSizeReached() &&
        static_cast<double>(stabilityThreshold) > std::fabs(average)) {
        Logger::log(Logger::INF,
                    "PTP FSM: transition from SLAVE UNSTABLE to SLAVE STABLE state (OFM "
                    "average: %f)",
                    average);
        const int rc =
            enter(State::SLAVE_STABLE, Average::Keep, Action::ACTION_RESUME_ALL, 154, input);
        if (rc < 0) {
            return rc;
        }
    }
    Logger::log(Logger::INF, "PTP FSM: SLAVE UNSTABLE: min size reached: %d average: %f",
                static_cast<int>(ofmAverage.minSizeReached()), ofmAverage.getAverage());
    return 0;
}

int PtpStatusFsm::checkStillStable(PtpStatusFsmInputInfo& input) {
    // A stable slave is not sampled: the average keeps the value that made it stable, so only a
    // threshold lowered since then takes it out here.
    const double average = ofmAverage.getAverage();
    if (ofmAverage.minSizeReached() &&
        std::fabs(average) >= static_cast<double>(stabilityThreshold)) {
        Logger::log(Logger::INF,
                    "PTP FSM: transition from SLAVE STABLE to SLAVE UNSTABLE state (OFM "
                    "average: %f)",
                    average);
        return enter(State::SLAVE_UNSTABLE, Average::Keep, Action::ACTION_MUTE_ALL, 202, input);
    }
    return 0;
}

int PtpStatusFsm::enter(PtpFsmStates::en_states to, Average average,
                        PtpNotificationInfo::en_actions action, int check,
                        PtpStatusFsmInputInfo& input) {
    enter(to, average);
    const int rc = prepareActionExec(action, input.commonInfo);
    if (rc < 0) {
        return logCheck(UPDATE_FUNCTION, check, rc);
    }
    return 0;
}

int PtpStatusFsm::enter(PtpFsmStates::en_states to, Average average) {
    state.state = to;
    if (average == Average::Reset) {
        ofmAverage.reset();
    }
    return 0;
}

void PtpStatusFsm::takeGrandmaster(const PtpStatusFsmInputInfo& input) {
    Logger::log(Logger::INF, "PTP FSM: GMID changed from [%s] to [%s]", gmid.c_str(),
                input.gmid.c_str());
    gmid = input.gmid;
    domain = input.domain;
}

int PtpStatusFsm::prepareActionExec(PtpNotificationInfo::en_actions action,
                                    PtpCommonInfo& commonInfo) {
    Logger::log(Logger::INF, "PTP FSM: Action [%s] requested", actionLogText(action));
    PtpNotificationInfo notification;
    notification.action = action;
    notification.gmid = gmid;
    notification.domain = domain;
    notification.ptpState = state;
    notification.details = commonInfo;
    const int rc = publisher.notifyFsmStateChange(notification);
    if (rc < 0) {
        return logCheck(ACTION_FUNCTION, PUBLISH_CHECK, rc);
    }
    return 0;
}
