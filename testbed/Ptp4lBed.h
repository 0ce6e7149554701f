#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

// A grandmaster and a slave ptp4l, each in a network namespace of its own, for tests against
// the real daemon. The bed is ptp4l-bed.sh (the one place that knows how to build it); this
// class drives it, waits for synchronisation and tells the tests where everything is.
// Bringing a bed up also removes what earlier test processes left behind.
//
// The bed belongs to the process that creates it; it is taken down by the destructor, and
// leftovers of a process that died are removed by the next bed's start.
class Ptp4lBed {
  public:
    struct Options {
        unsigned int domain = 0;
        long delayAsymmetry = 0;   // the slave's, in ns; the slave's offset reads about -this
        bool secondPort = false;   // the slave becomes a two-port boundary clock
        bool freeRunning = false;  // the slave never locks (stays UNCALIBRATED)
        bool startSlave = true;    // false: the slave namespace is left for another ptp4l
        std::vector<std::string> extraLines;       // [global] lines for both instances
        std::vector<std::string> gmExtraLines;     // for the grandmaster only
        std::vector<std::string> slaveExtraLines;  // for the slave only
    };

    Ptp4lBed();
    explicit Ptp4lBed(Options options);
    ~Ptp4lBed();
    Ptp4lBed(const Ptp4lBed&) = delete;
    Ptp4lBed& operator=(const Ptp4lBed&) = delete;

    // Creates a fresh directory under /tmp and starts the bed in it; false with error() set
    // when any step failed (what was made is taken down again).
    bool up();
    // Stops the instances, removes the namespaces and the directory. Safe to call twice.
    void down();
    bool isUp() const { return m_up; }
    const std::string& error() const { return m_error; }

    // Polls the slave until the port reaches SLAVE; false at the deadline.
    bool waitForSlave(std::chrono::milliseconds timeout = std::chrono::seconds(20),
                      uint16_t port = 1) const;
    // Polls a socket until the port reaches state; false at the deadline.
    bool waitForPortState(const std::string& socketPath, uint16_t port, uint8_t state,
                          std::chrono::milliseconds timeout) const;
    // The port state read right now, or -1 when there is no answer.
    int portState(const std::string& socketPath, uint16_t port) const;

    const Options& options() const { return m_options; }
    const std::string& dir() const { return m_dir; }
    const std::string& gmSocket() const { return m_gmSocket; }
    const std::string& slaveSocket() const { return m_slaveSocket; }
    const std::string& gmNamespace() const { return m_gmNamespace; }
    const std::string& slaveNamespace() const { return m_slaveNamespace; }
    const std::string& slaveInterface() const { return m_slaveInterface; }
    std::string gmLog() const { return m_dir + "/gm.log"; }
    std::string slaveLog() const { return m_dir + "/sl.log"; }
    pid_t gmPid() const { return m_gmPid; }
    pid_t slavePid() const { return m_slavePid; }  // 0 without a slave

    // The grandmaster's clock identity, as read from it when the bed came up.
    const std::vector<uint8_t>& gmClockIdentity() const { return m_gmIdentity; }
    // The same as text: "xx-xx-xx-xx-xx-xx-xx-xx".
    std::string gmClockIdentityText() const;

    // The command words that start a program the way the bed starts ptp4l: inside ns, without
    // CAP_SYS_TIME, with the clock guard preloaded. Each of them execs the next.
    static std::vector<std::string> guardedPrefix(const std::string& ns);
    // The last lines of the logs, for a failing test's report.
    std::string logTails(size_t lines = 15) const;

    // True while pid is a process that has not exited (a zombie counts as exited).
    static bool processAlive(pid_t pid);

    static const std::string& scriptPath();
    static const std::string& clockGuardPath();

  private:
    bool fail(const std::string& what);
    bool loadEnvironment();

    Options m_options;
    bool m_up = false;
    std::string m_error;
    std::string m_dir;
    std::string m_gmSocket;
    std::string m_slaveSocket;
    std::string m_gmNamespace;
    std::string m_slaveNamespace;
    std::string m_slaveInterface;
    pid_t m_gmPid = 0;
    pid_t m_slavePid = 0;
    std::vector<uint8_t> m_gmIdentity;
};
