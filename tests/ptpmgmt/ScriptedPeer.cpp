#include "ScriptedPeer.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace {

sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un addr;
    std::memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    return addr;
}

}  // namespace

ScriptedPeer::ScriptedPeer(std::string path) : m_path(std::move(path)) {
    unlink(m_path.c_str());
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un addr = unixAddress(m_path);
    if (m_fd < 0 || bind(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) < 0 ||
        pipe2(m_stop, O_CLOEXEC) < 0) {
        throw std::runtime_error("ScriptedPeer: cannot bind " + m_path + ": " + strerror(errno));
    }
    m_thread = std::thread([this] { serve(); });
}

ScriptedPeer::~ScriptedPeer() {
    const char stop = 1;
    if (write(m_stop[1], &stop, 1) < 0) {
        // The thread also ends when the pipe is closed below; nothing else to do.
    }
    m_thread.join();
    close(m_stop[0]);
    close(m_stop[1]);
    close(m_fd);
    unlink(m_path.c_str());
}

void ScriptedPeer::answer(std::vector<Bytes> datagrams) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_script.push_back(std::move(datagrams));
}

bool ScriptedPeer::sendTo(const std::string& clientPath, const Bytes& datagram) {
    const sockaddr_un to = unixAddress(clientPath);
    return sendto(m_fd, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                  sizeof(to)) == static_cast<ssize_t>(datagram.size());
}

bool ScriptedPeer::waitForRequests(size_t n, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_arrived.wait_for(lock, timeout, [&] { return m_requests.size() >= n; });
}

std::vector<Bytes> ScriptedPeer::requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
}

Bytes ScriptedPeer::lastRequest() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests.empty() ? Bytes() : m_requests.back();
}

void ScriptedPeer::serve() {
    for (;;) {
        pollfd fds[2] = {{m_fd, POLLIN, 0}, {m_stop[0], POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return;
        }
        if (fds[1].revents) {
            return;
        }
        uint8_t buf[2048];
        sockaddr_un from;
        socklen_t fromLen = sizeof(from);
        const ssize_t n =
            recvfrom(m_fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr*>(&from), &fromLen);
        if (n < 0) {
            continue;
        }
        std::vector<Bytes> replies;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_requests.emplace_back(buf, buf + n);
            if (!m_script.empty()) {
                replies = std::move(m_script.front());
                m_script.pop_front();
            }
        }
        // Answer before announcing the request, so a waiting test sees the replies queued.
        for (const Bytes& reply : replies) {
            sendto(m_fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr*>(&from),
                   fromLen);
        }
        m_arrived.notify_all();
    }
}
