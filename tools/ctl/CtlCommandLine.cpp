#include "CtlCommandLine.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

bool parseWholeNumber(const std::string& text, long& value) {
    if (text.empty()) {
        return false;
    }
    errno = 0;
    char* end = nullptr;
    value = strtol(text.c_str(), &end, 0);
    return errno == 0 && end && *end == '\0';
}

// The numeric parameters and the values their fields on the wire can carry: unsigned bytes,
// and the signed logarithms of the message intervals. A value out of range would be cut to
// another one on its way to ptp4l, so it is refused before anything is sent.
struct NumberKey {
    const char* name;
    long min;
    long max;
};
const NumberKey NUMBER_KEYS[] = {
    {"domain", 0, 255},         {"priority1", 0, 255},           {"priority2", 0, 255},
    {"port", 1, 255},           {"announceInterval", -128, 127}, {"announceReceiptTimeout", 0, 255},
    {"syncInterval", -128, 127}};

const NumberKey* numberKey(const std::string& key) {
    for (const NumberKey& known : NUMBER_KEYS) {
        if (key == known.name) {
            return &known;
        }
    }
    return nullptr;
}

}  // namespace

const char* ctlUsage() {
    return "usage: ostpmc-ctl [options] <command> [arguments]\n"
           "\n"
           "Talks to the ostPmc daemon of this device.\n"
           "\n"
           "commands:\n"
           "  status                 PTP status as ostPmc last read it from ptp4l\n"
           "  stats                  PTP statistics (boards that collect them)\n"
           "  config                 running PTP configuration\n"
           "  debug                  status and running configuration together\n"
           "  set key=value...       change parameters; keys: domain priority1 priority2\n"
           "                         port announceReceiptTimeout (0..255), announceInterval\n"
           "                         syncInterval (-128..127), slaveOnly (true|false),\n"
           "                         profile\n"
           "  apply <file.json>      apply a whole running configuration from a JSON file\n"
           "  watch [topic...]       print publications as they arrive (what it waits for\n"
           "                         goes to standard error); topics 1000 (state-machine\n"
           "                         notifications), 1001 (configuration)\n"
           "  top                    live view, refreshed every second: state, grandmaster,\n"
           "                         offset, ports and the last notifications\n"
           "\n"
           "options:\n"
           "  -H, --host <address>   daemon host (default 127.0.0.1)\n"
           "  -t, --timeout <ms>     reply time-out in milliseconds (watch: stop after it)\n"
           "  -n, --count <n>        watch: stop after n publications; top: after n frames\n"
           "  -j, --json             print the raw JSON instead of readable text\n"
           "  -v, --verbose          also print the client library's log lines\n"
           "  -h, --help             this text\n"
           "\n"
           "exit status: 0 success, 1 usage or input error, 2 the daemon refused the\n"
           "request, 3 no answer from the daemon\n";
}

bool parseSetParameters(const std::vector<std::string>& words, Json::Value& out,
                        std::string& error) {
    out = Json::Value(Json::objectValue);
    if (words.empty()) {
        error = "set needs at least one key=value";
        return false;
    }
    for (const std::string& word : words) {
        size_t eq = word.find('=');
        if (eq == std::string::npos || eq == 0) {
            error = "expected key=value, got '" + word + "'";
            return false;
        }
        std::string key = word.substr(0, eq);
        std::string value = word.substr(eq + 1);
        if (const NumberKey* range = numberKey(key)) {
            long number;
            if (!parseWholeNumber(value, number) || number < range->min || number > range->max) {
                error = key + " needs a whole number " + std::to_string(range->min) + ".." +
                        std::to_string(range->max) + ", got '" + value + "'";
                return false;
            }
            out[key] = static_cast<int>(number);
        } else if (key == "slaveOnly") {
            if (value == "true" || value == "1") {
                out[key] = true;
            } else if (value == "false" || value == "0") {
                out[key] = false;
            } else {
                error = "slaveOnly needs true or false, got '" + value + "'";
                return false;
            }
        } else if (key == "profile") {
            if (value.empty()) {
                error = "profile needs a profile name";
                return false;
            }
            out[key] = value;
        } else {
            error = "unknown parameter '" + key + "'";
            return false;
        }
    }
    return true;
}

bool parseCtlCommandLine(int argc, char** argv, CtlRequest& request, std::string& error) {
    std::vector<std::string> words;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        auto needValue = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                error = std::string(name) + " needs a value";
                return nullptr;
            }
            return argv[++i];
        };
        if (arg == "-h" || arg == "--help") {
            request.command = CtlRequest::Command::Help;
            return true;
        } else if (arg == "-j" || arg == "--json") {
            request.json = true;
        } else if (arg == "-v" || arg == "--verbose") {
            request.verbose = true;
        } else if (arg == "-H" || arg == "--host") {
            const char* value = needValue("--host");
            if (!value) {
                return false;
            }
            request.host = value;
            if (request.host.empty()) {
                error = "--host needs an address";
                return false;
            }
        } else if (arg == "-t" || arg == "--timeout" || arg == "-n" || arg == "--count") {
            bool isTimeout = arg == "-t" || arg == "--timeout";
            const char* value = needValue(isTimeout ? "--timeout" : "--count");
            long number;
            if (!value || !parseWholeNumber(value, number) || number <= 0 || number > INT_MAX) {
                if (value) {
                    error = std::string(isTimeout ? "--timeout" : "--count") +
                            " needs a positive whole number, got '" + value + "'";
                }
                return false;
            }
            (isTimeout ? request.timeoutMs : request.count) = static_cast<int>(number);
        } else if (arg.size() > 1 && arg[0] == '-' && words.empty()) {
            error = "unknown option '" + arg + "'";
            return false;
        } else {
            words.push_back(arg);
        }
    }

    if (words.empty()) {
        error = "no command given";
        return false;
    }
    const std::string command = words.front();
    std::vector<std::string> rest(words.begin() + 1, words.end());
    struct Simple {
        const char* name;
        CtlRequest::Command command;
    };
    static const Simple simple[] = {{"status", CtlRequest::Command::Status},
                                    {"stats", CtlRequest::Command::Stats},
                                    {"config", CtlRequest::Command::Config},
                                    {"debug", CtlRequest::Command::Debug},
                                    {"top", CtlRequest::Command::Top}};
    for (const Simple& entry : simple) {
        if (command == entry.name) {
            if (!rest.empty()) {
                error = command + " takes no arguments";
                return false;
            }
            request.command = entry.command;
            return true;
        }
    }
    if (command == "set") {
        request.command = CtlRequest::Command::Set;
        return parseSetParameters(rest, request.parameters, error);
    }
    if (command == "apply") {
        if (rest.size() != 1) {
            error = "apply needs exactly one JSON file";
            return false;
        }
        request.command = CtlRequest::Command::Apply;
        request.file = rest.front();
        return true;
    }
    if (command == "watch") {
        for (const std::string& topic : rest) {
            if (topic != "1000" && topic != "1001") {
                error = "unknown topic '" + topic + "' (1000 or 1001)";
                return false;
            }
        }
        request.command = CtlRequest::Command::Watch;
        request.topics = rest;
        return true;
    }
    error = "unknown command '" + command + "'";
    return false;
}
