#include "MgmtProbe.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

namespace {

constexpr size_t HEADER_LENGTH = 48;  // common header and management body
constexpr size_t TLV_OFFSET = 48;
constexpr size_t DATA_OFFSET = 54;
constexpr uint8_t MANAGEMENT_MESSAGE = 0x0D;
constexpr uint8_t ACTION_GET = 0;

void putU16(std::vector<uint8_t>& buf, size_t offset, uint16_t value) {
    buf[offset] = static_cast<uint8_t>(value >> 8);
    buf[offset + 1] = static_cast<uint8_t>(value & 0xFF);
}

uint16_t getU16(const uint8_t* buf, size_t offset) {
    return static_cast<uint16_t>((buf[offset] << 8) | buf[offset + 1]);
}

bool fillAddress(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) {
        return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size());
    return true;
}

}  // namespace

MgmtProbe::MgmtProbe(const std::string& clientDir) {
    // Several probes may live in one process at once.
    static std::atomic<unsigned> instances{0};
    m_path = clientDir + "/probe." + std::to_string(getpid()) + "." +
             std::to_string(instances.fetch_add(1));
    sockaddr_un addr;
    if (!fillAddress(m_path, addr)) {
        return;
    }
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        return;
    }
    unlink(m_path.c_str());
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(m_fd);
        m_fd = -1;
    }
}

MgmtProbe::~MgmtProbe() {
    if (m_fd >= 0) {
        close(m_fd);
        unlink(m_path.c_str());
    }
}

std::optional<MgmtProbe::Reply> MgmtProbe::get(const std::string& serverPath, uint16_t managementId,
                                               uint8_t domain, uint16_t targetPort,
                                               uint8_t transportSpecific,
                                               std::chrono::milliseconds timeout) {
    sockaddr_un server;
    if (m_fd < 0 || !fillAddress(serverPath, server)) {
        return std::nullopt;
    }
    // Answers to earlier requests that timed out would be taken for this one's.
    uint8_t stale[1500];
    while (recv(m_fd, stale, sizeof stale, MSG_DONTWAIT) > 0) {
    }

    std::vector<uint8_t> msg(HEADER_LENGTH + 6, 0);
    msg[0] = static_cast<uint8_t>((transportSpecific << 4) | MANAGEMENT_MESSAGE);
    msg[1] = 2;  // versionPTP
    putU16(msg, 2, static_cast<uint16_t>(msg.size()));
    msg[4] = domain;
    putU16(msg, 28, 1);  // sourcePortIdentity.portNumber
    putU16(msg, 30, ++m_sequence);
    msg[32] = 0x04;                  // controlField: management
    msg[33] = 0x7F;                  // logMessageInterval
    std::memset(&msg[34], 0xFF, 8);  // targetPortIdentity.clockIdentity: all clocks
    putU16(msg, 42, targetPort);
    msg[46] = ACTION_GET;
    putU16(msg, TLV_OFFSET, 1);      // tlvType MANAGEMENT
    putU16(msg, TLV_OFFSET + 2, 2);  // lengthField: the id alone, as a GET carries no data
    putU16(msg, TLV_OFFSET + 4, managementId);

    if (sendto(m_fd, msg.data(), msg.size(), 0, reinterpret_cast<sockaddr*>(&server),
               sizeof server) != static_cast<ssize_t>(msg.size())) {
        return std::nullopt;
    }
    pollfd item{m_fd, POLLIN, 0};
    if (poll(&item, 1, static_cast<int>(timeout.count())) != 1) {
        return std::nullopt;
    }
    uint8_t buf[1500];
    ssize_t n = recv(m_fd, buf, sizeof buf, 0);
    if (n < static_cast<ssize_t>(DATA_OFFSET)) {
        return std::nullopt;
    }
    Reply reply;
    reply.tlvType = getU16(buf, TLV_OFFSET);
    uint16_t length = getU16(buf, TLV_OFFSET + 2);
    reply.managementId = getU16(buf, TLV_OFFSET + 4);
    size_t dataLength = length >= 2 ? length - 2u : 0u;
    if (DATA_OFFSET + dataLength > static_cast<size_t>(n)) {
        return std::nullopt;
    }
    reply.data.assign(buf + DATA_OFFSET, buf + DATA_OFFSET + dataLength);
    return reply;
}

std::optional<uint8_t> MgmtProbe::portState(const std::string& serverPath, uint16_t port,
                                            uint8_t domain) {
    auto reply = get(serverPath, PORT_DATA_SET, domain, port);
    // portIdentity (10 bytes), then portState
    if (!reply || reply->tlvType != 1 || reply->managementId != PORT_DATA_SET ||
        reply->data.size() < 11) {
        return std::nullopt;
    }
    return reply->data[10];
}

std::optional<std::vector<uint8_t>> MgmtProbe::clockIdentity(const std::string& serverPath,
                                                             uint8_t domain) {
    auto reply = get(serverPath, DEFAULT_DATA_SET, domain);
    // flags, reserved, numberPorts, priority1, clockQuality (4), priority2, clockIdentity
    if (!reply || reply->tlvType != 1 || reply->managementId != DEFAULT_DATA_SET ||
        reply->data.size() < 18) {
        return std::nullopt;
    }
    return std::vector<uint8_t>(reply->data.begin() + 10, reply->data.begin() + 18);
}
