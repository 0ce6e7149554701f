#pragma once

#include "Logger.h"

// The services' check convention: a call that failed with a negative code leaves one ERR line
// per level it travels through, naming the function and the place of the check.
inline int logCheck(const char* function, int line, int code) {
    Logger::log(Logger::ERR, "CHK(%s)::%d Error Code %d", function, line, code);
    return code;
}
