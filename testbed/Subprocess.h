#pragma once

#include <chrono>
#include <string>
#include <vector>

// Runs a program to completion with its output collected, for test beds that drive shell
// scripts. The child gets no descriptor of the test process except standard input, output
// and error, so that daemons it leaves running hold nothing of ours open.
class Subprocess {
  public:
    struct Result {
        // The exit status, 128 + signal number for a child killed by a signal, or -1 when the
        // program could not be run or had to be killed at the deadline.
        int exitCode = -1;
        std::string output;  // standard output and standard error, interleaved
    };

    // argv[0] is looked up in PATH; extraEnv entries ("NAME=value") replace or extend the
    // environment. A child still running at the deadline is killed.
    static Result run(const std::vector<std::string>& argv,
                      const std::vector<std::string>& extraEnv = {},
                      std::chrono::milliseconds timeout = std::chrono::seconds(30));
};
