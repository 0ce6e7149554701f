#pragma once

// Small helpers shared by the tests that run the real ptp4l.

#include <linux/capability.h>
#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "Ptp4lBed.h"
#include "Subprocess.h"

namespace live {

inline std::string readFile(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// "<command> in <namespace>", plus " with CAP_SYS_TIME" when the process holds it in any of
// its effective, permitted or bounding sets.
inline std::string describe(pid_t pid) {
    const std::string id = std::to_string(pid), status = readFile("/proc/" + id + "/status");
    std::string text = readFile("/proc/" + id + "/comm") + " in " +
                       Subprocess::run({"ip", "netns", "identify", id}).output;
    text.erase(std::remove(text.begin(), text.end(), '\n'), text.end());
    for (const char* field : {"\nCapEff:", "\nCapPrm:", "\nCapBnd:"}) {
        const size_t at = status.find(field);
        if (at == std::string::npos ||
            ((std::stoull(status.substr(at + 8), nullptr, 16) >> CAP_SYS_TIME) & 1)) {
            return text + " with CAP_SYS_TIME";
        }
    }
    return text;
}

// Whether a network namespace whose name starts with prefix exists ("ip netns" keeps them
// here). Other test processes create and remove namespaces of their own meanwhile.
inline bool hasNamespace(const std::string& prefix) {
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator("/var/run/netns", ec)) {
        if (entry.path().filename().string().rfind(prefix, 0) == 0) {
            return true;
        }
    }
    return false;
}

// Polls for up to five seconds until cond holds; the result is cond's last value.
template <typename Cond>
bool eventually(Cond cond) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!cond() && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return cond();
}

// A root for the init script: the device's profile files with the AES profile active, and
// settings that run ptp4l in the bed's slave namespace the way the bed runs its own.
inline void makeInitRoot(const std::string& root, const Ptp4lBed& bed) {
    namespace fs = std::filesystem;
    fs::create_directories(root + "/etc/default");
    fs::copy(OSTPMC_ROOTFS_DIR "/etc/ptp", root + "/etc/ptp",
             fs::copy_options::recursive | fs::copy_options::overwrite_existing);
    fs::copy_file(root + "/etc/ptp/ptpAesProfile.cfg", root + "/etc/ptp/ptpProfile.cfg",
                  fs::copy_options::overwrite_existing);
    std::string prefix;
    for (const std::string& word : Ptp4lBed::guardedPrefix(bed.slaveNamespace())) {
        prefix += word + " ";
    }
    std::ofstream(root + "/etc/default/ptp4ld")
        << "PTP4L_INTERFACES=\"" << bed.slaveInterface() << "\"\nPTP4L_PREFIX=\"" << prefix
        << "\"\nPTP4L_OPTIONS=\"--time_stamping=software -m -q\"\nPTP4L_LOG=\"" << root
        << "/ptp4l.log\"\n";
}

inline Subprocess::Result initScript(const std::string& root, const std::string& action) {
    return Subprocess::run({OSTPMC_ROOTFS_DIR "/etc/S60ptp4ld", action},
                           {"OSTPMC_SYSROOT=" + root});
}

// The pid the init script recorded, 0 without one.
inline pid_t initScriptPid(const std::string& root) {
    const std::string text = readFile(root + "/var/run/ptp4l.pid");
    return text.empty() ? 0 : std::stoi(text);
}

}  // namespace live
