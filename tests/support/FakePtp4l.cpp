#include "FakePtp4l.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace {

constexpr uint16_t DEFAULT_DATA_SET = 0x2000;
constexpr uint16_t CURRENT_DATA_SET = 0x2001;
constexpr uint16_t PARENT_DATA_SET = 0x2002;
constexpr uint16_t PORT_DATA_SET = 0x2004;
constexpr uint16_t PRIORITY1 = 0x2005;
constexpr uint16_t PRIORITY2 = 0x2006;
constexpr uint16_t DOMAIN = 0x2007;
constexpr uint16_t LOG_ANNOUNCE_INTERVAL = 0x2009;
constexpr uint16_t ANNOUNCE_RECEIPT_TIMEOUT = 0x200A;
constexpr uint16_t LOG_SYNC_INTERVAL = 0x200B;
constexpr uint16_t STATS_DATA_SET = 0xC006;
constexpr uint16_t NOT_SUPPORTED = 6;
constexpr uint16_t WRONG_VALUE = 4;
constexpr uint16_t WILDCARD_PORT = 0xFFFF;

sockaddr_un address(const std::string& path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    return addr;
}

Bytes u8(uint8_t v) {
    return Bytes{v};
}

Bytes portData(const FakePtp4l::Model& m, const FakePtp4l::Port& p) {
    return cat({m.identity, be(p.number, 2), u8(p.state),
                u8(static_cast<uint8_t>(p.logMinDelayReqInterval)),
                be(static_cast<uint64_t>(p.peerMeanPathDelay), 8),
                u8(static_cast<uint8_t>(p.logAnnounceInterval)), u8(p.announceReceiptTimeout),
                u8(static_cast<uint8_t>(p.logSyncInterval)), u8(p.delayMechanism),
                u8(static_cast<uint8_t>(p.logMinPdelayReqInterval)), u8(2)});
}

// An answer in ptp4l's domain carrying one TLV.
Bytes reply(uint8_t domain, uint8_t action, const Bytes& tlvBytes) {
    return mgmtMessage(action, tlvBytes, WILDCARD_PORT, domain, 0x0D, 0x11);
}

}  // namespace

FakePtp4l::FakePtp4l(std::string socketPath, Model model)
    : m_path(std::move(socketPath)), m_model(std::move(model)) {
    unlink(m_path.c_str());
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un addr = address(m_path);
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) < 0 ||
        pipe2(m_stop, O_CLOEXEC) < 0) {
        throw std::runtime_error("FakePtp4l: cannot serve at " + m_path);
    }
    m_thread = std::thread([this] { serve(); });
}

FakePtp4l::~FakePtp4l() {
    const char byte = 0;
    if (write(m_stop[1], &byte, 1) != 1) {
        // The thread then ends with the process; nothing else to do.
    }
    m_thread.join();
    close(m_stop[0]);
    close(m_stop[1]);
    close(m_fd);
    unlink(m_path.c_str());
}

FakePtp4l::Model FakePtp4l::model() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_model;
}

std::vector<FakePtp4l::Request> FakePtp4l::requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

void FakePtp4l::clearRequests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_requests.clear();
}

bool FakePtp4l::sendTo(const std::string& clientPath, const Bytes& datagram) const {
    const sockaddr_un to = address(clientPath);
    return sendto(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                  sizeof(to)) == static_cast<ssize_t>(datagram.size());
}

void FakePtp4l::serve() {
    pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_stop[0], POLLIN, 0}};
    uint8_t buf[2048];
    for (;;) {
        // A signal taken by this thread (a fuzzer's time-out alarm) must not end the service.
        const int ready = poll(fds, 2, -1);
        if (ready < 0 && errno == EINTR) {
            continue;
        }
        if (ready < 0 || (fds[1].revents & POLLIN)) {
            break;
        }
        sockaddr_un from = {};
        socklen_t fromLength = sizeof(from);
        const ssize_t n = recvfrom(m_fd, buf, sizeof(buf), MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr*>(&from), &fromLength);
        if (n > 0) {
            answer(Bytes(buf, buf + n), from, fromLength);
        }
    }
}

