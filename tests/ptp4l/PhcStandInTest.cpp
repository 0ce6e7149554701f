// The stand-in for the clock-driver node: it must take the daemon's AVB-mode request exactly as
// the daemon sends it, fail it on demand (from a test or a shell), and leave no mount and no
// process behind however it ends.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "LiveSupport.h"
#include "PhcStandIn.h"

namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
namespace fs = std::filesystem;

constexpr uint32_t AVB_COMMAND = 0x00200000;
const PhcStandIn::Request ENABLE = {AVB_COMMAND, 1, 0, 0, 0, 0, 0, 0, 0};
const PhcStandIn::Request DISABLE = {AVB_COMMAND, 0, 0, 0, 0, 0, 0, 0, 0};

// The daemon's request: open read-write, ioctl 0x89F0 on the 36-byte block, close. 0 or the
// errno of the failed step.
int avbRequest(const std::string& node, bool enable, unsigned long cmd = PhcStandIn::AVB_IOCTL) {
    uint32_t block[9] = {AVB_COMMAND, enable ? 1U : 0U};
    const int fd = open(node.c_str(), O_RDWR);
    if (fd < 0) {
        return errno;
    }
    const int rc = ioctl(fd, cmd, block) == 0 ? 0 : errno;
    close(fd);
    return rc;
}

// A test device root as the daemon's tests make it: an empty dev/ under a temporary directory.
struct TestRoot {
    TestRoot() { fs::create_directory(root + "/dev"); }
    ~TestRoot() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    std::string root = mkdtemp(std::string("/tmp/ostpmc-root-XXXXXX").data());
    std::string dev = root + "/dev";
};

// Whether anything at all is mounted on dir (no blank in it), as this process sees it.
bool mounted(const std::string& dir) {
    return live::readFile("/proc/self/mountinfo").find(" " + dir + " ") != std::string::npos;
}

// Whether a live process other than this one names dir on its command line (the stand-in and
// the fusermount3 that watches its mount both do).
bool processNames(const std::string& dir) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos ||
            std::stoi(name) == getpid() || !Ptp4lBed::processAlive(std::stoi(name))) {
            continue;
        }
        std::string cmdline = live::readFile(entry.path().string() + "/cmdline");
        std::replace(cmdline.begin(), cmdline.end(), '\0', ' ');
        if (cmdline.find(dir) != std::string::npos) {
            return true;
        }
    }
    return false;
}

TEST(PhcStandIn, TakesTheDaemonsRequestAsSentAndRecordsIt) {
    TestRoot device;
    PhcStandIn phc(device.dev);
    ASSERT_TRUE(phc.start()) << phc.error();
    EXPECT_EQ(device.dev + "/ostphc", phc.nodePath());
    struct stat st {};
    ASSERT_EQ(0, stat(phc.nodePath().c_str(), &st));
    EXPECT_EQ(S_IFREG | 0666, st.st_mode);

    EXPECT_EQ(0, avbRequest(phc.nodePath(), true));
    EXPECT_EQ(0, avbRequest(phc.nodePath(), false));
    // Any other request is not the driver's, and is not recorded.
    EXPECT_EQ(ENOTTY, avbRequest(phc.nodePath(), true, 0x89F1));
    EXPECT_THAT(phc.requests(), ElementsAre(ENABLE, DISABLE));
    const std::string zeros = " 00000000 00000000 00000000 00000000 00000000 00000000 00000000\n";
    EXPECT_EQ("00200000 00000001" + zeros + "00200000 00000000" + zeros,
              live::readFile(phc.recordPath()));
    EXPECT_EQ("ok\n", live::readFile(phc.nodePath())) << "reading tells the failure setting";
}

TEST(PhcStandIn, FailsOnDemandFromTheTestAndFromAShell) {
    TestRoot device;
    PhcStandIn phc(device.dev);
    ASSERT_TRUE(phc.start()) << phc.error();
    const std::string node = phc.nodePath();

    ASSERT_TRUE(phc.failWith(EIO)) << phc.error();
    EXPECT_EQ(EIO, avbRequest(node, true));
    EXPECT_EQ("fail 5\n", live::readFile(node));
    ASSERT_TRUE(phc.failWith(0)) << phc.error();
    EXPECT_EQ(0, avbRequest(node, false));

    auto shell = [&](const std::string& command) {
        return Subprocess::run({"sh", "-c", command + " > " + node}).exitCode;
    };
    ASSERT_EQ(0, shell("echo 'fail 19'"));
    EXPECT_EQ(ENODEV, avbRequest(node, true));
    // What would reach the caller as something else, or hang it, is refused; nothing changes.
    EXPECT_NE(0, shell("echo 'fail 38'")) << "ENOSYS reaches the caller as ENOTTY";
    EXPECT_NE(0, shell("echo 'fail 512'")) << "the kernel would never answer the caller";
    EXPECT_NE(0, shell("echo 'fial 5'"));
    EXPECT_FALSE(phc.failWith(38));
    EXPECT_EQ(ENODEV, avbRequest(node, true));
    ASSERT_EQ(0, shell("echo ok"));
    EXPECT_EQ(0, avbRequest(node, true));

    // Failed requests are recorded like the others.
    EXPECT_THAT(phc.requests(), ElementsAre(ENABLE, DISABLE, ENABLE, ENABLE, ENABLE));
}

