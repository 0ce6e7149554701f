#include "Logger.h"

#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

// The logger is process-wide by its interface; these are its settings.
struct LoggerState {
    unsigned int options = Logger::LOG_TO_STDERR | Logger::INF;
    std::string processName = program_invocation_short_name;
    FILE* file = nullptr;
    LogCapture* capture = nullptr;
};

LoggerState& state() {
    static LoggerState s;
    return s;
}

std::string timestamp() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tmLocal;
    localtime_r(&tv.tv_sec, &tmLocal);
    char date[32];
    strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &tmLocal);
    char zone[8];
    strftime(zone, sizeof(zone), "%z", &tmLocal);
    char out[64];
    snprintf(out, sizeof(out), "%s.%03ld%s", date, static_cast<long>(tv.tv_usec / 1000), zone);
    return out;
}

}  // namespace

int Logger::createLogger(unsigned int options, std::string logFileName, std::string processName) {
    LoggerState& s = state();
    if (s.file) {
        fclose(s.file);
        s.file = nullptr;
    }
    s.options = options;
    s.processName = processName;
    if ((options & LOG_TO_FILE) && !logFileName.empty()) {
        s.file = fopen(logFileName.c_str(), "ae");
        if (!s.file) {
            fprintf(stderr, "%s: cannot open log file %s: %s\n", processName.c_str(),
                    logFileName.c_str(), strerror(errno));
            return -1;
        }
        setvbuf(s.file, nullptr, _IOLBF, 0);
    }
    return 0;
}

unsigned int Logger::getOptions() {
    return state().options;
}

const char* Logger::levelTag(int level) {
    switch (level) {
        case ERR:
            return "ERR";
        case WRN:
            return "WRN";
        case NTF:
            return "NTF";
        case INF:
            return "INF";
        case DBG:
            return "DBG";
        case VERBOSE:
            return "VRB";
        default:
            return level < ERR ? "CRT" : "VRB";
    }
}

void Logger::log(int level, const char* format, ...) {
    LoggerState& s = state();
    const bool wanted = level <= static_cast<int>(s.options & LEVEL_MASK);
    if (!wanted && !s.capture) {
        return;
    }

    char small[512];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(small, sizeof(small), format, args);
    va_end(args);
    std::string message;
    if (n < 0) {
        message = format;
    } else if (static_cast<size_t>(n) < sizeof(small)) {
        message.assign(small, static_cast<size_t>(n));
    } else {
        message.resize(static_cast<size_t>(n) + 1);
        va_start(args, format);
        vsnprintf(&message[0], message.size(), format, args);
        va_end(args);
        message.resize(static_cast<size_t>(n));
    }

    if (s.capture) {
        s.capture->add(level, message);
    }
    if (!wanted) {
        return;
    }
    const std::string line = timestamp() + " " + s.processName + "[" + std::to_string(getpid()) +
                             "] " + levelTag(level) + " " + message + "\n";
    if (s.options & LOG_TO_STDERR) {
        fputs(line.c_str(), stderr);
    }
    if (s.file) {
        fputs(line.c_str(), s.file);
    }
}

LogCapture::LogCapture() : m_previous(state().capture) {
    state().capture = this;
}

LogCapture::~LogCapture() {
    state().capture = m_previous;
}

bool LogCapture::contains(const std::string& text, int level) const {
    for (const Line& line : m_lines) {
        if (line.text == text && (level < 0 || line.level == level)) {
            return true;
        }
    }
    return false;
}

size_t LogCapture::count(const std::string& text) const {
    size_t n = 0;
    for (const Line& line : m_lines) {
        n += line.text == text ? 1 : 0;
    }
    return n;
}

bool LogCapture::containsFragment(const std::string& fragment) const {
    for (const Line& line : m_lines) {
        if (line.text.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}
