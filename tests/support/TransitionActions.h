#pragma once

#include <sstream>
#include <string>
#include <utility>
#include <vector>

// The media actions the state machine's transition table gives for the transitions a daemon's
// log shows, in order: what its notifications on "1000" must be, none missing, none more.
inline std::vector<int> actionsOfLoggedTransitions(const std::string& log) {
    static const std::pair<const char*, int> rows[] = {
        {"PTP FSM: transition from FAILURE to MASTER state", 2},
        {"PTP FSM: transition from MASTER to FAIL state", 1},
        {"PTP FSM: transition from MASTER to SLAVE UNSTABLE state", 1},
        {"PTP FSM: transition from SLAVE UNSTABLE to FAIL state", 1},
        {"PTP FSM: transition from SLAVE UNSTABLE to MASTER state", 1},
        {"PTP FSM: transition from SLAVE UNSTABLE to SLAVE STABLE state", 2},
        {"PTP FSM: transition from SLAVE STABLE to FAIL state", 1},
        {"PTP FSM: transition from SLAVE STABLE to MASTER state", 3},
        {"PTP FSM: transition from SLAVE STABLE to SLAVE UNSTABLE state", 1},
    };
    std::vector<int> actions;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        for (const auto& [text, action] : rows) {
            if (line.find(text) != std::string::npos) {
                actions.push_back(action);
            }
        }
    }
    return actions;
}
