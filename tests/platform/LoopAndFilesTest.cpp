// What the daemon's loop waits on (timer, signals, the defaults file) and the small helpers
// around it: log lines, file loading and the moving average.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "Logger.h"
#include "MoveAverage.h"
#include "PollFds.h"
#include "ProcessBasics.h"
#include "SystemDefaultCfg.h"
#include "Timer.h"

namespace {

// A scratch directory removed with everything in it at the end of the test.
struct TempDir {
    std::string path = (std::filesystem::temp_directory_path() / "ostpmc-XXXXXX").string();
    TempDir() { EXPECT_NE(mkdtemp(path.data()), nullptr); }
    ~TempDir() { std::filesystem::remove_all(path, ignored); }
    std::error_code ignored;
    std::string file(const std::string& name) const { return path + "/" + name; }
};

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

// Runs the loop as the server does, bounded: hands each ready item to handle until the sum of
// what handle returned is non-zero; that sum (0 on time-out).
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

TEST(Timer, FiresAndReArmsWithoutSecondPollItem) {
    PollFds fds;
    Timer timer;
    ASSERT_EQ(timer.initTimer(fds, 1), 0);
    ASSERT_EQ(timer.initTimer(fds, 1), 0);
    EXPECT_EQ(timer.initTimer(fds, 0), -EINVAL);
    ASSERT_EQ(fds.getPollListSize(), 1);
    ASSERT_EQ(zmq_poll(fds.getPollList(), 1, 3000), 1);
    const zmq_pollitem_t own = fds.getPollList()[0];
    EXPECT_TRUE(timer.processTimerFd(own));
    EXPECT_EQ(timer.lastExpirations(), 1u);
    // The expiry was consumed; claimed again without blocking, nothing is counted.
    EXPECT_EQ(zmq_poll(fds.getPollList(), 1, 0), 0);
    EXPECT_TRUE(timer.processTimerFd(own));
    EXPECT_EQ(timer.lastExpirations(), 0u);
    // Neither a socket item, whatever its fd member holds, nor another descriptor is the timer.
    int socket = 0;
    EXPECT_FALSE(timer.processTimerFd({&socket, own.fd, ZMQ_POLLIN, 0}));
    EXPECT_FALSE(timer.processTimerFd({nullptr, own.fd + 1, ZMQ_POLLIN, 0}));
}

TEST(ProcessBasics, SignalsStopTheLoopAndChildrenGetDefaults) {
    PollFds fds;
    ProcessBasics basics;
    ASSERT_EQ(basics.registerCatchSignals(fds), 0);
    ASSERT_EQ(basics.registerCatchSignals(fds), 0);
    ASSERT_EQ(fds.getPollListSize(), 1);
    const auto serveUntilStopped = [&] {
        return handleReady(fds, 3000, [&](const zmq_pollitem_t& item) {
            EXPECT_TRUE(basics.processSignalHandlerFd(item));
            return basics.isStopRequested() ? 1 : 0;
        });
    };
    EXPECT_FALSE(basics.processSignalHandlerFd({nullptr, 0, ZMQ_POLLIN, 0}));
    LogCapture log;
    std::thread sender([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        kill(getpid(), SIGTERM);
    });
    EXPECT_TRUE(serveUntilStopped());
    sender.join();
    EXPECT_EQ(basics.lastSignal(), SIGTERM);
    EXPECT_TRUE(log.containsFragment("ProcessBasics: signal 15"));

    // A broken pipe is an error return here, not the end of the daemon.
    EXPECT_EQ(raise(SIGPIPE), 0);
    // A shell started as the init script is (system()) dies of the signal it sends itself.
    for (int signo : {SIGTERM, SIGPIPE, SIGHUP}) {
        const int status = std::system(("kill -" + std::to_string(signo) + " $$; exit 3").c_str());
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signo) << signo << " " << status;
    }
    // The other terminating signals are caught the same way.
    for (int signo : {SIGINT, SIGQUIT, SIGHUP}) {
        ASSERT_EQ(raise(signo), 0);
        EXPECT_TRUE(serveUntilStopped());
        EXPECT_EQ(basics.lastSignal(), signo);
    }
}

// The defaults file's values: board model, threshold and redundancy.
void expectValues(const SystemDefaultCfg& cfg, int model, float threshold, bool redundancy) {
    float actual = 0;
    EXPECT_EQ(cfg.getBoardModel().getValue(), model);
    EXPECT_EQ(cfg.getClockOffsetFromMasterThreshold(actual), 0);
    EXPECT_EQ(actual, threshold);
    EXPECT_EQ(cfg.isRedundancyEnable(), redundancy);
}

