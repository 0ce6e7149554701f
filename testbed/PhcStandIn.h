#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// The test bed's stand-in for the device's PTP hardware clock driver node: the program
// ostpmc-phc-standin (phc_standin.c), a FUSE file system mounted on a directory (a test root's
// "dev") that serves one file, "ostphc". It takes the daemon's AVB-mode ioctl (0x89F0, a block
// of nine 32-bit words), records the words and answers success or an injected errno.
//
// The stand-in is killed when the thread that started it ends (PR_SET_PDEATHSIG), and its
// mount goes when it dies (auto_unmount), so a test process that is killed leaves nothing
// mounted: start it from a thread that outlives it, such as the test's main thread. A caller
// of the node blocks while the stand-in is stopped (SIGSTOP); end the caller first. The mount
// is made in the mount namespace of the test process.
class PhcStandIn {
  public:
    static constexpr unsigned long AVB_IOCTL = 0x89F0;
    using Request = std::array<uint32_t, 9>;

    explicit PhcStandIn(std::string dir);
    ~PhcStandIn();
    PhcStandIn(const PhcStandIn&) = delete;
    PhcStandIn& operator=(const PhcStandIn&) = delete;

    // Starts the stand-in on the directory and waits until dir/ostphc is served; false with
    // error() set when it could not (nothing is left running or mounted then).
    bool start();
    // Ends the stand-in (SIGTERM, SIGKILL if it does not go), waits for it and makes sure
    // nothing stays mounted on the directory. Safe to call twice.
    void stop();
    const std::string& error() const { return m_error; }

    const std::string& dir() const { return m_dir; }
    std::string nodePath() const { return m_dir + "/ostphc"; }
    // Every ioctl 0x89F0 received so far, in order, answered with success or not.
    std::vector<Request> requests() const;
    // The stand-in's record of them (--record): one line of nine 8-digit hex words each.
    std::string recordPath() const { return m_tmpDir.empty() ? "" : m_tmpDir + "/requests"; }
    // Every later ioctl fails with errno err (1..511, not ENOSYS); 0: success again. Written
    // to the node as "fail N" or "ok", as a shell script would. False with error() set when
    // the stand-in refused it or is not running.
    bool failWith(int err);
    pid_t pid() const { return m_pid; }

    static const std::string& programPath();

  private:
    bool fail(const std::string& what);
    std::string childOutput() const;

    std::string m_dir;
    std::string m_mountPoint;  // m_dir made absolute, as /proc/self/mountinfo shows it
    std::string m_tmpDir;      // the record and the stand-in's output; removed by stop()
    std::string m_error;
    pid_t m_pid = 0;
};
