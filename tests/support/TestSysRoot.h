#pragma once

#include <string>

// A throw-away device root for one test: etc/, etc/ost/, the shipped profile files in etc/ptp/,
// var/run/, dev/ and an init script that only records how it was called (in initscript.log),
// so the daemon runs unmodified.
class TestSysRoot {
  public:
    explicit TestSysRoot(int boardModel = 0);
    // The root at a path of the caller's choosing (created here, removed by the destructor),
    // for a process whose OSTPMC_SYSROOT names it before anything resolves a device path.
    TestSysRoot(const std::string& path, int boardModel);
    ~TestSysRoot();
    TestSysRoot(const TestSysRoot&) = delete;
    TestSysRoot& operator=(const TestSysRoot&) = delete;

    const std::string& path() const { return m_path; }
    std::string file(const std::string& devicePath) const { return m_path + devicePath; }
    // Rewrites the system defaults file in place (as an editor that truncates would).
    void writeSystemDefaults(int boardModel, double threshold = 1500.0,
                             bool redundancy = false) const;
    // What the init script was asked to do, one line per run ("stop", "restart", ...).
    std::string initScriptRuns() const;

  private:
    std::string m_path;
};

std::string readTextFile(const std::string& path);
void writeTextFile(const std::string& path, const std::string& text);
