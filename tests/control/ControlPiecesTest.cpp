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
    EXPECT_EQ("'x;touch /tmp/owned'", shellWord("x;touch /tmp/owned"));
    EXPECT_EQ("'$(reboot)'", shellWord("$(reboot)"));
    EXPECT_EQ("'`id`'", shellWord("`id`"));
    EXPECT_EQ("'a\nb'", shellWord("a\nb"));
    EXPECT_EQ("'it'\\''s'", shellWord("it's"));
    EXPECT_EQ("''", shellWord(""));
    // What the shell makes of it: exactly the text, one word, nothing run.
    for (const std::string text : {"x;touch /tmp/owned", "$(id)`id`", "a'b\"c\\d\ne", " *"}) {
        char tmpl[] = "/tmp/ostpmc-word-XXXXXX";
        const std::string out = mkdtemp(tmpl) + std::string("/out");
        const std::string command = "printf %s " + shellWord(text) + " > " + out;
        ASSERT_EQ(0, system(command.c_str()));
        std::ifstream in(out);
        EXPECT_EQ(text, std::string(std::istreambuf_iterator<char>(in), {}));
        unlink(out.c_str());
        rmdir(tmpl);
    }
}

// Every command the service hands to the shell, with the result the shell gives.
struct FakeShell {
    std::vector<std::string> commands;
    int result = 0;
    Ptp4lService service() {
        return Ptp4lService([this](const std::string& command) {
            commands.push_back(command);
            return result;
        });
    }
};

TEST(Ptp4lService, CommandsAndTheInverseJudgingOfTheScript) {
    const BoardModel kestrel(KESTREL), egret(EGRET);
    const std::string script = "/etc/S60ptp4ld";
    const std::string failed =
        "int OstPmcServer::startPtp4l(const OstPmcPtpCfg&): system call failed";
    const struct {
        int result;
        bool copyFails, scriptFails;
    } cases[] = {{0, false, true}, {1, true, false}, {256, true, false}, {-1, true, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.result);
        FakeShell shell;
        shell.result = c.result;
        LogCapture log;
        shell.service().installProfileFile("/etc/ptp/ptpAesProfile.cfg");
        shell.service().restart(false, kestrel);
        shell.service().restart(true, kestrel);
        shell.service().stop(kestrel);
        EXPECT_EQ((std::vector<std::string>{"cp /etc/ptp/ptpAesProfile.cfg /etc/ptp/ptpProfile.cfg",
                                            script + " restart", script + " restartslave",
                                            script + " stop"}),
                  shell.commands);
        EXPECT_EQ(c.copyFails, log.contains(failed + ": initializing ptp4l", Logger::ERR));
        EXPECT_EQ(c.scriptFails, log.contains(failed + ": restart", Logger::ERR));
        EXPECT_EQ(c.scriptFails, log.contains(failed + ": restartslave", Logger::ERR));
        EXPECT_EQ(c.scriptFails,
                  log.contains("virtual OstPmcServer::~OstPmcServer(): system call failed"));
        EXPECT_TRUE(log.contains("PTP NORMAL MODE", Logger::NTF));
        EXPECT_TRUE(log.contains("PTP SLAVE_ONLY MODE", Logger::NTF));
        EXPECT_TRUE(log.contains("OSTPMC:: Stopping ptp4l", Logger::NTF));
    }

    // EGRET: no script path, the command still goes to the shell; nothing stopped.
    FakeShell shell;
    LogCapture log;
    shell.service().restart(false, egret);
    shell.service().restart(true, egret);
    shell.service().stop(egret);
    EXPECT_EQ((std::vector<std::string>{" restart", " restartslave"}), shell.commands);
    EXPECT_FALSE(log.contains("OSTPMC:: Stopping ptp4l"));

    // A hostile source stays one word, and never an option of cp.
    shell.service().installProfileFile("x;touch /tmp/owned");
    shell.service().installProfileFile("-rf");
    EXPECT_EQ("cp 'x;touch /tmp/owned' /etc/ptp/ptpProfile.cfg", shell.commands.at(2));
    EXPECT_EQ("cp ./-rf /etc/ptp/ptpProfile.cfg", shell.commands.at(3));
    EXPECT_TRUE(
        log.contains("OSTPMC Initializing ptp4l ... cp 'x;touch /tmp/owned' "
                     "/etc/ptp/ptpProfile.cfg",
                     Logger::NTF));
}

TEST(ProfileFiles, EachProfileHasItsFileAndOnlyThose) {
    const struct {
        int profile;
        const char* file;
    } cases[] = {{0, "/etc/ptp/ptpDefaultProfile.cfg"},
                 {1, "/etc/ptp/ptpAesProfile.cfg"},
                 {2, "/etc/ptp/ptpSmpteProfile.cfg"},
                 {3, "/etc/ptp/ptpAvbProfile.cfg"}};
    for (const auto& c : cases) {
        LogCapture log;
        std::string path = "old";
        EXPECT_EQ(0, ProfileFiles::defaultFile(
                         PtpProfile(static_cast<PtpProfile::ptp_profile_t>(c.profile)), path));
        EXPECT_EQ(c.file, path);
        EXPECT_TRUE(log.contains(std::string("getPtpDefaultConfigFile: path:: ") + c.file));
        EXPECT_EQ(c.profile == 1, log.contains("AES67_MEDIA"));
    }
    for (int profile : {4, -1}) {
        LogCapture log;
        std::string path = "old";
        EXPECT_EQ(-8, ProfileFiles::defaultFile(
                          PtpProfile(static_cast<PtpProfile::ptp_profile_t>(profile)), path));
        EXPECT_EQ("", path);
        EXPECT_TRUE(log.contains("ERROR_INVALID_PARAM", Logger::INF));
    }
    EXPECT_EQ("/etc/ptp/ptpProfile.cfg", ProfileFiles::activeFile());
}

TEST(ProfileFiles, OnlyReadableRegularFilesAreInstallable) {
    char tmpl[] = "/tmp/ostpmc-files-XXXXXX";
    const std::string dir = mkdtemp(tmpl);
    std::ofstream(dir + "/file") << "[global]\n";
    ASSERT_EQ(0, mkfifo((dir + "/fifo").c_str(), 0600));
    EXPECT_TRUE(ProfileFiles::isInstallable(dir + "/file"));
    for (const std::string& path : {dir + "/fifo", dir, dir + "/missing", std::string("/dev/zero"),
                                    std::string("/dev/null")}) {
        EXPECT_FALSE(ProfileFiles::isInstallable(path)) << path;
    }
    unlink((dir + "/file").c_str());
    unlink((dir + "/fifo").c_str());
    rmdir(dir.c_str());
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
