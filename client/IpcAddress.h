#pragma once

#include <cstdint>
#include <string>

// Endpoint of the daemon's request socket; the server binds it, clients connect to it. The
// daemon's two fixed ports are named here.
struct IpcAddress {
    static constexpr uint32_t DEFAULT_PORT = 5573;
    // Where the daemon publishes its notifications.
    static constexpr uint32_t PUBLISH_PORT = 5574;

    uint32_t port = DEFAULT_PORT;
    std::string host = "127.0.0.1";

    // "tcp://" + host + ":" + port.
    std::string getBindAddress() const;
};
