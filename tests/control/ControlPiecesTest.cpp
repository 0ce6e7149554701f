// The pieces of ptp4l control that need no server: shell words, the init-script commands and
// how their results are judged, the profile files and the domain read from them.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "Logger.h"
#include "ProfileFiles.h"
#include "Ptp4lService.h"
#include "ShellWord.h"

namespace {

TEST(ShellWord, PlainPathsStayAsTheyAreEverythingElseIsOneQuotedWord) {
    EXPECT_EQ("/etc/ptp/my-profile_2.cfg", shellWord("/etc/ptp/my-profile_2.cfg"));
    EXPECT_EQ("'it'\\''s'", shellWord("it's"));
    EXPECT_EQ("''", shellWord(""));
    // What the shell makes of it: exactly the text, one word, nothing run.
    char dir[] = "/tmp/ostpmc-word-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string out = dir + std::string("/out"), owned = dir + std::string("/owned");
    for (const std::string& text : std::vector<std::string>{"x;touch " + owned, "$(id)`id`",
                                                            "$HOME", "a'b\"c\\d\ne", " *", ""}) {
        EXPECT_EQ(0, system(("printf %s " + shellWord(text) + " > " + out).c_str()));
        std::ifstream in(out);
        EXPECT_EQ(text, std::string(std::istreambuf_iterator<char>(in), {}));
    }
    unlink(out.c_str());
    unlink(owned.c_str());
    rmdir(dir);
}

TEST(Ptp4lService, CommandsAndTheInverseJudgingOfTheScript) {
    std::vector<std::string> commands;
    int result = 0;
    const Ptp4lService service([&](const std::string& command) {
        commands.push_back(command);
        return result;
    });
    const std::string failed =
        "int OstPmcServer::startPtp4l(const OstPmcPtpCfg&): system call failed";
    // The copy fails on anything but 0, the script on anything but a result above 0.
    for (int shellResult : {0, 1, -1}) {
        SCOPED_TRACE(shellResult);
        commands.clear();
        result = shellResult;
        LogCapture log;
        service.installProfileFile("/etc/ptp/ptpAesProfile.cfg");
        service.restart(false, BoardModel(KESTREL));
        service.restart(true, BoardModel(KESTREL));
        service.stop(BoardModel(KESTREL));
        EXPECT_EQ((std::vector<std::string>{"cp /etc/ptp/ptpAesProfile.cfg /etc/ptp/ptpProfile.cfg",
                                            "/etc/S60ptp4ld restart", "/etc/S60ptp4ld restartslave",
                                            "/etc/S60ptp4ld stop"}),
                  commands);
        EXPECT_EQ(result != 0, log.contains(failed + ": initializing ptp4l", Logger::ERR));
        EXPECT_EQ(result <= 0, log.contains(failed + ": restart", Logger::ERR));
        EXPECT_EQ(result <= 0, log.contains(failed + ": restartslave", Logger::ERR));
        EXPECT_EQ(result <= 0,
                  log.contains("virtual OstPmcServer::~OstPmcServer(): system call failed"));
        EXPECT_TRUE(log.contains("PTP NORMAL MODE", Logger::NTF));
        EXPECT_TRUE(log.contains("PTP SLAVE_ONLY MODE", Logger::NTF));
        EXPECT_TRUE(log.contains("OSTPMC:: Stopping ptp4l", Logger::NTF));
    }

    // EGRET: no script path, the command still goes to the shell; nothing stopped.
    commands.clear();
    LogCapture log;
    service.restart(false, BoardModel(EGRET));
    service.restart(true, BoardModel(EGRET));
    service.stop(BoardModel(EGRET));
    EXPECT_EQ((std::vector<std::string>{" restart", " restartslave"}), commands);
    EXPECT_FALSE(log.contains("OSTPMC:: Stopping ptp4l"));

    // A hostile source stays one word, and never an option of cp.
    service.installProfileFile("x;touch /tmp/owned");
    service.installProfileFile("-rf");
    EXPECT_EQ("cp 'x;touch /tmp/owned' /etc/ptp/ptpProfile.cfg", commands.at(2));
    EXPECT_EQ("cp ./-rf /etc/ptp/ptpProfile.cfg", commands.at(3));
    EXPECT_TRUE(log.contains(
        "OSTPMC Initializing ptp4l ... cp 'x;touch /tmp/owned' /etc/ptp/ptpProfile.cfg",
        Logger::NTF));
}

TEST(ProfileFiles, EachProfileHasItsFileAndOnlyThose) {
    const char* const files[] = {"ptpDefaultProfile.cfg", "ptpAesProfile.cfg",
                                 "ptpSmpteProfile.cfg", "ptpAvbProfile.cfg", nullptr};
    for (int profile = 0; profile <= 4; ++profile) {
        SCOPED_TRACE(profile);
        LogCapture log;
        std::string path = "old";
        const int rc = ProfileFiles::defaultFile(
            PtpProfile(static_cast<PtpProfile::ptp_profile_t>(profile)), path);
        if (files[profile] == nullptr) {
            EXPECT_EQ(-8, rc);
            EXPECT_EQ("", path);
            EXPECT_TRUE(log.contains("ERROR_INVALID_PARAM", Logger::INF));
            continue;
        }
        EXPECT_EQ(0, rc);
        EXPECT_EQ(std::string("/etc/ptp/") + files[profile], path);
        EXPECT_TRUE(log.contains("getPtpDefaultConfigFile: path:: " + path));
        EXPECT_EQ(profile == 1, log.contains("AES67_MEDIA"));
    }
}

TEST(ProfileFiles, OnlyReadableRegularFilesAreInstallable) {
    char dir[] = "/tmp/ostpmc-files-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    const std::string file = dir + std::string("/file"), fifo = dir + std::string("/fifo");
    std::ofstream(file) << "[global]\n";
    EXPECT_EQ(0, mkfifo(fifo.c_str(), 0600));
    EXPECT_TRUE(ProfileFiles::isInstallable(file));
    for (const std::string& path : {fifo, std::string(dir), file + "-missing",
                                    std::string("/dev/zero"), std::string("/dev/null")}) {
        EXPECT_FALSE(ProfileFiles::isInstallable(path)) << path;
    }
    unlink(file.c_str());
    unlink(fifo.c_str());
    rmdir(dir);
}

TEST(ProfileFiles, DomainFromTheFirstLineNamingIt) {
    const struct {
        const char* content;
        int domain;  // the preset is 7
        const char* error;
    } cases[] = {
        {"# domainNumber 5\ndomainNumber 24\n", 24, nullptr},
        {"  # domainNumber 5\ndomainNumber 24\n", 5, nullptr},  // indented: not a comment
        {"domainNumber\t0x18\n", 24, nullptr},
        {"domainNumber 010\n", 8, nullptr},
        {"domainNumber 300\n", 44, nullptr},
        {"domainNumber 12 # trailing text\r\n", 12, nullptr},
        {"mydomainNumber 9\n", 9, nullptr},
        {"DomainNumber 9\n", 7, nullptr},
        {"[global]\n\npriority1 1\n", 7, nullptr},
        {"domainNumber\n", 0, "trying to convert to integer a empty string. That is bad."},
        {"domainNumber abc\n", 0, "trying to convert to integer invalid value:  abc"},
        {"domainNumber 99999999999999999999999\n", 0,
         "trying to convert to integer out of range:  99999999999999999999999"},
        {"domainNumber 1\ndomainNumber 2\n", 1, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        LogCapture log;
        uint8_t domain = 7;
        ProfileFiles::readDomainNumber(c.content, domain, 33);
        EXPECT_EQ(c.domain, domain);
        if (c.error) {
            EXPECT_TRUE(log.contains(c.error, Logger::ERR));
        }
        // Only a line naming the key is reported, and with the configured domain, not the one
        // just read.
        EXPECT_EQ(c.domain != 7, log.contains("ptp domainNumber found:: 33", Logger::VERBOSE));
    }
}

}  // namespace
