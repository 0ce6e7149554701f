// Device defaults: what a missing, partial or broken file gives, and live reload when the file
// is edited, replaced or removed while the loop runs.
#include "SystemDefaultCfg.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>

#include "Logger.h"
#include "TestSupport.h"

namespace {

void expectValues(const SystemDefaultCfg& cfg, int model, float threshold, bool redundancy) {
    float actual = 0;
    EXPECT_EQ(cfg.getBoardModel().getValue(), model);
    EXPECT_EQ(cfg.getClockOffsetFromMasterThreshold(actual), 0);
    EXPECT_EQ(actual, threshold);
    EXPECT_EQ(cfg.isRedundancyEnable(), redundancy);
}

class SystemDefaults : public ::testing::Test {
  protected:
    TempDir m_dir;
    const std::string m_path = m_dir.file("system-defaults.json");
    const std::string m_full =
        "{\"boardModel\":9,\"clockOffsetFromMasterThreshold\":250.5,\"redundancyEnable\":true}";
};

TEST_F(SystemDefaults, MissingPartialAndBrokenFiles) {
    LogCapture log;
    SystemDefaultCfg cfg(m_path);
    expectValues(cfg, 0, 1500.0f, false);
    EXPECT_TRUE(
        log.contains("SystemDefaultCfg: cannot read " + m_path + ", using defaults", Logger::ERR));
    writeFile(m_path, "{\"boardModel\":4}");
    EXPECT_EQ(cfg.reload(), 0);
    expectValues(cfg, 4, 1500.0f, false);
    EXPECT_TRUE(log.contains("SystemDefaultCfg: loaded " + m_path +
                                 ": boardModel 4 (WREN), clockOffsetFromMasterThreshold "
                                 "1500.0 ns, redundancyEnable false",
                             Logger::INF));
    writeFile(m_path, m_full);
    EXPECT_EQ(cfg.reload(), 0);
    expectValues(cfg, 9, 250.5f, true);

    const std::string bad = "SystemDefaultCfg: " + m_path + ": bad ";
    const std::pair<std::string, std::string> broken[] = {
        {"{\"boardModel\":3", "SystemDefaultCfg: " + m_path + " is not a JSON object"},
        {"[3]", "SystemDefaultCfg: " + m_path + " is not a JSON object"},
        {"{\"boardModel\":\"3\"}", bad + "\"boardModel\""},
        {"{\"redundancyEnable\":1}", bad + "\"redundancyEnable\""},
        {"{\"clockOffsetFromMasterThreshold\":-1}", bad + "\"clockOffsetFromMasterThreshold\""},
        {"{\"clockOffsetFromMasterThreshold\":1e300}", bad + "\"clockOffsetFromMasterThreshold\""},
    };
    for (const auto& [text, logLine] : broken) {
        SCOPED_TRACE(text);
        // From non-default values: a broken file must not leave any of them behind.
        writeFile(m_path, m_full);
        ASSERT_EQ(cfg.reload(), 0);
        log.clear();
        writeFile(m_path, text);
        EXPECT_LT(cfg.reload(), 0);
        expectValues(cfg, 0, 1500.0f, false);
        EXPECT_TRUE(log.contains(logLine + ", using defaults", Logger::ERR));
    }
    EXPECT_EQ(BoardModel(7).getName(), "Undefined");
}

int handleEvents(PollFds& fds, SystemDefaultCfg& cfg, long timeoutMs = 2000) {
    return handleReady(fds, timeoutMs,
                       [&](const zmq_pollitem_t& item) { return cfg.processEvent(item); });
}

TEST_F(SystemDefaults, ReloadsWhenTheFileChangesUnderTheLoop) {
    writeFile(m_path, "{\"boardModel\":3}");
    SystemDefaultCfg cfg(m_path);
    PollFds fds;
    ASSERT_EQ(cfg.initSubscribers(fds), 0);
    ASSERT_EQ(cfg.initSubscribers(fds), 0);
    ASSERT_EQ(fds.getPollListSize(), 1);

    writeFile(m_path, "{\"boardModel\":4}");
    EXPECT_EQ(handleEvents(fds, cfg), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 4);
    // Replaced by rename, as editors and mv do.
    writeFile(m_dir.file("new.tmp"), "{\"boardModel\":5}");
    ASSERT_EQ(std::rename(m_dir.file("new.tmp").c_str(), m_path.c_str()), 0);
    EXPECT_EQ(handleEvents(fds, cfg), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 5);
    ASSERT_EQ(unlink(m_path.c_str()), 0);
    EXPECT_EQ(handleEvents(fds, cfg), 1);
    expectValues(cfg, 0, 1500.0f, false);

    // A file just created is still being written: no reload, no error until it is closed.
    LogCapture log;
    const int fd = open(m_path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(handleEvents(fds, cfg, 300), 0);
    ASSERT_EQ(write(fd, "{\"boardModel\":8}", 16), 16);
    close(fd);
    EXPECT_EQ(handleEvents(fds, cfg), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 8);
    EXPECT_FALSE(log.containsFragment("using defaults"));

    // A missing directory is no reason to fail start-up: there is just nothing to watch.
    SystemDefaultCfg elsewhere(m_dir.file("none/system-defaults.json"));
    PollFds none;
    EXPECT_EQ(elsewhere.initSubscribers(none), 0);
    EXPECT_EQ(none.getPollListSize(), 0);
    EXPECT_TRUE(log.containsFragment("SystemDefaultCfg: cannot watch " + m_dir.file("none")));
}

}  // namespace
