#pragma once

#include <cstdint>

// The profiles that ship, with their file under /etc/ptp/, the domain the file names and the
// AVB-mode word the clock driver gets. Each differs from the one before, so that applying them
// in order restarts ptp4l every time.
struct ShippedProfile {
    const char* profile;
    const char* file;
    uint8_t domain;
    uint32_t avb;
};

inline constexpr ShippedProfile SHIPPED_PROFILES[] = {
    {"IEEE1588:Default", "ptpDefaultProfile.cfg", 0, 0},
    {"SMPTE:2059-2", "ptpSmpteProfile.cfg", 127, 0},
    {"GPTP:L2", "ptpAvbProfile.cfg", 0, 1},
    {"AES67:Media", "ptpAesProfile.cfg", 0, 0},
};
