// The server's configuration requests, driven in-process against a fake ptp4l, a recording
// init script and the clock-driver stand-in: what is installed, run, sent, stored, published
// and answered.
#include <gtest/gtest.h>

#include <filesystem>
#include <tuple>

#include "OstPmcCommands.h"
#include "OstPmcServerProbe.h"
#include "ShippedProfiles.h"

namespace {

using Runs = std::vector<std::string>;
// A SET the fake ptp4l received: id, target port, value.
using Sets = std::vector<std::tuple<uint16_t, uint16_t, uint8_t>>;

constexpr uint16_t PRIORITY1 = 0x2005, PRIORITY2 = 0x2006, DOMAIN = 0x2007,
                   LOG_ANNOUNCE_INTERVAL = 0x2009, LOG_SYNC_INTERVAL = 0x200B;
const char* const SET_PARAMETER = "int OstPmcServer::setPtpParameter(Json::Value&)";
const char* const SET_CONFIG = "int OstPmcServer::setPtpConfig(OstPmcPtpCfg&)";
const char* const SET_RUNNING = "int OstPmcServer::setPtpRunningCfg(Json::Value&)";

Json::Value json(const std::string& text) {
    Json::Value value;
    Json::Reader().parse(text, value);
    return value;
}

std::string chk(const std::string& function, int line, int code) {
    return "CHK(" + function + ")::" + std::to_string(line) + " Error Code " + std::to_string(code);
}

// The ERR lines logged, in order, that start with "CHK(".
Runs checks(const LogCapture& log) {
    Runs lines;
    for (const LogCapture::Line& line : log.lines()) {
        if (line.level == Logger::ERR && line.text.rfind("CHK(", 0) == 0) {
            lines.push_back(line.text);
        }
    }
    return lines;
}

Sets sets(FakePtp4l& ptp4l) {
    Sets found;
    for (const FakePtp4l::Request& r : ptp4l.requests()) {
        if (r.action == 1) {
            found.emplace_back(r.id, r.targetPort, r.data.at(0));
        }
    }
    ptp4l.clearRequests();
    return found;
}

TEST(ServerControl, RunningConfigurationInstallsEachProfileAndAppliesIt) {
    for (const ShippedProfile& p : SHIPPED_PROFILES) {
        SCOPED_TRACE(p.profile);
        FakePtp4l::Model model;
        model.domain = p.domain;  // ptp4l runs the domain its file names
        model.slaveOnly = true;
        OstPmcServerProbe probe(KESTREL, model);
        const std::string source = probe.root().file("/etc/ptp/") + p.file;
        const std::string active = probe.root().file("/etc/ptp/ptpProfile.cfg");
        Json::Value request = json(R"({"priority1": 90, "priority2": 91})");
        request["profile"] = p.profile;

        EXPECT_EQ(0, probe.result(OSTPMC_SET_RUNNING_CFG, request));
        EXPECT_EQ(Runs{"cp " + source + " " + active}, probe.copyCommands());
        EXPECT_EQ(readTextFile(source), readTextFile(active));
        EXPECT_EQ(Runs{"restart"}, probe.initScriptRuns());
        EXPECT_TRUE(probe.timerArmed());
        // Every management message carried the file's domain, and ptp4l took the priorities.
        for (const FakePtp4l::Request& r : probe.ptp4l().requests()) {
            EXPECT_EQ(p.domain, r.domain);
        }
        EXPECT_EQ(90, probe.ptp4l().model().priority1);
        EXPECT_EQ(91, probe.ptp4l().model().priority2);
        EXPECT_EQ((std::vector<PhcStandIn::Request>{{0x00200000, p.avb}}), probe.phc().requests());

        // Stored, published and answered as applied, slave-only as the running clock's bit.
        Json::Value expected = request;
        expected["cfgFilePath"] = "";
        expected["slaveOnly"] = 2;
        EXPECT_EQ((std::vector<OstPmcServerProbe::Publication>{{"1001", expected}}),
                  probe.publications());
        EXPECT_EQ(expected, probe.request(OSTPMC_GET_RUNNING_CFG)["data"]["ptp"]);

        // The same profile again on a started ptp4l: nothing applied, nothing published.
        request["priority1"] = 7;
        EXPECT_EQ(0, probe.result(OSTPMC_SET_RUNNING_CFG, request));
        EXPECT_EQ(Runs{"restart"}, probe.initScriptRuns());
        EXPECT_EQ(90, probe.runningCfg().priority1);
        EXPECT_TRUE(probe.publications().empty());
    }
}

TEST(ServerControl, ParameterRequestsSendStoreAndPublish) {
    OstPmcServerProbe probe(KESTREL);
    ASSERT_EQ(0, probe.result(OSTPMC_SET_RUNNING_CFG, json(R"({"profile": "AES67:Media"})")));
    probe.publications();
    sets(probe.ptp4l());

    probe.setCheckCount(60);
    EXPECT_EQ(0, probe.result(OSTPMC_SET_PTP_PARAMETER,
                              json(R"({"priority1": 100, "priority2": 101, "syncInterval": -3,
                                       "announceInterval": 300, "domain": 300})")));
    // 300 keeps its low 8 bits: domain 44, announce interval 44; the port defaults to 1.
    EXPECT_EQ((Sets{{DOMAIN, 0xFFFF, 44},
                    {PRIORITY1, 0xFFFF, 100},
                    {PRIORITY2, 0xFFFF, 101},
                    {LOG_ANNOUNCE_INTERVAL, 1, 44},
                    {LOG_SYNC_INTERVAL, 1, 0xFD}}),
              sets(probe.ptp4l()));
    const auto published = probe.publications();
    ASSERT_EQ(1u, published.size());
    EXPECT_EQ(json(R"({"profile": "AES67:Media", "domainNumber": 44, "priority1": 100,
                       "priority2": 101, "cfgFilePath": "", "slaveOnly": 0,
                       "port": [{"port": 1, "syncInterval": -3, "announceInterval": 44}]})"),
              published[0].second);
    EXPECT_EQ(0, probe.checkCount()) << "a parameter request grants the 60 runs again";
    EXPECT_EQ(Runs{"restart"}, probe.initScriptRuns()) << "no restart for single parameters";

    // A refused SET: the setter's line, the request's line, the code; nothing published.
    probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedSets = {LOG_SYNC_INTERVAL}; });
    probe.log().clear();
    EXPECT_EQ(-1, probe.result(OSTPMC_SET_PTP_PARAMETER,
                               json(R"({"port": 2, "syncInterval": 1, "priority1": 5})")));
    EXPECT_EQ((Runs{chk("int OstPmcServer::setPtpSyncInterval(int, int8_t)", 189, -1),
                    chk(SET_PARAMETER, 238, -1)}),
              checks(probe.log()));
    EXPECT_EQ(5, probe.runningCfg().priority1) << "what went before stays applied";
    EXPECT_EQ(1u, probe.runningCfg().ports.size()) << "no entry for a port whose SET failed";
    EXPECT_TRUE(probe.publications().empty());

    // Nothing applicable: nothing published, the allowance granted again all the same.
    probe.setCheckCount(60);
    EXPECT_EQ(0, probe.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"domain": null, "port": 3})")));
    EXPECT_TRUE(probe.publications().empty());
    EXPECT_EQ(0, probe.checkCount());

    // A value of the wrong type is refused, and the daemon goes on.
    EXPECT_EQ(-8, probe.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"priority1": "high"})")));
    EXPECT_EQ(0, probe.result(OSTPMC_GET_PTP_INFO));
}

