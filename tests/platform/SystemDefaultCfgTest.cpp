// Device defaults: what a missing, partial or broken file gives, and live reload when the file
// is edited, replaced or removed while the loop runs.
#include "SystemDefaultCfg.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "Logger.h"
#include "TestSupport.h"

namespace {

struct Defaults {
    int model;
    float threshold;
    bool redundancy;
};

Defaults valuesOf(const SystemDefaultCfg& cfg) {
    Defaults d{};
    d.model = cfg.getBoardModel().getValue();
    EXPECT_EQ(cfg.getClockOffsetFromMasterThreshold(d.threshold), 0);
    d.redundancy = cfg.isRedundancyEnable();
    return d;
}

void expectDefaults(const SystemDefaultCfg& cfg) {
    const Defaults d = valuesOf(cfg);
    EXPECT_EQ(d.model, 0);
    EXPECT_EQ(d.threshold, 1500.0f);
    EXPECT_FALSE(d.redundancy);
}

TEST(SystemDefaultCfg, FileContentsAndTheirDefaults) {
    TempDir dir;
    const std::string path = dir.file("system-defaults.json");
    {
        LogCapture log;
        SystemDefaultCfg cfg(path);
        expectDefaults(cfg);
        EXPECT_LT(cfg.reload(), 0);
        EXPECT_TRUE(log.contains("SystemDefaultCfg: cannot read " + path + ", using defaults",
                                 Logger::ERR));
    }

    writeFile(path,
              "{\"boardModel\":9,\"clockOffsetFromMasterThreshold\":250.5,"
              "\"redundancyEnable\":true}");
    SystemDefaultCfg cfg(path);
    Defaults d = valuesOf(cfg);
    EXPECT_EQ(d.model, 9);
    EXPECT_EQ(d.threshold, 250.5f);
    EXPECT_TRUE(d.redundancy);

    {
        LogCapture log;
        writeFile(path, "{\"boardModel\":4}");
        EXPECT_EQ(cfg.reload(), 0);
        d = valuesOf(cfg);
        EXPECT_EQ(d.model, 4);
        EXPECT_EQ(d.threshold, 1500.0f);
        EXPECT_FALSE(d.redundancy);
        EXPECT_TRUE(log.contains("SystemDefaultCfg: loaded " + path +
                                     ": boardModel 4 (WREN), clockOffsetFromMasterThreshold "
                                     "1500.0 ns, redundancyEnable false",
                                 Logger::INF));
    }

    const std::string notObject =
        "SystemDefaultCfg: " + path + " is not a JSON object, using defaults";
    const struct {
        std::string text;
        std::string logLine;
    } broken[] = {
        {"{\"boardModel\":3", notObject},
        {"", notObject},
        {"[3]", notObject},
        {"{\"boardModel\":\"3\"}",
         "SystemDefaultCfg: " + path + ": bad \"boardModel\", using defaults"},
        {"{\"boardModel\":3,\"redundancyEnable\":1}",
         "SystemDefaultCfg: " + path + ": bad \"redundancyEnable\", using defaults"},
        {"{\"boardModel\":3,\"clockOffsetFromMasterThreshold\":-1}",
         "SystemDefaultCfg: " + path + ": bad \"clockOffsetFromMasterThreshold\", using defaults"},
        {"{\"boardModel\":3,\"clockOffsetFromMasterThreshold\":1e300}",
         "SystemDefaultCfg: " + path + ": bad \"clockOffsetFromMasterThreshold\", using defaults"},
    };
    for (const auto& b : broken) {
        SCOPED_TRACE(b.text);
        // Start from non-default values: a broken file must not leave any of them behind.
        writeFile(path,
                  "{\"boardModel\":9,\"clockOffsetFromMasterThreshold\":2,"
                  "\"redundancyEnable\":true}");
        ASSERT_EQ(cfg.reload(), 0);
        LogCapture log;
        writeFile(path, b.text);
        EXPECT_LT(cfg.reload(), 0);
        expectDefaults(cfg);
        EXPECT_TRUE(log.contains(b.logLine, Logger::ERR));
    }
}

// Waits (bounded) for events on the list and hands them to cfg; the sum of processEvent.
int handleEvents(PollFds& fds, SystemDefaultCfg& cfg, long timeoutMs = 2000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    int reloaded = 0;
    while (reloaded == 0 && std::chrono::steady_clock::now() < deadline) {
        if (pollOnce(fds, 100) <= 0) {
            continue;
        }
        for (int i = 0; i < fds.getPollListSize(); ++i) {
            if (fds.getPollList()[i].revents != 0) {
                reloaded += cfg.processEvent(fds.getPollList()[i]);
            }
        }
    }
    return reloaded;
}

TEST(SystemDefaultCfg, ReloadsWhenTheFileChangesUnderTheLoop) {
    TempDir dir;
    const std::string path = dir.file("system-defaults.json");
    writeFile(path, "{\"boardModel\":3}");
    SystemDefaultCfg cfg(path);
    PollFds fds;
    ASSERT_EQ(cfg.initSubscribers(fds), 0);
    ASSERT_EQ(fds.getPollListSize(), 1);
    ASSERT_EQ(cfg.initSubscribers(fds), 0);
    ASSERT_EQ(fds.getPollListSize(), 1);

    // Written in place.
    writeFile(path, "{\"boardModel\":4}");
    EXPECT_EQ(handleEvents(fds, cfg), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 4);

    // Replaced by rename, as editors and mv do.
    writeFile(dir.file("new.tmp"), "{\"boardModel\":5}");
    ASSERT_EQ(std::rename(dir.file("new.tmp").c_str(), path.c_str()), 0);
    EXPECT_EQ(handleEvents(fds, cfg), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 5);

    // Other files of the directory are no event.
    writeFile(dir.file("other.json"), "{\"boardModel\":8}");
    EXPECT_EQ(handleEvents(fds, cfg, 300), 0);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 5);

