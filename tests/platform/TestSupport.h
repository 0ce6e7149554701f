#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "PollFds.h"

// A scratch directory removed with everything in it at the end of the test.
class TempDir {
  public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "ostpmc-XXXXXX").string();
        if (mkdtemp(pattern.data())) {
            m_path = pattern;
        }
        EXPECT_FALSE(m_path.empty());
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    ASSERT_TRUE(out.good()) << path;
}

// One bounded wait on the list; the number of ready items (0 on time-out).
inline int pollOnce(PollFds& fds, long timeoutMs) {
    return zmq_poll(fds.getPollList(), fds.getPollListSize(), timeoutMs);
}
