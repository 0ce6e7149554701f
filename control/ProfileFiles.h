#pragma once

#include <cstdint>
#include <string>

#include "PtpProfile.h"

// The ptp4l configuration files of the PTP profiles, prepared on the device in one directory,
// and the active file ptp4l is started with. The daemon never writes configuration text.
namespace ProfileFiles {

// "/etc/ptp/ptpProfile.cfg" under the device root.
std::string activeFile();

// The profile's own file ("/etc/ptp/..." under the device root); 0, or -8 with path empty for
// a profile that has none. Logs as the daemon always has.
int defaultFile(const PtpProfile& profile, std::string& path);

// Whether a file named in a request can be installed: a regular file this process can read.
// Anything else (a device, a FIFO, a directory, a missing file) would block or fill the
// device's file system when copied.
bool isInstallable(const std::string& path);

// The domain a profile file gives: the first line not starting with "#" that contains
// "domainNumber" anywhere, its rest converted with automatic base and cut to 8 bits. Without
// such a line domain keeps its value; an empty or unconvertible value gives 0 (logged).
// configuredDomain only appears in the closing log line.
void readDomainNumber(const std::string& content, uint8_t& domain, uint8_t configuredDomain);

}  // namespace ProfileFiles
