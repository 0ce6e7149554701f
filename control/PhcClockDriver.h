#pragma once

#include <cstdint>

// The device's PTP hardware clock driver, "/dev/ostphc". It runs in AVB mode exactly while the
// gPTP profile is active; one private ioctl switches it.
class PhcClockDriver {
  public:
    static constexpr unsigned long AVB_MODE_REQUEST = 0x89F0;  // SIOCDEVPRIVATE
    static constexpr uint32_t AVB_MODE_COMMAND = 0x00200000;
    static constexpr int REQUEST_WORDS = 9;

    // 0, or -1 after logging why the node could not be opened or refused the request.
    static int setAvbMode(bool enable);
};