TEST(ServerControl, SlaveOnlyAndProfileChangesRestartPtp4l) {
    OstPmcServerProbe probe(KESTREL);
    ASSERT_EQ(0, probe.result(OSTPMC_SET_RUNNING_CFG,
                              json(R"({"profile": "AES67:Media", "priority1": 90, "slaveOnly": 0,
                                       "port": [{"port": 1, "syncInterval": -3}]})")));
    probe.publications();

    EXPECT_EQ(0, probe.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"slaveOnly": true})")));
    EXPECT_EQ((Runs{"restart", "restartslave"}), probe.initScriptRuns());
    EXPECT_EQ(1, probe.runningCfg().slaveOnly);
    EXPECT_EQ(1u, probe.publications().size());
    EXPECT_TRUE(probe.log().contains(
        "OSTPMC:: changing slave-only mode. we need to restart ptp4l for this to take effect. "
        "new slave-only 1",
        Logger::INF));
    // Unchanged: no restart, but published all the same.
    EXPECT_EQ(0, probe.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"slaveOnly": true})")));
    EXPECT_EQ(2u, probe.initScriptRuns().size());
    EXPECT_EQ(1u, probe.publications().size());

    // The active profile again: no restart, nothing published.
    EXPECT_EQ(0, probe.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"profile": "AES67:Media"})")));
    EXPECT_TRUE(
        probe.log().contains("OSTPMC:: ignoring attempt to change ptp profile. This is "
                             "already the active profile. (AES67:Media)"));
    EXPECT_EQ(2u, probe.initScriptRuns().size());
    EXPECT_TRUE(probe.publications().empty());

    // Another profile: its own file, slave-only kept, every other setting dropped.
    probe.ptp4l().update([](FakePtp4l::Model& m) { m.domain = 127; });
    EXPECT_EQ(0, probe.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"profile": "SMPTE:2059-2"})")));
    EXPECT_EQ((Runs{"restart", "restartslave", "restartslave"}), probe.initScriptRuns());
    EXPECT_EQ(readTextFile(probe.root().file("/etc/ptp/ptpSmpteProfile.cfg")),
              readTextFile(probe.root().file("/etc/ptp/ptpProfile.cfg")));
    EXPECT_EQ(json(R"({"profile": "SMPTE:2059-2", "cfgFilePath": "", "slaveOnly": 1})"),
              probe.publications().at(0).second);
    EXPECT_TRUE(probe.log().contains("OSTPMC: Changing PTP profile: AES67:Media to SMPTE:2059-2"));

    // A change whose application fails: -1, the default profile (not the previous one), no
    // publication.
    probe.phc().failWith(EIO);
    EXPECT_EQ(-1, probe.result(OSTPMC_SET_PTP_PARAMETER, json(R"({"profile": "GPTP:L2"})")));
    EXPECT_EQ("AES67:Media", probe.runningCfg().profile.toString());
    EXPECT_TRUE(
        probe.log().contains("OSTPMC:: error changing PTP profile to GPTP:L2", Logger::ERR));
    EXPECT_TRUE(probe.publications().empty());
}

