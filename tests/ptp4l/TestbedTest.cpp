// The test bed itself: it must synchronise a real slave, never touch this machine's clock or
// interfaces, and leave nothing behind, whatever state its processes end in.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "HostClockWatch.h"
#include "LiveSupport.h"

namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;
namespace fs = std::filesystem;

const std::string HELD_BACK = "clockguard: held back clock_adjtime";

// Prefix of the namespaces of the beds this process owns.
const std::string OWN_NAMESPACES = "ostpmc-" + std::to_string(getpid()) + "-";

// Down must also end a stopped ptp4l and cope with a killed one, as a failed test leaves them.
TEST(Ptp4lBedLife, SlaveLocksWithoutTouchingTheHostAndLeavesNothingBehind) {
    HostClockWatch clock;
    auto rootLinks = [] { return Subprocess::run({"ip", "-o", "link", "show"}).output; };
    const std::string linksBefore = rootLinks();

    Ptp4lBed bed;
    ASSERT_TRUE(bed.up()) << bed.error();
    ASSERT_TRUE(bed.waitForSlave(20s)) << bed.logTails();
    EXPECT_EQ(6, bed.portState(bed.gmSocket(), 1)) << "the grandmaster's port is MASTER";
    const pid_t gm = bed.gmPid();
    const pid_t slave = bed.slavePid();
    EXPECT_EQ("ptp4l in " + bed.gmNamespace(), live::describe(gm));
    EXPECT_EQ("ptp4l in " + bed.slaveNamespace(), live::describe(slave));
    // Both servos have run: the guard answered their clock writes.
    EXPECT_THAT(live::readFile(bed.slaveLog()), HasSubstr(HELD_BACK));
    EXPECT_THAT(live::readFile(bed.gmLog()), HasSubstr(HELD_BACK));
    EXPECT_EQ(0, Subprocess::run({Ptp4lBed::scriptPath(), "status", bed.dir()}).exitCode);

    ASSERT_EQ(0, kill(gm, SIGKILL));
    ASSERT_EQ(0, kill(slave, SIGSTOP));
    EXPECT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(gm); }));
    Subprocess::Result status = Subprocess::run({Ptp4lBed::scriptPath(), "status", bed.dir()});
    EXPECT_NE(0, status.exitCode);
    EXPECT_THAT(status.output, HasSubstr("gm ptp4l: not running"));

    const std::string dir = bed.dir();  // holds the sockets, configs and logs
    bed.down();
    EXPECT_FALSE(Ptp4lBed::processAlive(slave)) << "a stopped ptp4l must still be ended";
    EXPECT_FALSE(live::hasNamespace(OWN_NAMESPACES));
    EXPECT_FALSE(fs::exists(dir));
    EXPECT_EQ(linksBefore, rootLinks()) << "the bed changed this machine's interfaces";
    EXPECT_EQ("", clock.changes()) << "the host clock moved";
    bed.down();  // a second call has nothing left to do
}

TEST(Ptp4lBedLife, StartRemovesLeftoversOfDeadOwnersOnly) {
    // A bed whose owner is gone, as a crashed test process leaves it. The owner lives until
    // the bed is up: a bed of a dead owner may be removed by any concurrent start.
    const pid_t owner = fork();
    ASSERT_LE(0, owner);
    if (owner == 0) {
        pause();
        _exit(0);
    }
    const std::string deadPid = std::to_string(owner);
    char dirTemplate[] = "/tmp/ostpmc-bed-stale-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dirTemplate));
    const std::string staleDir = dirTemplate;
    Subprocess::Result stale =
        Subprocess::run({Ptp4lBed::scriptPath(), "up", staleDir, "--guard",
                         Ptp4lBed::clockGuardPath(), "--owner", deadPid, "--no-slave"});
    const std::string staleGmPid = live::readFile(staleDir + "/gm.pid");
    kill(owner, SIGKILL);
    waitpid(owner, nullptr, 0);
    ASSERT_EQ(0, stale.exitCode) << stale.output;
    const pid_t staleGm = std::stoi(staleGmPid);

    Ptp4lBed mine;
    ASSERT_TRUE(mine.up()) << mine.error();
    Ptp4lBed second;  // a bed of the same, living owner is left alone
    ASSERT_TRUE(second.up()) << second.error();

    EXPECT_TRUE(live::eventually([&] { return !Ptp4lBed::processAlive(staleGm); }));
    EXPECT_FALSE(live::hasNamespace("ostpmc-" + deadPid + "-"));
    EXPECT_TRUE(live::hasNamespace(mine.gmNamespace()));
    EXPECT_TRUE(Ptp4lBed::processAlive(mine.gmPid()));
    EXPECT_NE(mine.gmNamespace(), second.gmNamespace());
    EXPECT_FALSE(fs::exists(staleDir)) << "its sockets, configurations and logs go too";
    fs::remove_all(staleDir);
}

