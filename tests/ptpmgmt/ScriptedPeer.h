#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "WireBytes.h"

// Stands in for ptp4l's management socket. A datagram client takes whatever arrives next as
// its reply, so answers are queued at the client's socket before it asks; no thread is needed
// and the requests are read back afterwards.
class ScriptedPeer {
  public:
    explicit ScriptedPeer(std::string path) : m_path(std::move(path)) {
        unlink(m_path.c_str());
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const sockaddr_un addr = address(m_path);
        if (m_fd < 0 || bind(m_fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) < 0) {
            throw std::runtime_error("ScriptedPeer: cannot bind " + m_path);
        }
    }
    ~ScriptedPeer() {
        close(m_fd);
        unlink(m_path.c_str());
    }
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    bool sendTo(const std::string& clientPath, const Bytes& datagram) {
        requests();  // keeps our own queue short, so that no request is ever held up
        const sockaddr_un to = address(clientPath);
        return sendto(m_fd, datagram.data(), datagram.size(), 0,
                      reinterpret_cast<const sockaddr*>(&to),
                      sizeof(to)) == static_cast<ssize_t>(datagram.size());
    }

    // Every datagram received so far, oldest first.
    const std::vector<Bytes>& requests() {
        uint8_t buf[2048];
        for (ssize_t n; (n = recv(m_fd, buf, sizeof(buf), 0)) >= 0;) {
            m_requests.emplace_back(buf, buf + n);
        }
        return m_requests;
    }
    const std::string& path() const { return m_path; }

    static sockaddr_un address(const std::string& path) {
        sockaddr_un addr = {};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
        return addr;
    }

  private:
    std::string m_path;
    int m_fd = -1;
    std::vector<Bytes> m_requests;
};
