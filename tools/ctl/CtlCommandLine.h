#pragma once

#include <json/json.h>

#include <string>
#include <vector>

// What an operator asked ostpmc-ctl to do.
struct CtlRequest {
    enum class Command { None, Help, Status, Stats, Config, Debug, Set, Apply, Watch, Top };

    Command command = Command::None;
    std::string host = "127.0.0.1";
    int timeoutMs = 0;  // 0: the client library's default
    bool json = false;
    bool verbose = false;
    Json::Value parameters{Json::objectValue};  // set
    std::string file;                           // apply
    std::vector<std::string> topics;            // watch; empty: every topic
    int count = 0;  // watch: stop after this many publications, top: frames; 0: never
};

// Exit statuses of ostpmc-ctl.
enum CtlExit : int {
    CTL_OK = 0,
    CTL_USAGE = 1,      // bad command line or input file
    CTL_REFUSED = 2,    // the daemon answered with an error result
    CTL_NO_ANSWER = 3,  // no answer within the time-out, or no connection
};

// Parses argv; returns true on success, else false with a one-line reason in error.
bool parseCtlCommandLine(int argc, char** argv, CtlRequest& request, std::string& error);

// Turns "key=value" words into the parameter object of a "set" request. Known keys only;
// numbers are whole numbers, slaveOnly is true/false/1/0, profile is a profile text.
bool parseSetParameters(const std::vector<std::string>& words, Json::Value& out,
                        std::string& error);

const char* ctlUsage();
