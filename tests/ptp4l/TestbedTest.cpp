// The test bed itself: it must synchronise a real slave, never touch this machine's clock or
// interfaces, and leave nothing behind, whatever state its processes end in.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "HostClockWatch.h"
#include "LiveSupport.h"
#include "MgmtProbe.h"
#include "Ptp4lBed.h"
#include "Subprocess.h"

namespace {

using namespace std::chrono_literals;

// The line of a program's output that starts with word and a blank ("" when none does).
std::string lineOf(const std::string& output, const std::string& word) {
    size_t pos = 0;
    while (pos < output.size()) {
        size_t end = output.find('\n', pos);
        std::string line = output.substr(pos, end == std::string::npos ? end : end - pos);
        if (line.rfind(word + " ", 0) == 0) {
            return line;
        }
        pos = end == std::string::npos ? output.size() : end + 1;
    }
    return "";
}

std::string rootLinks() {
    return Subprocess::run({"ip", "-o", "link", "show"}).output;
}

TEST(Ptp4lBedLife, SlaveLocksWithoutTouchingTheHostAndLeavesNothingBehind) {
    HostClockWatch clock;
    const std::string linksBefore = rootLinks();

    Ptp4lBed bed;
    ASSERT_TRUE(bed.up()) << bed.error();
    ASSERT_TRUE(bed.waitForSlave(20s)) << bed.logTails();
    EXPECT_EQ(6, bed.portState(bed.gmSocket(), 1)) << "the grandmaster's port is MASTER";

    const pid_t gm = bed.gmPid();
    const pid_t slave = bed.slavePid();
    for (pid_t pid : {gm, slave}) {
        EXPECT_EQ("ptp4l", live::commandName(pid));
        EXPECT_FALSE(live::holdsSysTime(pid)) << "pid " << pid;
    }
    EXPECT_EQ(bed.gmNamespace(), live::namespaceOf(gm));
    EXPECT_EQ(bed.slaveNamespace(), live::namespaceOf(slave));
    EXPECT_EQ(8u, bed.gmClockIdentity().size());
    EXPECT_EQ(23u, bed.gmClockIdentityText().size());

    // Both servos have run: the guard answered their clock writes.
    std::string slaveLog = live::readFile(bed.slaveLog());
    EXPECT_NE(std::string::npos, slaveLog.find("clockguard: held back clock_adjtime"));
    EXPECT_NE(std::string::npos, slaveLog.find("to SLAVE"));
    EXPECT_NE(std::string::npos,
              live::readFile(bed.gmLog()).find("clockguard: held back clock_adjtime"));

    Subprocess::Result status = Subprocess::run({Ptp4lBed::scriptPath(), "status", bed.dir()});
    EXPECT_EQ(0, status.exitCode) << status.output;

    const std::string dir = bed.dir();
    const std::string gmNs = bed.gmNamespace();
    const std::string slaveNs = bed.slaveNamespace();
    bed.down();
    EXPECT_FALSE(Ptp4lBed::processAlive(gm));
    EXPECT_FALSE(Ptp4lBed::processAlive(slave));
    EXPECT_FALSE(live::hasNamespace(gmNs));
    EXPECT_FALSE(live::hasNamespace(slaveNs));
    EXPECT_FALSE(std::filesystem::exists(dir));
    EXPECT_EQ(linksBefore, rootLinks()) << "the bed changed this machine's interfaces";
    EXPECT_EQ("", clock.changes()) << "the host clock moved";
}

TEST(Ptp4lBedLife, DownCopesWithStoppedAndKilledInstances) {
    Ptp4lBed bed;
    ASSERT_TRUE(bed.up()) << bed.error();
    const pid_t gm = bed.gmPid();
    const pid_t slave = bed.slavePid();
    ASSERT_EQ(0, kill(gm, SIGKILL));
    ASSERT_EQ(0, kill(slave, SIGSTOP));
    EXPECT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(gm); }));

    Subprocess::Result status = Subprocess::run({Ptp4lBed::scriptPath(), "status", bed.dir()});
    EXPECT_NE(0, status.exitCode);
    EXPECT_NE(std::string::npos, status.output.find("gm ptp4l: not running")) << status.output;

    const std::string slaveNs = bed.slaveNamespace();
    bed.down();
    EXPECT_FALSE(Ptp4lBed::processAlive(slave)) << "a stopped ptp4l must still be ended";
    EXPECT_FALSE(live::hasNamespace(slaveNs));
    bed.down();  // a second call has nothing left to do
}

