#pragma once

#include <sstream>
#include <string>
#include <vector>

// A transition of the state machine as its daemon logs it: the state it led to and the media
// action the transition table gives for it (0: none, nothing is published).
struct LoggedTransition {
    std::string to;
    int action = 0;
};

// The transitions a daemon's log shows, in order.
inline std::vector<LoggedTransition> loggedTransitions(const std::string& log) {
    static const struct {
        const char* text;
        const char* to;
        int action;
    } rows[] = {
        {"PTP FSM: transition from INIT to FAILURE state", "failure", 0},
        {"PTP FSM: transition from FAILURE to MASTER state", "master", 2},
        {"PTP FSM: transition from FAILURE to SLAVE UNSTABLE state", "slave-unstable", 0},
        {"PTP FSM: transition from MASTER to FAIL state", "failure", 1},
        {"PTP FSM: transition from MASTER to SLAVE UNSTABLE state", "slave-unstable", 1},
        {"PTP FSM: transition from SLAVE UNSTABLE to FAIL state", "failure", 1},
        {"PTP FSM: transition from SLAVE UNSTABLE to MASTER state", "master", 1},
        {"PTP FSM: transition from SLAVE UNSTABLE to SLAVE STABLE state", "slave-stable", 2},
        {"PTP FSM: transition from SLAVE STABLE to FAIL state", "failure", 1},
        {"PTP FSM: transition from SLAVE STABLE to MASTER state", "master", 3},
        {"PTP FSM: transition from SLAVE STABLE to SLAVE UNSTABLE state", "slave-unstable", 1},
        {"PTP FSM: transition from SLAVE STABLE to SLAVE UNSTABLE - GMID changed", "slave-unstable",
         0},
        {"PTP FSM: SHOULD NEVER REACH THIS", "init", 0},
    };
    std::vector<LoggedTransition> transitions;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        for (const auto& row : rows) {
            if (line.find(row.text) != std::string::npos) {
                transitions.push_back({row.to, row.action});
            }
        }
    }
    return transitions;
}

// The media actions of those transitions: what the notifications on "1000" must be, none
// missing, none more.
inline std::vector<int> actionsOfLoggedTransitions(const std::string& log) {
    std::vector<int> actions;
    for (const LoggedTransition& t : loggedTransitions(log)) {
        if (t.action != 0) {
            actions.push_back(t.action);
        }
    }
    return actions;
}
