#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "WireBytes.h"

inline sockaddr_un unixAddress(const std::string& path) {
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
    return addr;
}

// Stands in for ptp4l's management socket. A datagram client takes whatever arrives next as
// its reply, so answers are queued at the client's socket before it asks; no thread is needed
// and the requests are read back afterwards.
struct ScriptedPeer {
    explicit ScriptedPeer(std::string at) : path(std::move(at)) {
        unlink(path.c_str());
        const sockaddr_un addr = unixAddress(path);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) < 0) {
            throw std::runtime_error("ScriptedPeer: cannot bind " + path);
        }
    }
    ~ScriptedPeer() {
        close(fd);
        unlink(path.c_str());
    }

    bool sendTo(const std::string& clientPath, const Bytes& datagram) {
        requests();  // keeps our own queue short, so that no request is ever held up
        const sockaddr_un to = unixAddress(clientPath);
        return sendto(fd, datagram.data(), datagram.size(), 0,
                      reinterpret_cast<const sockaddr*>(&to),
                      sizeof(to)) == static_cast<ssize_t>(datagram.size());
    }

    // Every datagram received so far, oldest first.
    const std::vector<Bytes>& requests() {
        uint8_t buf[2048];
        for (ssize_t n; (n = recv(fd, buf, sizeof(buf), 0)) >= 0;) {
            received.emplace_back(buf, buf + n);
        }
        return received;
    }

    const std::string path;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    std::vector<Bytes> received;
};
