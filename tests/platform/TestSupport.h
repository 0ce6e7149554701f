#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "PollFds.h"

// A scratch directory removed with everything in it at the end of the test.
struct TempDir {
    std::string path = (std::filesystem::temp_directory_path() / "ostpmc-XXXXXX").string();
    TempDir() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string file(const std::string& name) const { return path + "/" + name; }
};

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Waits (bounded) on the list and hands each ready item to handle until the sum of what handle
// returned is non-zero; that sum (0 on time-out).
template <typename Handle>
int handleReady(PollFds& fds, long timeoutMs, Handle handle) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int sum = 0;
    while (sum == 0 && std::chrono::steady_clock::now() < deadline) {
        zmq_poll(fds.getPollList(), fds.getPollListSize(), 100);
        for (int i = 0; i < fds.getPollListSize(); ++i) {
            if (fds.getPollList()[i].revents != 0) {
                sum += handle(fds.getPollList()[i]);
            }
        }
    }
    return sum;
}
