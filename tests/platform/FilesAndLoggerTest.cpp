// The small helpers: log line format and filtering, file loading, the moving average and the
// root prefix of device paths.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

#include "FileMgr.h"
#include "Logger.h"
#include "MoveAverage.h"
#include "TestSupport.h"

namespace {

std::vector<std::string> readLines(const std::string& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        lines.push_back(line);
    }
    return lines;
}

class LoggerFile : public ::testing::Test {
  protected:
    void SetUp() override { m_saved = Logger::getOptions(); }
    void TearDown() override { Logger::createLogger(m_saved, "", program_invocation_short_name); }
    void logEveryLevel() {
        for (int level = Logger::ERR; level <= Logger::VERBOSE; ++level) {
            Logger::log(level, "line %d", level);
        }
    }

    unsigned int m_saved = 0;
    TempDir m_dir;
};

TEST_F(LoggerFile, LinesCarryTimeNamePidAndTag) {
    const std::string path = m_dir.file("test.log");
    ASSERT_EQ(Logger::createLogger(Logger::LOG_TO_FILE | Logger::DBG, path, "tname"), 0);
    logEveryLevel();
    const std::string longText(3000, 'z');
    Logger::log(Logger::ERR, "%s", longText.c_str());

    const std::vector<std::string> lines = readLines(path);
    ASSERT_EQ(lines.size(), 6u);
    const std::string prefix = R"(^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4} tname\[)" +
                               std::to_string(getpid()) + R"(\] )";
    const char* tags[] = {"ERR", "WRN", "NTF", "INF", "DBG"};
    for (int i = 0; i < 5; ++i) {
        EXPECT_TRUE(std::regex_match(
            lines[i], std::regex(prefix + tags[i] + " line " + std::to_string(i + 2) + "$")))
            << lines[i];
    }
    EXPECT_TRUE(std::regex_match(lines[5], std::regex(prefix + "ERR z{3000}$")));
}

TEST_F(LoggerFile, LowThreeBitsAreTheHighestLevelWritten) {
    const std::string path = m_dir.file("warn.log");
    // Bits above the level (here 0x08) do not widen it.
    ASSERT_EQ(Logger::createLogger(Logger::LOG_TO_FILE | 0x08 | Logger::WRN, path, "tname"), 0);
    logEveryLevel();
    const std::vector<std::string> lines = readLines(path);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find(" ERR line 2"), std::string::npos);
    EXPECT_NE(lines[1].find(" WRN line 3"), std::string::npos);

    // Without the file bit the name is not opened at all.
    const std::string unused = m_dir.file("unused.log");
    ASSERT_EQ(Logger::createLogger(Logger::ERR, unused, "tname"), 0);
    Logger::log(Logger::ERR, "not in a file");
    EXPECT_NE(access(unused.c_str(), F_OK), 0);

    EXPECT_EQ(
        Logger::createLogger(Logger::LOG_TO_FILE | Logger::ERR, "/nonexistent-dir/x.log", "tname"),
        -1);
}

TEST(LogCapture, InnermostCaptureGetsEveryLevel) {
    LogCapture outer;
    {
        LogCapture inner;
        Logger::log(Logger::VERBOSE, "deep %s", "detail");
        EXPECT_TRUE(inner.contains("deep detail", Logger::VERBOSE));
        EXPECT_FALSE(inner.contains("deep detail", Logger::ERR));
        EXPECT_EQ(inner.count("deep detail"), 1u);
    }
    EXPECT_TRUE(outer.lines().empty());
    Logger::log(Logger::ERR, "after");
    EXPECT_TRUE(outer.contains("after"));
}

TEST(FileMgr, LoadsWholeFilesAndReportsErrors) {
    TempDir dir;
    FileMgr files;
    std::string content = "previous";
    const std::string binary("a\0b\nc", 5);
    writeFile(dir.file("data"), binary);
    EXPECT_EQ(files.loadFileContent(dir.file("data"), content), 5);
    EXPECT_EQ(content, binary);

    writeFile(dir.file("empty"), "");
    EXPECT_EQ(files.loadFileContent(dir.file("empty"), content), 0);
    EXPECT_EQ(content, "");

    content = "kept";
    LogCapture log;
    EXPECT_EQ(files.loadFileContent(dir.file("missing"), content), -ENOENT);
    EXPECT_TRUE(
        log.contains("FileMgr: cannot open " + dir.file("missing") + ": No such file or directory",
                     Logger::ERR));
    EXPECT_EQ(files.loadFileContent(dir.path(), content), -EISDIR);
    EXPECT_TRUE(
        log.contains("FileMgr: error reading " + dir.path() + ": Is a directory", Logger::ERR));
    EXPECT_EQ(content, "kept");
}

TEST(MoveAverage, WindowMinimumAndReset) {
    MoveAverage average(5, 2);
    EXPECT_EQ(average.getAverage(), 0.0);
    average.addSample(10.0f);
    EXPECT_FALSE(average.minSizeReached());
    EXPECT_EQ(average.getAverage(), 10.0);
    average.addSample(-4.0f);
    EXPECT_TRUE(average.minSizeReached());
    EXPECT_EQ(average.getAverage(), 3.0);

    // Only the newest five count once the window has wrapped.
    for (float sample : {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f}) {
        average.addSample(sample);
    }
    EXPECT_EQ(average.getAverage(), 5.0);

    average.reset();
    EXPECT_FALSE(average.minSizeReached());
    EXPECT_EQ(average.getAverage(), 0.0);
    average.addSample(100.0f);
    average.addSample(200.0f);
    EXPECT_TRUE(average.minSizeReached());
    EXPECT_EQ(average.getAverage(), 150.0);
}

// Runs the probe with the given environment assignment; its standard output.
std::string runProbe(const std::string& environment) {
    const std::string command = environment + " " + PLATFORM_PROBE + " 2>/dev/null";
    FILE* pipe = popen(command.c_str(), "r");
    EXPECT_NE(pipe, nullptr);
    std::string out;
    char buffer[256];
    while (pipe && fgets(buffer, sizeof(buffer), pipe)) {
        out += buffer;
    }
    if (pipe) {
        EXPECT_EQ(pclose(pipe), 0);
    }
    return out;
}

TEST(SysRoot, PrefixIsReadOnceAndJoined) {
    TempDir root;
    ASSERT_EQ(std::system(("mkdir -p " + root.path() + "/etc/ost").c_str()), 0);
    writeFile(root.file("etc/ost/system-defaults.json"), "{\"boardModel\":9}");

    // A trailing slash of the prefix is not doubled; a later change of the variable is not seen.
    EXPECT_EQ(runProbe("OSTPMC_SYSROOT=" + root.path() + "/"),
              "path=" + root.path() + "/etc/ost/\nagain=" + root.path() + "/etc/ost/\nboard=9\n");
    for (const char* environment :
         {"env -u OSTPMC_SYSROOT", "OSTPMC_SYSROOT=", "OSTPMC_SYSROOT=/"}) {
        const std::string out = runProbe(environment);
        EXPECT_EQ(out.substr(0, out.find("board=")), "path=/etc/ost/\nagain=/etc/ost/\n")
            << environment;
    }
}

}  // namespace
