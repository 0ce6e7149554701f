#pragma once

#include <string>

// text as one word of a POSIX shell command line: unchanged when no character of it means
// anything to the shell, else in single quotes (an embedded quote closed, escaped and
// reopened). Commands are built from request data and run as root: nothing in a path may
// turn into shell syntax.
std::string shellWord(const std::string& text);
