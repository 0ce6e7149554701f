#pragma once

#include <string>
#include <vector>

// Process-wide logger of the device's services. One line per call:
//   <local ISO-8601 time with ms> <process>[<pid>] <ERR|WRN|NTF|INF|DBG|VRB> <message>
// Option bits: low three bits are the highest level written, LOG_TO_STDERR writes to standard
// error, LOG_TO_FILE (with a non-empty file name) also appends to that file.
class Logger {
  public:
    enum logDebugLevel_t : int {
        ERR = 2,
        WRN = 3,
        NTF = 4,
        INF = 5,
        DBG = 6,
        VERBOSE = 7,
    };
    static constexpr unsigned int LEVEL_MASK = 0x7;
    static constexpr unsigned int LOG_TO_FILE = 0x20;
    static constexpr unsigned int LOG_TO_STDERR = 0x100;

    // Replaces the process's logger settings; returns 0, or -1 when the log file cannot be
    // opened (standard error logging still works then).
    static int createLogger(unsigned int options, std::string logFileName, std::string processName);
    static void log(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

    static unsigned int getOptions();
    static const char* levelTag(int level);
};

// Collects every logged message, whatever its level, for as long as it lives, so that tests
// can assert the exact texts. Captures nest: the innermost one receives the lines.
class LogCapture {
  public:
    struct Line {
        int level;
        std::string text;
    };

    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<Line>& lines() const { return m_lines; }
    void clear() { m_lines.clear(); }
    // True if some line equals text exactly (and has the given level, when level >= 0).
    bool contains(const std::string& text, int level = -1) const;
    // Number of lines equal to text.
    size_t count(const std::string& text) const;
    // True if some line contains the fragment.
    bool containsFragment(const std::string& fragment) const;

  private:
    friend class Logger;
    void add(int level, const std::string& text) { m_lines.push_back({level, text}); }

    std::vector<Line> m_lines;
    LogCapture* m_previous;
};