void FakePtp4l::answer(const Bytes& bytes, const sockaddr_un& from, socklen_t fromLength) {
    if (bytes.size() < 54) {
        return;
    }
    Request request;
    request.byte0 = bytes[0];
    request.domain = bytes[4];
    request.targetPort = static_cast<uint16_t>(bytes[42] << 8 | bytes[43]);
    request.action = bytes[46] & 0x0F;
    request.id = static_cast<uint16_t>(bytes[52] << 8 | bytes[53]);
    request.data.assign(bytes.begin() + 54, bytes.end());
    std::vector<Bytes> replies;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_requests.push_back(request);
        if (m_model.silent || (request.domain != m_model.domain && !m_model.anyDomain)) {
            return;
        }
        replies = repliesTo(request);
    }
    for (const Bytes& datagram : replies) {
        sendto(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&from),
               fromLength);
    }
}

// Called with the lock held.
std::vector<Bytes> FakePtp4l::repliesTo(const Request& r) {
    Model& m = m_model;
    const uint8_t domain = m.anyDomain ? r.domain : m.domain;
    auto data = [&](const Bytes& payload) { return reply(domain, 2, mgmtTlv(r.id, payload)); };
    auto refuse = [&](uint16_t errorId) {
        return reply(domain, 2, tlv(2, cat({be(errorId, 2), be(r.id, 2), Bytes(4, 0)})));
    };
    if (r.action == 1) {
        if (m.refusedSets.count(r.id) || r.data.size() < 2) {
            return {refuse(NOT_SUPPORTED)};
        }
        const uint8_t value = r.data[0];
        if (m.ignoredSets.count(r.id)) {
            return {data(Bytes{value, 0})};
        }
        Port* port = nullptr;
        for (Port& p : m.ports) {
            port = p.number == r.targetPort ? &p : port;
        }
        const bool perPort = r.id == LOG_ANNOUNCE_INTERVAL || r.id == ANNOUNCE_RECEIPT_TIMEOUT ||
                             r.id == LOG_SYNC_INTERVAL;
        if (perPort && !port) {
            return {refuse(WRONG_VALUE)};
        }
        switch (r.id) {
            case PRIORITY1:
                m.priority1 = value;
                break;
            case PRIORITY2:
                m.priority2 = value;
                break;
            case DOMAIN:
                m.domain = value;
                break;
            case LOG_ANNOUNCE_INTERVAL:
                port->logAnnounceInterval = static_cast<int8_t>(value);
                break;
            case ANNOUNCE_RECEIPT_TIMEOUT:
                port->announceReceiptTimeout = value;
                break;
            case LOG_SYNC_INTERVAL:
                port->logSyncInterval = static_cast<int8_t>(value);
                break;
            default:
                return {refuse(NOT_SUPPORTED)};
        }
        return {data(Bytes{value, 0})};
    }
    if (m.refusedGets.count(r.id)) {
        return {refuse(NOT_SUPPORTED)};
    }
    switch (r.id) {
        case DEFAULT_DATA_SET:
            return {data(
                cat({u8(static_cast<uint8_t>(0x01 | (m.slaveOnly ? 0x02 : 0))), u8(0),
                     be(m.ports.size(), 2), u8(m.priority1), u8(m.clockClass), u8(m.clockAccuracy),
                     be(m.variance, 2), u8(m.priority2), m.identity, u8(m.domain), u8(0)}))};
        case CURRENT_DATA_SET:
            return {
                data(cat({be(m.stepsRemoved, 2), be(static_cast<uint64_t>(m.offsetFromMaster), 8),
                          be(static_cast<uint64_t>(m.meanPathDelay), 8)}))};
        case PARENT_DATA_SET:
            return {
                data(cat({m.gmIdentity, be(1, 2), u8(0), u8(0), be(0xFFFF, 2), be(0x7FFFFFFF, 4),
                          u8(m.gmPriority1), u8(m.gmClockClass), u8(m.gmClockAccuracy),
                          be(m.gmVariance, 2), u8(m.gmPriority2), m.gmIdentity}))};
        case PORT_DATA_SET: {
            std::vector<Bytes> replies;
            for (const Port& p : m.ports) {
                if (r.targetPort == WILDCARD_PORT || r.targetPort == p.number) {
                    replies.push_back(data(portData(m, p)));
                }
            }
            if (replies.empty()) {
                replies.push_back(refuse(WRONG_VALUE));
            }
            return replies;
        }
        case STATS_DATA_SET: {
            Bytes raw(sizeof(m.stats));
            std::memcpy(raw.data(), m.stats, sizeof(m.stats));
            return {data(raw)};
        }
        default:
            return {refuse(NOT_SUPPORTED)};
    }
}
