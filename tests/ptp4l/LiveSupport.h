#pragma once

// Small helpers shared by the tests that run the real ptp4l.

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "Subprocess.h"

namespace live {

inline std::string readFile(const std::string& path) {
    std::string text;
    if (FILE* f = std::fopen(path.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) {
            text.append(buf, n);
        }
        std::fclose(f);
    }
    return text;
}

// One line of /proc/<pid>/status, without its label ("" when absent).
inline std::string statusField(pid_t pid, const std::string& field) {
    std::string status = readFile("/proc/" + std::to_string(pid) + "/status");
    size_t at = status.find("\n" + field + ":");
    if (at == std::string::npos) {
        return "";
    }
    size_t start = status.find_first_not_of(" \t", at + field.size() + 2);
    return status.substr(start, status.find('\n', start) - start);
}

// Whether the process holds CAP_SYS_TIME in any of its effective, permitted or bounding sets.
inline bool holdsSysTime(pid_t pid) {
    constexpr int CAP_SYS_TIME_BIT = 25;
    for (const char* field : {"CapEff", "CapPrm", "CapBnd"}) {
        std::string hex = statusField(pid, field);
        if (hex.empty() || ((std::stoull(hex, nullptr, 16) >> CAP_SYS_TIME_BIT) & 1)) {
            return true;
        }
    }
    return false;
}

inline std::string commandName(pid_t pid) {
    std::string comm = readFile("/proc/" + std::to_string(pid) + "/comm");
    return comm.empty() ? comm : comm.substr(0, comm.size() - 1);
}

// The names of the network namespaces this machine has.
inline std::vector<std::string> namespaces() {
    std::vector<std::string> names;
    std::string text = Subprocess::run({"ip", "netns", "list"}).output;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        std::string line = text.substr(pos, end == std::string::npos ? end : end - pos);
        if (!line.empty()) {
            names.push_back(line.substr(0, line.find(' ')));
        }
        pos = end == std::string::npos ? text.size() : end + 1;
    }
    return names;
}

// The bed namespaces this process owns; other test processes may create and remove their
// own at the same time.
inline std::vector<std::string> ownNamespaces() {
    const std::string prefix = "ostpmc-" + std::to_string(getpid()) + "-";
    std::vector<std::string> own;
    for (const std::string& ns : namespaces()) {
        if (ns.rfind(prefix, 0) == 0) {
            own.push_back(ns);
        }
    }
    return own;
}

inline bool hasNamespace(const std::string& name) {
    for (const std::string& ns : namespaces()) {
        if (ns == name) {
            return true;
        }
    }
    return false;
}

// The namespace a process runs in, as "ip netns identify" names it.
inline std::string namespaceOf(pid_t pid) {
    std::string out = Subprocess::run({"ip", "netns", "identify", std::to_string(pid)}).output;
    while (!out.empty() && (out.back() == '\n' || out.back() == ' ')) {
        out.pop_back();
    }
    return out;
}

// Polls until cond holds or the deadline passes; the result is cond's last value.
template <typename Cond>
bool eventually(Cond cond, std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return cond();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace live
