#pragma once

// A device on the real-ptp4l test bed: the bed's slave namespace is the device, its
// grandmaster the network. The device root holds the shipped init script and profile files,
// settings that run ptp4l there (guarded, software time stamps) and the clock-driver
// stand-in; the built daemon runs on it. The test process joins the device's network
// namespace, so the daemon's fixed ports are the device's own and tests run in parallel.

#include <json/json.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>
#include <zmq.hpp>

#include "ChildProcess.h"
#include "MgmtProbe.h"
#include "PhcStandIn.h"
#include "Ptp4lBed.h"

class LiveDevice {
  public:
    using Publication = std::pair<std::string, Json::Value>;

    // threshold: the stability threshold of the system defaults, in ns.
    LiveDevice(Ptp4lBed::Options options, double threshold);
    ~LiveDevice();

    // Brings up the bed, the root, the stand-in and the daemon; false with error().
    bool start();
    const std::string& error() const { return m_error; }

    Ptp4lBed& bed() { return m_bed; }
    PhcStandIn& phc() { return *m_phc; }
    ChildProcess& daemon() { return *m_daemon; }
    const std::string& root() const { return m_root; }
    std::string socket() const { return m_root + "/var/run/ptp4l"; }
    // The ptp4l the init script runs, 0 when none.
    pid_t ptp4lPid() const;

    // One request: the reply envelope, or null without an answer.
    Json::Value request(unsigned int code, const Json::Value& data = Json::Value());
    int result(unsigned int code, const Json::Value& data = Json::Value()) {
        return request(code, data)["result"].asInt();
    }
    // What was published since the last call, waiting up to waitMs for the first.
    std::vector<Publication> publications(int waitMs = 0);
    // ostpmc-ctl with these arguments: exit code and standard output.
    std::pair<int, std::string> ctl(const std::vector<std::string>& args);

    MgmtProbe& probe() { return *m_probe; }

  private:
    bool fail(const std::string& what);

    Ptp4lBed m_bed;
    double m_threshold;
    std::string m_root;
    std::string m_error;
    std::unique_ptr<PhcStandIn> m_phc;
    std::unique_ptr<MgmtProbe> m_probe;
    std::unique_ptr<ChildProcess> m_daemon;
    std::unique_ptr<zmq::context_t> m_context;  // made inside the device's namespace
    std::unique_ptr<zmq::socket_t> m_client;
    std::unique_ptr<zmq::socket_t> m_subscriber;
    int m_home_net = -1;  // the network namespace the test started in
};