TEST(Ptp4lBedLife, OptionsReachTheirInstances) {
    Ptp4lBed::Options options;
    options.freeRunning = true;
    options.extraLines = {"summary_interval 2"};
    options.gmExtraLines = {"clockClass 6"};
    options.slaveExtraLines = {"clockClass 250"};
    Ptp4lBed bed(options);
    ASSERT_TRUE(bed.up()) << bed.error();
    EXPECT_THAT(live::readFile(bed.dir() + "/gm.cfg"),
                AllOf(HasSubstr("\nsummary_interval 2\n"), HasSubstr("\nclockClass 6\n"),
                      Not(HasSubstr("clockClass 250")), Not(HasSubstr("free_running"))));
    EXPECT_THAT(live::readFile(bed.dir() + "/sl.cfg"),
                AllOf(HasSubstr("\nsummary_interval 2\n"), HasSubstr("\nclockClass 250\n")));

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
    EXPECT_THAT(bed.error(), HasSubstr("exited during start-up"));
    EXPECT_FALSE(bed.isUp());
    EXPECT_FALSE(live::hasNamespace(OWN_NAMESPACES));
}

TEST(Ptp4lBedScript, RefusesBadInputWithoutCreatingAnything) {
    const std::string script = Ptp4lBed::scriptPath();
    const std::string guard = Ptp4lBed::clockGuardPath();
    const std::string dir = fs::temp_directory_path() / ("ostpmc-bad-" + std::to_string(getpid()));
    fs::create_directory(dir);
    const struct {
        std::vector<std::string> argv;
        int exitCode;
        std::string message;
    } cases[] = {
        {{script, "up", dir, "--bogus"}, 2, "usage:"},
        {{script, "up", dir, "--guard", guard, "--domain", "256"}, 1, "is not 0..255"},
        {{script, "up", dir, "--guard", guard, "--owner", "me"}, 1, "is not a pid"},
        {{script, "up", dir, "--guard", dir + "/none.so"}, 1, "clockguard library not found"},
        {{script, "down", dir}, 1, "no bed in"},
    };
    for (const auto& c : cases) {
        Subprocess::Result result = Subprocess::run(c.argv);
        EXPECT_EQ(c.exitCode, result.exitCode) << c.message << "\n" << result.output;
        EXPECT_THAT(result.output, HasSubstr(c.message));
    }
    EXPECT_FALSE(live::hasNamespace(OWN_NAMESPACES));
    fs::remove_all(dir);
}

// The line of a program's output that starts with word and a blank ("" when none does).
std::string lineOf(const std::string& output, const std::string& word) {
    const std::string text = "\n" + output;
    const size_t at = text.find("\n" + word + " ");
    return at == std::string::npos ? "" : text.substr(at + 1, text.find('\n', at + 1) - at - 1);
}

// The guard, seen from a program that tries every clock write it covers. The program runs
// without CAP_SYS_TIME, so a guard that let a write through shows as EPERM, never as a
// moved clock.
TEST(ClockGuard, AnswersEveryWriteWithoutMovingTheClock) {
    HostClockWatch clock;
    std::vector<std::string> bare = {"setpriv", "--inh-caps=-sys_time", "--bounding-set=-sys_time"};
    std::vector<std::string> guarded = bare;
    guarded.insert(guarded.end(),
                   {"env", "LD_PRELOAD=" + Ptp4lBed::clockGuardPath(), OSTPMC_CLOCKWRITER});
    bare.push_back(OSTPMC_CLOCKWRITER);
    Subprocess::Result withGuard = Subprocess::run(guarded);
    Subprocess::Result without = Subprocess::run(bare);
    ASSERT_EQ(0, withGuard.exitCode) << withGuard.output;
    ASSERT_EQ(0, without.exitCode) << without.output;

    for (const std::string call :
         {"clock_adjtime", "adjtimex", "ntp_adjtime", "clock_settime", "settimeofday", "adjtime"}) {
        // Without the guard the kernel refuses (EPERM): the program really asks for a write.
        EXPECT_EQ(call + " -1 1", lineOf(without.output, call)) << without.output;
        // With it, the write is answered as done (a clock state is never negative).
        EXPECT_THAT(lineOf(withGuard.output, call), MatchesRegex(call + " [0-9]+ 0"));
    }
    EXPECT_THAT(lineOf(withGuard.output, "read"), MatchesRegex("read [0-9]+ 0"))
        << "passes through";
    EXPECT_EQ("", clock.changes()) << "the host clock moved";
}

}  // namespace
