#pragma once

#include <string>

// Request codes of the daemon's request socket, shared by the server and its clients.
enum ostpmc_msg_t : unsigned int {
    OSTPMC_GET_PTP_INFO = 0,
    OSTPMC_SET_PTP_PARAMETER = 1,
    OSTPMC_GET_RUNNING_CFG = 2,
    OSTPMC_SET_RUNNING_CFG = 3,
    OSTPMC_GET_PTP_STATS = 4,
    OSTPMC_GET_INTERNAL_DEBUG_INFO = 5,
    OSTPMC_MSG_COUNT = 6,
};

struct OstPmcCommands {
    // Replaces out with the display text of code and returns true; leaves out alone and
    // returns false for a code without an entry.
    static bool getCommandNameStr(ostpmc_msg_t code, std::string& out) {
        struct Entry {
            ostpmc_msg_t code;
            const char* text;
        };
        static const Entry command_table[] = {
            {OSTPMC_GET_PTP_INFO, "GET PTP INFO"},
            {OSTPMC_SET_PTP_PARAMETER, "SET PTP Parameter"},
            {OSTPMC_GET_RUNNING_CFG, "GET OstPmc running config"},
            {OSTPMC_SET_RUNNING_CFG, "SET OstPmc running config"},
            {OSTPMC_GET_PTP_STATS, "GET PTP STATS"},
            {OSTPMC_GET_INTERNAL_DEBUG_INFO, "GET OstPmc internal debug info"},
        };
        for (const Entry& entry : command_table) {
            if (entry.code == code) {
                out = entry.text;
                return true;
            }
        }
        return false;
    }

    // The description both sides give for a code. A code above the table appends
    // "not recognized" to what out already holds; that is how callers have always used it.
    static int describe(unsigned int code, std::string& out) {
        if (static_cast<int>(code) > static_cast<int>(OSTPMC_MSG_COUNT) - 1) {
            out += "not recognized";
            return 0;
        }
        getCommandNameStr(static_cast<ostpmc_msg_t>(code), out);
        return 0;
    }
};
