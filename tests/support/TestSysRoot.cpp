#include "TestSysRoot.h"

#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace {

int removeEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

std::string makeTempRoot() {
    char pattern[] = "/tmp/ostpmc-root-XXXXXX";
    if (!mkdtemp(pattern)) {
        throw std::runtime_error("mkdtemp failed");
    }
    return pattern;
}

}  // namespace

std::string readTextFile(const std::string& path) {
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeTextFile(const std::string& path, const std::string& text) {
    std::ofstream out(path, std::ios::trunc);
    out << text;
}

TestSysRoot::TestSysRoot(int boardModel) : TestSysRoot(makeTempRoot(), boardModel) {}

TestSysRoot::TestSysRoot(const std::string& path, int boardModel) : m_path(path) {
    mkdir(m_path.c_str(), 0700);
    for (const char* dir : {"/etc", "/etc/ost", "/etc/ptp", "/var", "/var/run", "/dev"}) {
        mkdir((m_path + dir).c_str(), 0755);
    }
    writeSystemDefaults(boardModel);
    // The profile files as they ship.
    std::filesystem::copy(OSTPMC_ROOTFS_DIR "/etc/ptp", file("/etc/ptp"),
                          std::filesystem::copy_options::recursive |
                              std::filesystem::copy_options::overwrite_existing);
    const std::string script = file("/etc/S60ptp4ld");
    writeTextFile(script,
                  "#!/bin/sh\n"
                  "echo \"$*\" >> \"$(dirname \"$0\")/../initscript.log\"\n"
                  "exit 0\n");
    chmod(script.c_str(), 0755);
}

TestSysRoot::~TestSysRoot() {
    nftw(m_path.c_str(), removeEntry, 16, FTW_DEPTH | FTW_PHYS);
}

void TestSysRoot::writeSystemDefaults(int boardModel, double threshold, bool redundancy) const {
    std::ostringstream json;
    json << "{\"boardModel\": " << boardModel
         << ", \"clockOffsetFromMasterThreshold\": " << threshold
         << ", \"redundancyEnable\": " << (redundancy ? "true" : "false") << "}\n";
    writeTextFile(file("/etc/ost/system-defaults.json"), json.str());
}

std::string TestSysRoot::initScriptRuns() const {
    return readTextFile(file("/initscript.log"));
}