TEST(ServerControl, ClockDriverRefusalAndBoardRules) {
    {
        OstPmcServerProbe probe(KESTREL);
        probe.phc().failWith(EIO);
        EXPECT_EQ(-1, probe.result(OSTPMC_SET_RUNNING_CFG, json(R"({"profile": "GPTP:L2"})")));
        EXPECT_TRUE(probe.log().contains(
            "Error in ioctl to PHC to set AVB mode errno=5 (Input/output error)", Logger::ERR));
        EXPECT_EQ((Runs{chk(SET_CONFIG, 522, -1), chk(SET_RUNNING, 578, -1)}), checks(probe.log()));
        EXPECT_TRUE(probe.publications().empty());
        EXPECT_TRUE(probe.ptp4lStarted()) << "ptp4l stays restarted";
    }
    {
        // No clock-driver node at all.
        OstPmcServerProbe probe(KESTREL, FakePtp4l::Model(), false);
        EXPECT_EQ(-1, probe.result(OSTPMC_SET_RUNNING_CFG, json(R"({"profile": "AES67:Media"})")));
        EXPECT_TRUE(probe.log().contains(
            "Open of PHC driver to set AVB mode failed errno==2 (No such file or directory)"));
    }
    // EGRET: ptp4l and the clock driver are not ours; the command goes to the shell as is.
    OstPmcServerProbe probe(EGRET, FakePtp4l::Model(), false);
    EXPECT_EQ(0, probe.result(OSTPMC_SET_RUNNING_CFG, json(R"({"profile": "GPTP:L2"})")));
    EXPECT_TRUE(probe.log().contains("ostPmc view of board model: EGRET"));
    EXPECT_TRUE(probe.initScriptRuns().empty());
    EXPECT_EQ(1u, probe.publications().size());
}