TEST(Ptp4lBedLife, StartRemovesLeftoversOfDeadOwnersOnly) {
    // A bed whose owner is gone, as a crashed test process leaves it.
    Subprocess::Result deadOwner = Subprocess::run({"sh", "-c", "echo $$"});
    const std::string deadPid = deadOwner.output.substr(0, deadOwner.output.find('\n'));
    char dirTemplate[] = "/tmp/ostpmc-stale-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirTemplate));
    const std::string staleDir = dirTemplate;
    Subprocess::Result stale =
        Subprocess::run({Ptp4lBed::scriptPath(), "up", staleDir, "--guard",
                         Ptp4lBed::clockGuardPath(), "--owner", deadPid, "--no-slave"});
    ASSERT_EQ(0, stale.exitCode) << stale.output;
    const pid_t staleGm = std::stoi(live::readFile(staleDir + "/gm.pid"));
    ASSERT_TRUE(Ptp4lBed::processAlive(staleGm));

    Ptp4lBed mine;
    ASSERT_TRUE(mine.up()) << mine.error();
    Ptp4lBed second;  // a bed of the same, living owner is left alone
    ASSERT_TRUE(second.up()) << second.error();

    EXPECT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(staleGm); }));
    for (const std::string& ns : live::namespaces()) {
        EXPECT_EQ(std::string::npos, ns.find("ostpmc-" + deadPid + "-")) << ns;
    }
    EXPECT_TRUE(live::hasNamespace(mine.gmNamespace()));
    EXPECT_TRUE(live::hasNamespace(mine.slaveNamespace()));
    EXPECT_TRUE(Ptp4lBed::processAlive(mine.gmPid()));
    EXPECT_NE(mine.gmNamespace(), second.gmNamespace());
    std::filesystem::remove_all(staleDir);
}

TEST(Ptp4lBedLife, OptionsReachTheirInstances) {
    Ptp4lBed::Options options;
    options.freeRunning = true;
    options.extraLines = {"summary_interval 2"};
    options.gmExtraLines = {"clockClass 6"};
    options.slaveExtraLines = {"clockClass 250"};
    Ptp4lBed bed(options);
    ASSERT_TRUE(bed.up()) << bed.error();

    const std::string gmCfg = live::readFile(bed.dir() + "/gm.cfg");
    const std::string slaveCfg = live::readFile(bed.dir() + "/sl.cfg");
    EXPECT_NE(std::string::npos, gmCfg.find("\nsummary_interval 2\n"));
    EXPECT_NE(std::string::npos, slaveCfg.find("\nsummary_interval 2\n"));
    EXPECT_NE(std::string::npos, gmCfg.find("\nclockClass 6\n"));
    EXPECT_EQ(std::string::npos, gmCfg.find("clockClass 250"));
    EXPECT_NE(std::string::npos, slaveCfg.find("\nclockClass 250\n"));
    EXPECT_NE(std::string::npos, slaveCfg.find("\nfree_running 1\n"));
    EXPECT_EQ(std::string::npos, gmCfg.find("free_running"));

    // A free-running slave follows the grandmaster but never calls itself synchronised.
    constexpr uint8_t UNCALIBRATED = 8;
    ASSERT_TRUE(bed.waitForPortState(bed.slaveSocket(), 1, UNCALIBRATED, 20s)) << bed.logTails();
    EXPECT_FALSE(bed.waitForSlave(1s));
}

