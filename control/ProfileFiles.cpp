#include "ProfileFiles.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "IpcResult.h"
#include "Logger.h"
#include "SysRoot.h"
#include "SystemDefaultCfg.h"

namespace {
const char* const CONFIG_DIR = "/etc/ptp/";
const char* const DOMAIN_KEY = "domainNumber";
}  // namespace

namespace ProfileFiles {

std::string activeFile() {
    return SysRoot::path(CONFIG_DIR) + "ptpProfile.cfg";
}

int defaultFile(const PtpProfile& profile, std::string& path) {
    path.clear();
    // Every board uses the same files; the model is read all the same.
    (void)SystemDefaultCfg::getInstance()->getBoardModel();
    path = SysRoot::path(CONFIG_DIR);
    switch (profile.getProfile()) {
        case PtpProfile::PROFILE_IEEE1588_DEFAULT:
            path += "ptpDefaultProfile.cfg";
            break;
        case PtpProfile::PROFILE_AES67_MEDIA:
            path += "ptpAesProfile.cfg";
            Logger::log(Logger::INF, "AES67_MEDIA");
            break;
        case PtpProfile::PROFILE_SMPTE_2059_2:
            path += "ptpSmpteProfile.cfg";
            break;
        case PtpProfile::PROFILE_GPTP_L2:
            path += "ptpAvbProfile.cfg";
            break;
        default:
            path.clear();
            Logger::log(Logger::INF, "ERROR_INVALID_PARAM");
            return IpcResult::ERROR_INVALID_PARAM;
    }
    Logger::log(Logger::INF, "%s: path:: %s", "getPtpDefaultConfigFile", path.c_str());
    return 0;
}

bool isInstallable(const std::string& path) {
    // A name with a NUL byte names no file: open() would see only what comes before it, and
    // the shell would get a command cut short.
    if (path.find('\0') != std::string::npos) {
        return false;
    }
    // Non-blocking, so that opening a FIFO without a writer does not hang the daemon.
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    struct stat st;
    const bool regular = fstat(fd, &st) == 0 && S_ISREG(st.st_mode);
    close(fd);
    return regular;
}

void readDomainNumber(const std::string& content, uint8_t& domain, uint8_t configuredDomain) {
    std::istringstream lines(content);
    std::string line;
    while (std::getline(lines, line)) {
        // Only column one makes a comment; a "\r" at the end stays part of the line.
        if (line.empty() || line[0] == '#') {
            continue;
        }
        Logger::log(Logger::DBG, "line %s", line.c_str());
        const size_t at = line.find(DOMAIN_KEY);
        if (at == std::string::npos) {
            continue;
        }
        const std::string value = line.substr(at + std::char_traits<char>::length(DOMAIN_KEY));
        if (value.empty()) {
            Logger::log(Logger::ERR, "trying to convert to integer a empty string. That is bad.");
            domain = 0;
        } else {
            char* end = nullptr;
            errno = 0;
            const unsigned long number = strtoul(value.c_str(), &end, 0);
            if (end == value.c_str()) {
                Logger::log(Logger::ERR, "trying to convert to integer invalid value: %s",
                            value.c_str());
                domain = 0;
            } else if (errno == ERANGE) {
                Logger::log(Logger::ERR, "trying to convert to integer out of range: %s",
                            value.c_str());
                domain = 0;
            } else {
                // Cut to 8 bits without a range check: 300 gives 44.
                domain = static_cast<uint8_t>(number);
            }
        }
        Logger::log(Logger::VERBOSE, "ptp domainNumber found:: %d", configuredDomain);
        return;
    }
}

}  // namespace ProfileFiles
