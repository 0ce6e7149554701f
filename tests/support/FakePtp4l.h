#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "WireBytes.h"

// What the fake ptp4l of FakePtp4l reports and accepts.
struct FakePtp4lPort {
    uint16_t number = 1;
    uint8_t state = 9;  // SLAVE
    int8_t logMinDelayReqInterval = 0;
    int64_t peerMeanPathDelay = 0;  // scaled ns
    int8_t logAnnounceInterval = 1;
    uint8_t announceReceiptTimeout = 3;
    int8_t logSyncInterval = 0;
    uint8_t delayMechanism = 1;  // E2E
    int8_t logMinPdelayReqInterval = 0;
};
struct FakePtp4lModel {
    uint8_t domain = 0;
    bool slaveOnly = false;
    uint8_t priority1 = 128;
    uint8_t priority2 = 128;
    uint8_t clockClass = 248;
    uint8_t clockAccuracy = 0xFE;
    uint16_t variance = 0xFFFF;
    Bytes identity = {0x02, 0x11, 0x22, 0xFF, 0xFE, 0x33, 0x44, 0x55};
    std::vector<FakePtp4lPort> ports = {FakePtp4lPort()};
    Bytes gmIdentity = {0x0A, 0x0B, 0x0C, 0xFF, 0xFE, 0x0D, 0x0E, 0x0F};
    uint8_t gmPriority1 = 100;
    uint8_t gmPriority2 = 100;
    uint8_t gmClockClass = 6;
    uint8_t gmClockAccuracy = 0x21;
    uint16_t gmVariance = 0x4E5D;
    uint16_t stepsRemoved = 1;
    int64_t offsetFromMaster = 0;  // scaled ns
    int64_t meanPathDelay = 0;     // scaled ns
    double stats[6] = {};          // the statistics data set, in host order
    std::set<uint16_t> refusedSets;
    std::set<uint16_t> ignoredSets;  // echoed as if applied, but nothing changes
    std::set<uint16_t> refusedGets;
    bool silent = false;  // answers nothing, as a stopped ptp4l
    // Answers every domain in the asker's own, as if each restart had brought ptp4l up in the
    // domain the server then talks in.
    bool anyDomain = false;
};

// Stands in for a running ptp4l's management socket: answers every request as it arrives,
// from a model of its data sets, on a thread of its own. Like ptp4l it ignores requests of
// another domain, applies the SETs it accepts and refuses the others with an error status.
class FakePtp4l {
  public:
    using Port = FakePtp4lPort;
    using Model = FakePtp4lModel;
    struct Request {
        uint8_t byte0 = 0;
        uint8_t domain = 0;
        uint8_t action = 0;  // 0 GET, 1 SET
        uint16_t targetPort = 0;
        uint16_t id = 0;
        Bytes data;
    };

    explicit FakePtp4l(std::string socketPath, Model model = Model());
    ~FakePtp4l();
    FakePtp4l(const FakePtp4l&) = delete;
    FakePtp4l& operator=(const FakePtp4l&) = delete;

    template <typename Change>
    void update(Change change) {
        std::lock_guard<std::mutex> lock(m_mutex);
        change(m_model);
    }
    Model model() const;
    std::vector<Request> requests() const;
    void clearRequests();
    // Queues a datagram at a client as if it were a late reply.
    bool sendTo(const std::string& clientPath, const Bytes& datagram) const;

  private:
    void serve();
    void answer(const Bytes& request, const sockaddr_un& from, socklen_t fromLength);
    std::vector<Bytes> repliesTo(const Request& request);

    std::string m_path;
    int m_fd = -1;
    int m_stop[2] = {-1, -1};
    mutable std::mutex m_mutex;
    Model m_model;
    std::vector<Request> m_requests;
    std::thread m_thread;
};