TEST(Ptp4lBedLife, FailedStartTakesEverythingDown) {
    Ptp4lBed::Options options;
    options.slaveExtraLines = {"no_such_setting 1"};
    Ptp4lBed bed(options);
    EXPECT_FALSE(bed.up());
    EXPECT_NE(std::string::npos, bed.error().find("exited during start-up")) << bed.error();
    EXPECT_FALSE(bed.isUp());
    EXPECT_TRUE(live::ownNamespaces().empty());
}

TEST(Ptp4lBedScript, RefusesBadInputWithoutCreatingAnything) {
    const std::string script = Ptp4lBed::scriptPath();
    const std::string guard = Ptp4lBed::clockGuardPath();
    char dirTemplate[] = "/tmp/ostpmc-bad-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirTemplate));
    const std::string dir = dirTemplate;

    struct Case {
        std::vector<std::string> argv;
        int exitCode;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{script}, 2, "usage:"},
        {{script, "sideways", dir}, 2, "usage:"},
        {{script, "up", dir, "--bogus"}, 2, "usage:"},
        {{script, "up", dir, "--guard", guard, "--domain", "256"}, 1, "is not 0..255"},
        {{script, "up", dir, "--guard", guard, "--asymmetry", "5us"}, 1, "is not a number"},
        {{script, "up", dir, "--guard", guard, "--owner", "me"}, 1, "is not a pid"},
        {{script, "up", dir, "--guard", dir + "/none.so"}, 1, "clockguard library not found"},
        {{script, "down", dir}, 1, "no bed in"},
        {{script, "status", dir}, 1, "no bed in"},
    };
    for (const Case& c : cases) {
        Subprocess::Result result = Subprocess::run(c.argv);
        std::string cmd;
        for (const std::string& word : c.argv) {
            cmd += word + " ";
        }
        EXPECT_EQ(c.exitCode, result.exitCode) << cmd << "\n" << result.output;
        EXPECT_NE(std::string::npos, result.output.find(c.message)) << cmd << "\n" << result.output;
    }
    EXPECT_TRUE(live::ownNamespaces().empty());
    std::filesystem::remove_all(dir);
}

// The guard, seen from a program that tries every clock write it covers. The program runs
// without CAP_SYS_TIME, so a guard that let a write through shows as EPERM, never as a
// moved clock.
TEST(ClockGuard, AnswersEveryWriteWithoutMovingTheClock) {
    HostClockWatch clock;
    std::vector<std::string> noTime = {"setpriv", "--inh-caps=-sys_time",
                                       "--bounding-set=-sys_time"};
    std::vector<std::string> guarded = noTime;
    guarded.insert(guarded.end(),
                   {"env", "LD_PRELOAD=" + Ptp4lBed::clockGuardPath(), OSTPMC_CLOCKWRITER});
    std::vector<std::string> bare = noTime;
    bare.push_back(OSTPMC_CLOCKWRITER);

    Subprocess::Result withGuard = Subprocess::run(guarded);
    Subprocess::Result without = Subprocess::run(bare);
    ASSERT_EQ(0, withGuard.exitCode) << withGuard.output;
    ASSERT_EQ(0, without.exitCode) << without.output;

    for (const char* call :
         {"clock_adjtime", "adjtimex", "ntp_adjtime", "clock_settime", "settimeofday", "adjtime"}) {
        // Without the guard the kernel refuses (EPERM): the program really asks for a write.
        EXPECT_EQ(std::string(call) + " -1 1", lineOf(without.output, call)) << without.output;
        // With it, the write is answered as done (a clock state is never negative).
        std::string line = lineOf(withGuard.output, call);
        EXPECT_FALSE(line.empty()) << call << "\n" << withGuard.output;
        EXPECT_EQ(std::string::npos, line.find(" -1 ")) << line;
    }
    EXPECT_NE(std::string::npos, withGuard.output.find("clockguard: held back clock_adjtime"));
    // Reads pass through.
    std::string read = lineOf(withGuard.output, "read");
    EXPECT_FALSE(read.empty()) << withGuard.output;
    EXPECT_EQ(std::string::npos, read.find(" -1 ")) << read;
    EXPECT_EQ("", clock.changes()) << "the host clock moved";
}

}  // namespace