TEST(PhcStandIn, LeavesNoMountAndNoProcessHoweverItEnds) {
    TestRoot device;
    const std::string dev = fs::canonical(device.dev).string();

    // Stopped, even while it is itself stopped (SIGSTOP).
    PhcStandIn phc(dev);
    ASSERT_TRUE(phc.start()) << phc.error();
    ASSERT_TRUE(mounted(dev) && processNames(dev));
    ASSERT_EQ(0, kill(phc.pid(), SIGSTOP));
    phc.stop();
    EXPECT_FALSE(mounted(dev));
    EXPECT_TRUE(live::eventually([&] { return !processNames(dev); }))
        << "neither the stand-in nor its fusermount3 may stay";
    EXPECT_FALSE(fs::exists(phc.nodePath()));

    // Killed: auto_unmount takes the mount down.
    ASSERT_TRUE(phc.start()) << phc.error();
    ASSERT_EQ(0, kill(phc.pid(), SIGKILL));
    EXPECT_TRUE(live::eventually([&] { return !mounted(dev) && !processNames(dev); }));
    phc.stop();

    // Its owner killed: the stand-in dies with it, and so does the mount.
    int pipeFds[2];
    ASSERT_EQ(0, pipe(pipeFds));
    const pid_t owner = fork();
    ASSERT_LE(0, owner);
    if (owner == 0) {
        PhcStandIn orphan(dev);
        const pid_t standIn = orphan.start() ? orphan.pid() : 0;
        if (write(pipeFds[1], &standIn, sizeof standIn) == sizeof standIn) {
            pause();
        }
        _exit(0);
    }
    close(pipeFds[1]);
    pid_t standIn = 0;
    const ssize_t got = read(pipeFds[0], &standIn, sizeof standIn);
    close(pipeFds[0]);
    kill(owner, SIGKILL);
    waitpid(owner, nullptr, 0);
    ASSERT_TRUE(got == sizeof standIn && standIn > 0) << "the owner could not start its stand-in";
    EXPECT_TRUE(live::eventually(
        [&] { return !Ptp4lBed::processAlive(standIn) && !mounted(dev) && !processNames(dev); }));
    // One that outlived its owner is ended here, so that even a failed run leaves nothing.
    if (live::readFile("/proc/" + std::to_string(standIn) + "/cmdline").find(dev) !=
        std::string::npos) {
        kill(standIn, SIGTERM);
        live::eventually([&] { return !mounted(dev); });
    }

    // A start that cannot work says why and leaves nothing; like every start, it removes the
    // record directories of owners that died.
    PhcStandIn nowhere(device.root + "/no-such-dir");
    EXPECT_FALSE(nowhere.start());
    EXPECT_THAT(nowhere.error(), HasSubstr("is not a directory"));
    const std::string ownersRecord = "ostpmc-phc-" + std::to_string(owner) + "-";
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        if (entry.path().filename().string().rfind(ownersRecord, 0) == 0) {
            ADD_FAILURE() << entry.path() << " stayed";
            fs::remove_all(entry.path());
        }
    }
    // A refused start ends at once, without mounting (should it mount, the mount goes before the
    // test's root does).
    Subprocess::Result bad = Subprocess::run({PhcStandIn::programPath(), dev, "--fail", "38"}, {},
                                             std::chrono::seconds(2));
    EXPECT_EQ(2, bad.exitCode);
    EXPECT_THAT(bad.output, HasSubstr("ENOSYS"));
    EXPECT_EQ(1, std::count(bad.output.begin(), bad.output.end(), '\n')) << bad.output;
    EXPECT_FALSE(mounted(dev));
    live::eventually([&] { return !mounted(dev); });
}

}  // namespace
