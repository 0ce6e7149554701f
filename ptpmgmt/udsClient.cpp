#include "udsClient.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "Logger.h"
#include "SysRoot.h"

namespace {

constexpr int SOCKET_TIMEOUT_SECONDS = 2;
// Paths are cut to this many characters so that sun_path keeps its terminating zero.
constexpr size_t MAX_PATH_CHARS = sizeof(sockaddr_un::sun_path) - 1;

sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), MAX_PATH_CHARS);
    return addr;
}

void setTimeout(int fd, int option, const char* errorFormat) {
    struct timeval tv = {SOCKET_TIMEOUT_SECONDS, 0};
    if (setsockopt(fd, SOL_SOCKET, option, &tv, sizeof(tv)) < 0) {
        Logger::log(Logger::ERR, errorFormat, errno, strerror(errno));
    }
}

}  // namespace

udsClient::udsClient(std::string serverPath, int typeFlags)
    : m_fd(-1),
      m_type_flags(typeFlags),
      m_server_path(std::move(serverPath)),
      m_client_path(SysRoot::path("/var/run/udsClient.") + std::to_string(getpid())) {
    if (uds_open() < 0) {
        m_fd = -1;
        Logger::log(Logger::ERR, "Error on udsClient open %d (%s)", errno, strerror(errno));
    }
}

udsClient::~udsClient() {
    uds_close();
}

int udsClient::uds_open() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | m_type_flags, 0);
    if (fd < 0) {
        Logger::log(Logger::ERR, "Error creating socket! %d (%s)", errno, strerror(errno));
        return -1;
    }
    setTimeout(fd, SO_RCVTIMEO, "Error setting SO_RCVTIMEO on UDS socket %d (%s)");
    setTimeout(fd, SO_SNDTIMEO, "Error setting SO_SNDTIMEO on UDS socket %d (%s)");

    // A file left by an earlier run of this process id would make bind fail.
    unlink(m_client_path.c_str());
    const sockaddr_un addr = unixAddress(m_client_path);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) < 0) {
        const int err = errno;
        Logger::log(Logger::ERR, "uds: bind failed! %d (%s)", err, strerror(err));
        close(fd);
        errno = err;
        return -1;
    }
    chmod(m_client_path.c_str(), 0660);
    m_fd = fd;
    return 0;
}

int udsClient::uds_send(const void* buf, unsigned int len) {
    if (m_fd < 0) {
        Logger::log(Logger::ERR, "Attempted send on invalid UDS socket!");
        return -1;
    }
    const sockaddr_un to = unixAddress(m_server_path);
    errno = 0;
    const ssize_t sent =
        sendto(m_fd, buf, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof(to));
    if (sent > 0) {
        return static_cast<int>(sent);
    }
    // An empty datagram is sent as asked; nothing went wrong.
    if (sent == 0 && len == 0) {
        return 0;
    }
    // Nobody listens at the server path (ptp4l stopped): the failed receive that follows
    // reports it.
    if (errno == ECONNREFUSED) {
        return static_cast<int>(sent);
    }
    Logger::log(Logger::ERR, "UDS: Error on sendto = %d (%s)", errno, strerror(errno));
    return -1;
}

int udsClient::uds_recv(void* buf, int len, char* fromPath, int fromLen) {
    if (m_fd < 0) {
        Logger::log(Logger::ERR, "Attempted recv on invalid UDS socket!");
        return -1;
    }
    if (len < 0) {
        return -1;
    }
    std::memset(buf, 0, static_cast<size_t>(len));
    sockaddr_un from;
    std::memset(&from, 0, sizeof(from));
    socklen_t fromSize = sizeof(from);
    const ssize_t received = recvfrom(m_fd, buf, static_cast<size_t>(len), 0,
                                      reinterpret_cast<sockaddr*>(&from), &fromSize);
    if (received < 0) {
        return -1;
    }
    if (fromPath && fromLen > 0) {
        std::memset(fromPath, 0, static_cast<size_t>(fromLen));
        // Keep the copy a terminated string.
        std::strncpy(fromPath, from.sun_path,
                     std::min(static_cast<size_t>(fromLen) - 1, sizeof(from.sun_path)));
    }
    return static_cast<int>(received);
}

void udsClient::uds_close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
    if (!m_client_path.empty()) {
        unlink(m_client_path.c_str());
        m_client_path.clear();
    }
}
