#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

// A minimal IEEE 1588 management client of the test bed's own: one GET out, the first reply
// in. It lets the bed tell when a ptp4l is up and synchronised without the service's codec,
// so that a fault there cannot hide behind the bed that tests it.
class MgmtProbe {
  public:
    static constexpr uint16_t PORT_DATA_SET = 0x2004;
    static constexpr uint16_t DEFAULT_DATA_SET = 0x2000;
    static constexpr uint16_t ALL_PORTS = 0xFFFF;
    static constexpr uint8_t PORT_STATE_SLAVE = 9;

    struct Reply {
        uint16_t tlvType = 0;       // 1 MANAGEMENT, 2 MANAGEMENT_ERROR_STATUS
        uint16_t managementId = 0;  // for an error status: the error id
        std::vector<uint8_t> data;  // the TLV's data field
    };

    // Binds a socket of its own in clientDir (a short directory: socket paths are limited to
    // 107 characters); ptp4l answers only filesystem addresses.
    explicit MgmtProbe(const std::string& clientDir);
    ~MgmtProbe();
    MgmtProbe(const MgmtProbe&) = delete;
    MgmtProbe& operator=(const MgmtProbe&) = delete;

    bool ok() const { return m_fd >= 0; }

    // domain goes into the header (ptp4l ignores other domains), transportSpecific into the
    // high nibble of byte 0 (a gPTP ptp4l wants 1).
    std::optional<Reply> get(const std::string& serverPath, uint16_t managementId,
                             uint8_t domain = 0, uint16_t targetPort = ALL_PORTS,
                             uint8_t transportSpecific = 0,
                             std::chrono::milliseconds timeout = std::chrono::milliseconds(500));

    // portState of one port, or nothing when ptp4l does not answer.
    std::optional<uint8_t> portState(const std::string& serverPath, uint16_t port,
                                     uint8_t domain = 0);
    // The clock identity of the DEFAULT_DATA_SET.
    std::optional<std::vector<uint8_t>> clockIdentity(const std::string& serverPath,
                                                      uint8_t domain = 0);

  private:
    int m_fd = -1;
    std::string m_path;
    uint16_t m_sequence = 0;
};
