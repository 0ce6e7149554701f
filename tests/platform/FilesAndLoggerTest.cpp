// The small helpers: log line format and filtering, file loading and the moving average.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <regex>
#include <sstream>
#include <string>

#include "FileMgr.h"
#include "Logger.h"
#include "MoveAverage.h"
#include "TestSupport.h"

namespace {

// Logs one line at every level into a fresh file opened with these options; the file's text.
std::string logEveryLevelTo(const std::string& path, unsigned int options) {
    EXPECT_EQ(Logger::createLogger(Logger::LOG_TO_FILE | options, path, "tname"), 0);
    for (int level = Logger::ERR; level <= Logger::VERBOSE; ++level) {
        Logger::log(level, "line %d", level);
    }
    Logger::log(Logger::ERR, "%s", std::string(3000, 'z').c_str());
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

TEST(Logger, LineFormatAndLevelBits) {
    const unsigned int saved = Logger::getOptions();
    TempDir dir;
    const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4} tname\[)" +
                              std::to_string(getpid()) + R"(\] )";
    EXPECT_TRUE(std::regex_match(
        logEveryLevelTo(dir.file("dbg.log"), Logger::DBG),
        std::regex(stamp + "ERR line 2\n" + stamp + "WRN line 3\n" + stamp + "NTF line 4\n" +
                   stamp + "INF line 5\n" + stamp + "DBG line 6\n" + stamp + "ERR z{3000}\n")));
    // The low three bits are the highest level written; bits above them do not widen it.
    EXPECT_TRUE(std::regex_match(
        logEveryLevelTo(dir.file("wrn.log"), 0x08 | Logger::WRN),
        std::regex(stamp + "ERR line 2\n" + stamp + "WRN line 3\n" + stamp + "ERR z{3000}\n")));

    // Without the file bit the name is not opened at all.
    EXPECT_EQ(Logger::createLogger(Logger::ERR, dir.file("unused.log"), "tname"), 0);
    Logger::log(Logger::ERR, "not in a file");
    EXPECT_NE(access(dir.file("unused.log").c_str(), F_OK), 0);
    EXPECT_EQ(Logger::createLogger(Logger::LOG_TO_FILE | Logger::ERR, "/none/x.log", "t"), -1);
    Logger::createLogger(saved, "", program_invocation_short_name);
}

TEST(FileMgr, LoadsWholeFilesAndReportsErrors) {
    TempDir dir;
    FileMgr files;
    std::string content = "previous";
    const std::string binary("a\0b\nc", 5);
    writeFile(dir.file("data"), binary);
    EXPECT_EQ(files.loadFileContent(dir.file("data"), content), 5);
    EXPECT_EQ(content, binary);

    LogCapture log;
    EXPECT_EQ(files.loadFileContent(dir.file("missing"), content), -ENOENT);
    EXPECT_TRUE(
        log.contains("FileMgr: cannot open " + dir.file("missing") + ": No such file or directory",
                     Logger::ERR));
    EXPECT_EQ(files.loadFileContent(dir.path, content), -EISDIR);
    EXPECT_TRUE(
        log.contains("FileMgr: error reading " + dir.path + ": Is a directory", Logger::ERR));
    EXPECT_EQ(content, binary);
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

}  // namespace