    ASSERT_EQ(unlink(path.c_str()), 0);
    EXPECT_EQ(handleEvents(fds, cfg), 1);
    expectDefaults(cfg);

    // A file just created is still being written: no reload, no error until it is closed.
    LogCapture log;
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(handleEvents(fds, cfg, 300), 0);
    const std::string text = "{\"boardModel\":8}";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
    EXPECT_EQ(handleEvents(fds, cfg), 1);
    EXPECT_EQ(cfg.getBoardModel().getValue(), 8);
    EXPECT_FALSE(log.containsFragment("using defaults"));

    zmq_pollitem_t foreign{};
    foreign.fd = 0;
    EXPECT_EQ(cfg.processEvent(foreign), 0);
}

TEST(SystemDefaultCfg, MissingDirectoryDoesNotFailStartUp) {
    LogCapture log;
    SystemDefaultCfg cfg("/nonexistent-ostpmc-dir/system-defaults.json");
    PollFds fds;
    EXPECT_EQ(cfg.initSubscribers(fds), 0);
    EXPECT_EQ(fds.getPollListSize(), 0);
    expectDefaults(cfg);
    EXPECT_TRUE(log.containsFragment("SystemDefaultCfg: cannot watch /nonexistent-ostpmc-dir"));
}

TEST(BoardModel, NamesOfKnownModels) {
    const struct {
        int value;
        const char* name;
    } models[] = {{3, "KESTREL"}, {4, "WREN"},      {5, "FINCH"},     {8, "EGRET"},
                  {9, "HERON"},   {0, "Undefined"}, {7, "Undefined"}, {-3, "Undefined"}};
    for (const auto& m : models) {
        EXPECT_EQ(BoardModel(m.value).getName(), m.name) << m.value;
        EXPECT_EQ(BoardModel(m.value).getType(), m.value);
    }
}

}  // namespace
