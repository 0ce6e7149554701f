#pragma once

#include <string>

// Every fixed device path is resolved through here: OSTPMC_SYSROOT, read once, is prepended
// when it is set and not empty, so that tests and workstations run the unmodified daemon on a
// directory that mirrors the device.
namespace SysRoot {
// devicePath is absolute ("/etc/ptp/"); the result keeps any trailing slash.
std::string path(const std::string& devicePath);
// The prefix itself ("" on the device).
const std::string& prefix();
}  // namespace SysRoot