// Here a missing file with shell syntax in its name; devices and FIFOs are tried on
// ProfileFiles::isInstallable alone, as copying one by mistake would fill the disk or hang.
TEST(ServerControl, AFileNamedInARequestRunsNothingUnlessItIsAReadableRegularFile) {
    OstPmcServerProbe probe(KESTREL);
    const std::string dir = probe.root().path();
    const std::string owned = dir + "/owned";
    Json::Value request = json(R"({"profile": "AES67:Media"})");
    request["cfgFilePath"] = "x;touch " + owned;
    EXPECT_EQ(-8, probe.result(OSTPMC_SET_RUNNING_CFG, request));
    EXPECT_EQ((Runs{chk("int OstPmcServer::startPtp4l(const OstPmcPtpCfg&)", 709, -8),
                    chk(SET_CONFIG, 506, -8), chk(SET_RUNNING, 578, -8)}),
              checks(probe.log()));
    EXPECT_TRUE(probe.copyCommands().empty());
    EXPECT_TRUE(probe.initScriptRuns().empty());
    EXPECT_FALSE(probe.ptp4lStarted());

    // A real file with an awkward name is installed as it is.
    const std::string odd = dir + "/my 'odd' $name;.cfg";
    std::filesystem::copy_file(dir + "/etc/ptp/ptpAesProfile.cfg", odd);
    request["cfgFilePath"] = odd;
    EXPECT_EQ(0, probe.result(OSTPMC_SET_RUNNING_CFG, request));
    EXPECT_EQ(readTextFile(odd), readTextFile(dir + "/etc/ptp/ptpProfile.cfg"));
    EXPECT_EQ(odd, probe.runningCfg().m_cfg_path);
    EXPECT_FALSE(std::filesystem::exists(owned));
}

// The configuration reaches ptp4l past replies of the ptp4l before the restart, and is pushed
// again while ptp4l does not show it.
TEST(ServerControl, ConfigurationReachesPtp4lPastLateRepliesAndIsPushedUntilShown) {
    OstPmcServerProbe probe(KESTREL);
    // The reply to a SET PRIORITY1 of 7, still queued when the restart happens.
    const Bytes late = response(mgmtTlv(PRIORITY1, {7, 0}));
    ASSERT_TRUE(probe.ptp4l().sendTo(probe.clientPath(), late));
    ASSERT_TRUE(probe.ptp4l().sendTo(probe.clientPath(), late));
    ASSERT_EQ(
        0, probe.result(OSTPMC_SET_RUNNING_CFG, json(R"({"profile": "AES67:Media", "priority1": 90,
                                       "port": [{"port": 1, "syncInterval": -3}]})")));
    EXPECT_EQ(90, probe.ptp4l().model().priority1);
    EXPECT_TRUE(checks(probe.log()).empty());
    sets(probe.ptp4l());
    const std::string notApplied = "OSTPMC:: PTP profile has not yet been fully applied";

    // The status shows other values: each is pushed, the line logged, the run counted.
    PtpCommonInfo& status = probe.status();
    status.local.priority1 = 128;
    status.local.priority2 = 255;  // not configured: never pushed
    status.domainNumber = 9;       // not configured: never pushed
    status.port.resize(2);
    status.port[0].portId = 1;
    status.port[0].syncInterval = 0;
    status.port[0].announceInterval = 1;  // configured 127: sent as it is
    status.port[0].announceReceiptTimeout = 127;
    status.port[1].portId = 2;  // no configured entry: nothing pushed
    probe.setCheckCount(0);
    probe.log().clear();
    EXPECT_EQ(0, probe.server().checkRunningLocalProfile());
    EXPECT_EQ((Sets{{PRIORITY1, 0xFFFF, 90},
                    {LOG_SYNC_INTERVAL, 1, 0xFD},
                    {LOG_ANNOUNCE_INTERVAL, 1, 127}}),
              sets(probe.ptp4l()));
    EXPECT_TRUE(probe.log().contains(notApplied, Logger::ERR));
    EXPECT_EQ(1, probe.checkCount());

    // Everything shown: silent, counted.
    probe.log().clear();
    status.local.priority1 = 90;
    status.port[0].syncInterval = -3;
    status.port[0].announceInterval = 127;
    EXPECT_EQ(0, probe.server().checkRunningLocalProfile());
    EXPECT_TRUE(sets(probe.ptp4l()).empty());
    EXPECT_FALSE(probe.log().contains(notApplied));
    EXPECT_EQ(2, probe.checkCount());

    // A refused SET ends the run with its code and its two lines, uncounted.
    probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedSets = {PRIORITY2}; });
    probe.mutableCfg().priority2 = 3;
    probe.log().clear();
    EXPECT_EQ(-1, probe.server().checkRunningLocalProfile());
    EXPECT_EQ((Runs{chk("int OstPmcServer::setPtpPriority2(uint8_t)", 130, -1),
                    chk("int OstPmcServer::checkRunningLocalProfile()", 390, -1)}),
              checks(probe.log()));
    EXPECT_EQ(2, probe.checkCount());
}

}  // namespace
