#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <thread>

#include "IpcAddress.h"

// A TCP socket bound to port on the loop-back address, as another service would bind it; -1 if
// the port is taken. Ports in TIME_WAIT from earlier connections count as free.
inline int bindLoopback(uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A server that closed its sockets releases the request and publication ports a moment later,
// through its context: waits until both can be bound again. False if they stay busy.
inline bool waitForFreePorts(int attempts) {
    for (int attempt = 0; attempt < attempts; ++attempt) {
        bool free = true;
        for (uint16_t port : {IpcAddress::DEFAULT_PORT, IpcAddress::PUBLISH_PORT}) {
            const int fd = bindLoopback(port);
            free = free && fd >= 0;
            if (fd >= 0) {
                close(fd);
            }
        }
        if (free) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}