TEST(SystemDefaultCfg, MissingBrokenAndEditedUnderTheLoop) {
    TempDir dir;
    const std::string path = dir.file("system-defaults.json");
    LogCapture log;
    SystemDefaultCfg cfg(path);
    expectValues(cfg, 0, 1500.0f, false);
    EXPECT_TRUE(
        log.contains("FileMgr: cannot open " + path + ": No such file or directory", Logger::ERR));
    EXPECT_TRUE(
        log.contains("SystemDefaultCfg: cannot read " + path + ", using defaults", Logger::ERR));
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(cfg.reload(), -EISDIR);
    EXPECT_TRUE(log.contains("FileMgr: error reading " + path + ": Is a directory", Logger::ERR));
    ASSERT_EQ(rmdir(path.c_str()), 0);
    writeFile(path, "{\"boardModel\":4}");
    EXPECT_EQ(cfg.reload(), 0);
    expectValues(cfg, 4, 1500.0f, false);
    EXPECT_TRUE(log.contains("SystemDefaultCfg: loaded " + path +
                                 ": boardModel 4 (WREN), clockOffsetFromMasterThreshold "
                                 "1500.0 ns, redundancyEnable false",
                             Logger::INF));
    const std::string full =
        "{\"boardModel\":9,\"clockOffsetFromMasterThreshold\":250.5,\"redundancyEnable\":true}";
    const std::string bad = "SystemDefaultCfg: " + path + ": bad ";
    const std::pair<std::string, std::string> broken[] = {
        {"{\"boardModel\":3", "SystemDefaultCfg: " + path + " is not a JSON object"},
        {"[3]", "SystemDefaultCfg: " + path + " is not a JSON object"},
        {"{\"boardModel\":\"3\"}", bad + "\"boardModel\""},
        {"{\"redundancyEnable\":1}", bad + "\"redundancyEnable\""},
        {"{\"clockOffsetFromMasterThreshold\":-1}", bad + "\"clockOffsetFromMasterThreshold\""},
        {"{\"clockOffsetFromMasterThreshold\":1e300}", bad + "\"clockOffsetFromMasterThreshold\""},
    };
    for (const auto& [text, logLine] : broken) {
        SCOPED_TRACE(text);
        // From non-default values: a broken file must not leave any of them behind.
        writeFile(path, full);
        ASSERT_EQ(cfg.reload(), 0);
        expectValues(cfg, 9, 250.5f, true);
        log.clear();
        writeFile(path, text);
        EXPECT_LT(cfg.reload(), 0);
        expectValues(cfg, 0, 1500.0f, false);
        EXPECT_TRUE(log.contains(logLine + ", using defaults", Logger::ERR));
    }
    EXPECT_EQ(BoardModel(7).getName(), "Undefined");

    PollFds fds;
    ASSERT_EQ(cfg.initSubscribers(fds), 0);
    ASSERT_EQ(cfg.initSubscribers(fds), 0);
    ASSERT_EQ(fds.getPollListSize(), 1);
    const auto handleEvents = [&](long timeoutMs) {
        return handleReady(fds, timeoutMs, [&](auto& item) { return cfg.processEvent(item); });
    };
    writeFile(path, "{\"boardModel\":4}");
    EXPECT_EQ(handleEvents(2000), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 4);
    // Replaced by rename, as editors and mv do.
    writeFile(dir.file("new.tmp"), "{\"boardModel\":5}");
    ASSERT_EQ(std::rename(dir.file("new.tmp").c_str(), path.c_str()), 0);
    EXPECT_EQ(handleEvents(2000), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 5);
    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(handleEvents(2000), 1);
    expectValues(cfg, 0, 1500.0f, false);

    // A file just created is still being written: no reload, no error until it is closed.
    log.clear();
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(handleEvents(300), 0);
    ASSERT_EQ(write(fd, "{\"boardModel\":8}", 16), 16);
    close(fd);
    EXPECT_EQ(handleEvents(2000), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 8);
    EXPECT_FALSE(log.containsFragment("using defaults"));
    // A missing directory is no reason to fail start-up: there is just nothing to watch.
    SystemDefaultCfg elsewhere(dir.file("none/system-defaults.json"));
    PollFds none;
    EXPECT_EQ(elsewhere.initSubscribers(none), 0);
    EXPECT_EQ(none.getPollListSize(), 0);
    EXPECT_TRUE(log.containsFragment("SystemDefaultCfg: cannot watch " + dir.file("none")));
}

TEST(Logger, LineFormatAndLevelBits) {
    const unsigned int saved = Logger::getOptions();
    TempDir dir;
    // The low three bits are the highest level written; bits above them do not widen it.
    ASSERT_EQ(
        Logger::createLogger(Logger::LOG_TO_FILE | 0x08 | Logger::DBG, dir.file("l.log"), "tname"),
        0);
    for (int level = Logger::ERR; level <= Logger::VERBOSE; ++level) {
        Logger::log(level, "line %d", level);
    }
    Logger::log(Logger::ERR, "%s", std::string(3000, 'z').c_str());
    EXPECT_EQ(Logger::createLogger(Logger::LOG_TO_FILE | Logger::ERR, "/none/x.log", "t"), -1);
    Logger::createLogger(saved, "", program_invocation_short_name);
    std::ostringstream text;
    text << std::ifstream(dir.file("l.log")).rdbuf();
    const std::string stamp = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4} tname\[)" +
                              std::to_string(getpid()) + R"(\] )";
    EXPECT_TRUE(std::regex_match(
        text.str(),
        std::regex(stamp + "ERR line 2\n" + stamp + "WRN line 3\n" + stamp + "NTF line 4\n" +
                   stamp + "INF line 5\n" + stamp + "DBG line 6\n" + stamp + "ERR z{3000}\n")));
}

TEST(MoveAverage, WindowMinimumAndReset) {
    MoveAverage average(5, 2);
    EXPECT_EQ(average.getAverage(), 0.0);
    average.addSample(10.0f);
    EXPECT_FALSE(average.minSizeReached());
    average.addSample(-4.0f);
    EXPECT_TRUE(average.minSizeReached());
    EXPECT_EQ(average.getAverage(), 3.0);
    // Only the newest five count once the window has wrapped.
    for (float sample : {1.0f, 2.0f, 3.0f, 4.0f, 5.0f, 6.0f, 7.0f}) {
        average.addSample(sample);
    }
    EXPECT_EQ(average.getAverage(), 5.0);
    // Nothing of the old window is left: neither its samples nor its count.
    average.reset();
    EXPECT_FALSE(average.minSizeReached());
    average.addSample(100.0f);
    EXPECT_EQ(average.getAverage(), 100.0);
}

}  // namespace
