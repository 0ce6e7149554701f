#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "WireBytes.h"

// Stands in for ptp4l's management socket: a Unix datagram socket bound to a path, served by
// its own thread. Every datagram received is recorded and answered with the next scripted
// step (any number of datagrams, possibly none); without a step nothing is answered.
class ScriptedPeer {
  public:
    explicit ScriptedPeer(std::string path);
    ~ScriptedPeer();
    ScriptedPeer(const ScriptedPeer&) = delete;
    ScriptedPeer& operator=(const ScriptedPeer&) = delete;

    // The answer to the next request not yet answered.
    void answer(std::vector<Bytes> datagrams);
    void answer(const Bytes& datagram) { answer(std::vector<Bytes>{datagram}); }
    void answerNothing() { answer(std::vector<Bytes>{}); }

    // Sends a datagram to a client path at once, outside any request.
    bool sendTo(const std::string& clientPath, const Bytes& datagram);

    // Waits (bounded) until n requests have arrived; false on time-out.
    bool waitForRequests(size_t n, std::chrono::milliseconds timeout = std::chrono::seconds(3));
    std::vector<Bytes> requests() const;
    Bytes lastRequest() const;
    const std::string& path() const { return m_path; }

  private:
    void serve();

    std::string m_path;
    int m_fd = -1;
    int m_stop[2] = {-1, -1};
    mutable std::mutex m_mutex;
    std::condition_variable m_arrived;
    std::deque<std::vector<Bytes>> m_script;
    std::vector<Bytes> m_requests;
    std::thread m_thread;
};
