#pragma once

#include <json/json.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>
#include <zmq.hpp>

#include "FakePtp4l.h"
#include "Logger.h"
#include "OstPmcServer.h"
#include "PhcStandIn.h"
#include "TestSysRoot.h"

// Drives an OstPmcServer in-process, call by call: its device root is a fresh TestSysRoot (a
// recording init script, the shipped profile files, the system defaults), its ptp4l a
// FakePtp4l at the management socket path, requests go through its own request socket and are
// answered on the caller's thread, and what it publishes is collected. The clock-driver
// stand-in serves the root's /dev/ostphc unless told not to.
//
// A benchmark may leave out the fake, so that the socket path can lead to a real ptp4l, and
// the log capture, which would otherwise keep every line (VERBOSE ones included) and grow
// with every cycle.
//
// The server binds the fixed ports, so the test process runs in network namespaces of its own
// (ctest starts it through tests/support/private-net.sh), and OSTPMC_SYSROOT names probeRoot()
// before anything resolves a device path (probe_main.cpp sets it).
class OstPmcServerProbe {
  public:
    using Publication = std::pair<std::string, Json::Value>;

    struct Setup {
        int board = 0;
        bool redundancy = false;
        double threshold = 1500.0;  // ns, read by the server when it starts
        bool clockDriver = true;
        FakePtp4l::Model model;
        bool fakePtp4l = true;   // false: ptp4l() must not be used
        bool captureLog = true;  // false: log() must not be used
    };

    explicit OstPmcServerProbe(const Setup& setup);
    explicit OstPmcServerProbe(int boardModel = 0, FakePtp4l::Model model = FakePtp4l::Model(),
                               bool clockDriver = true)
        : OstPmcServerProbe(Setup{boardModel, false, 1500.0, clockDriver, std::move(model)}) {}
    ~OstPmcServerProbe();

    OstPmcServer& server() { return *m_server; }
    FakePtp4l& ptp4l() { return *m_ptp4l; }
    PhcStandIn& phc() { return *m_phc; }
    TestSysRoot& root() { return m_root; }
    LogCapture& log() { return *m_log; }

    // One request through the request socket; the reply envelope ("result", "resultText",
    // "data"), or null when none came.
    Json::Value request(unsigned int code, const Json::Value& data = Json::Value());
    int result(unsigned int code, const Json::Value& data = Json::Value()) {
        return request(code, data)["result"].asInt();
    }
    // One frame of any bytes through the request socket; the reply's text, or "" when none
    // came.
    std::string requestText(const std::string& frame);
    // What the server published since the last call, oldest first.
    std::vector<Publication> publications();
    // The init script's runs so far, one line each ("restart", "stop", ...).
    std::vector<std::string> initScriptRuns() const;
    // The shell commands the server ran, as it logged them ("cp ...").
    std::vector<std::string> copyCommands() const;

    // The server's state, for the assertions.
    const OstPmcPtpCfg& runningCfg() const { return m_server->m_ptp_cfg; }
    OstPmcPtpCfg& mutableCfg() { return m_server->m_ptp_cfg; }
    // Where the server's management client receives its replies.
    std::string clientPath() const;
    bool ptp4lStarted() const { return m_server->m_ptp4l_started; }
    int checkCount() const { return m_server->m_profile_check_count; }
    void setCheckCount(int count) { m_server->m_profile_check_count = count; }
    PtpCommonInfo& status() { return m_server->m_ptp_common_info; }
    bool timerArmed() const { return m_server->m_timer.isArmed(); }
    PtpFsmStates::en_states fsmState() const { return m_server->m_ptp_status_fsm.getState(); }
    const PtpStats& stats() const { return m_server->m_ptp_stats; }
    // One status cycle, as a timer tick runs it.
    int tick() { return m_server->monitorPTPStatus(); }

    static std::string probeRoot();

  private:
    bool readToMarker(std::vector<Publication>& received);

    std::unique_ptr<LogCapture> m_log;  // first: it sees what the members below log
    TestSysRoot m_root;
    std::unique_ptr<PhcStandIn> m_phc;
    std::unique_ptr<FakePtp4l> m_ptp4l;
    std::unique_ptr<OstPmcServer> m_server;
    std::unique_ptr<zmq::socket_t> m_client;
    std::unique_ptr<zmq::socket_t> m_subscriber;
    int m_markers = 0;
};
