#pragma once

// The simulated device of run-device.sh, brought up and driven through the same pieces the
// script runs (scripts/sim-device.sh, scripts/device-fault.sh), in a folder of the test's own.
// The daemon serves on its fixed ports in this machine's network namespace, as for a person
// at the terminal, so tests that use it hold the ports' lock.

#include <json/json.h>
#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>
#include <zmq.hpp>

#include "ChildProcess.h"

class SimDevice {
  public:
    struct Run {
        int exitCode = -1000;  // -1000: it did not end in time
        std::string out;
        std::string err;
    };

    // A fresh folder under /tmp; nothing runs yet.
    SimDevice();
    // Ends the daemon and takes the device down (the "down" piece), then removes the folder.
    ~SimDevice();
    SimDevice(const SimDevice&) = delete;
    SimDevice& operator=(const SimDevice&) = delete;

    // Runs one of the scripts (a name under scripts/) with these arguments, in the foreground.
    Run script(const std::string& name, const std::vector<std::string>& args, int timeoutMs = 60000,
               const std::vector<std::string>& env = {});
    // "up" with these options (--dir, --build and --owner are given); true when it succeeded.
    bool up(const std::vector<std::string>& options = {});
    // The daemon through the "daemon" piece, then connect(); true once it answers.
    bool startDaemon();
    // The test's request and notification sockets on the daemon's fixed ports; true once a
    // daemon answers there (within 10 s).
    bool connect();
    ChildProcess& daemon() { return *m_daemon; }
    std::string daemonLog() const { return m_daemon ? m_daemon->stderrText() : ""; }
    // A fault of device-fault.sh; its exit code and output.
    Run fault(const std::string& name) { return script("device-fault.sh", {"--dir", m_dir, name}); }

    // One request: the reply's "data", or null without an answer (within 15 s).
    Json::Value request(unsigned int code, const Json::Value& data = Json::Value());
    // The state machine's state and the grandmaster of the last status, as the daemon tells.
    std::string state();
    std::string grandmaster();
    // State-machine notifications that arrived, waiting up to waitMs for the first.
    std::vector<Json::Value> notifications(int waitMs);

    const std::string& dir() const { return m_dir; }
    std::string root() const { return m_dir + "/root"; }
    std::string bed() const { return m_dir + "/bed"; }
    // A value of bed.env or device.env.
    std::string bedValue(const std::string& key) const;
    std::string deviceValue(const std::string& key) const;
    // The clock identity of a grandmaster ("gm" or "gm2"), read from it over its own socket.
    std::string grandmasterIdentity(const std::string& role) const;

    static std::string scriptPath(const std::string& name);

  private:
    void openClient();

    std::string m_dir;
    std::unique_ptr<ChildProcess> m_daemon;
    std::unique_ptr<zmq::context_t> m_context;
    std::unique_ptr<zmq::socket_t> m_client;
    std::unique_ptr<zmq::socket_t> m_subscriber;
};

// Reads a file whole; empty when it cannot be read.
std::string readText(const std::string& path);
