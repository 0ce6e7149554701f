// The status cycle, driven tick by tick in-process against a fake ptp4l: what is asked, what the
// status records and the state machine make of the answers, and how the cycle recovers.
#include <gtest/gtest.h>

#include "OstPmcCommands.h"
#include "OstPmcServerProbe.h"

namespace {

using Ids = std::vector<std::pair<uint16_t, uint16_t>>;  // managementId, target port
constexpr uint16_t DEFAULT_DS = 0x2000, CURRENT_DS = 0x2001, PARENT_DS = 0x2002, PORT_DS = 0x2004,
                   PRIORITY1 = 0x2005, STATS = 0xC006, ALL = 0xFFFF;
const char* const GM = "0a-0b-0c-ff-fe-0d-0e-0f";

Ids asked(FakePtp4l& ptp4l) {
    Ids ids;
    for (const FakePtp4l::Request& r : ptp4l.requests()) {
        ids.emplace_back(r.id, r.targetPort);
    }
    ptp4l.clearRequests();
    return ids;
}

void tick(OstPmcServerProbe& probe, int cycles) {
    for (int cycle = 0; cycle < cycles; ++cycle) {
        ASSERT_EQ(0, probe.tick());
    }
}

// Port 1 a slave, port 2 a master.
FakePtp4l::Model twoPorts() {
    FakePtp4l::Model model;
    model.ports.resize(2);
    model.ports[1].number = 2;
    model.ports[1].state = 6;
    return model;
}

TEST(StatusCycle, QueriesFollowTheBoardAndStatisticsEveryFourthTick) {
    const struct {
        int board;
        bool redundancy, secondPort, stats;
    } boards[] = {{3, false, true, true},   {9, false, true, true}, {0, false, true, false},
                  {4, false, false, false}, {5, true, true, false}, {16, false, false, false}};
    for (const auto& b : boards) {
        SCOPED_TRACE(b.board);
        OstPmcServerProbe::Setup setup;
        setup.board = b.board;
        setup.redundancy = b.redundancy;
        setup.clockDriver = false;
        setup.model = twoPorts();
        OstPmcServerProbe probe(setup);
        for (int cycle = 1; cycle <= 8; ++cycle) {
            ASSERT_EQ(0, probe.tick());
            Ids expected = {
                {DEFAULT_DS, ALL}, {PORT_DS, 1}, {PORT_DS, 2}, {PARENT_DS, ALL}, {CURRENT_DS, ALL}};
            if (!b.secondPort) {
                expected.erase(expected.begin() + 2);
            }
            if (b.stats && cycle % 4 == 0) {
                expected.emplace_back(STATS, ALL);
            }
            EXPECT_EQ(expected, asked(probe.ptp4l())) << "tick " << cycle;
        }
        EXPECT_EQ(b.secondPort ? 2u : 1u, probe.status().port.size());
    }
}

TEST(StatusCycle, RepliesBecomeTheStatusAndTheStatistics) {
    FakePtp4l::Model model = twoPorts();
    model.slaveOnly = true;
    model.offsetFromMaster = -1500LL * 65536;
    model.meanPathDelay = 2500LL * 65536 + 32768;
    model.stepsRemoved = 2;
    model.ports[0].peerMeanPathDelay = 300LL * 65536;
    model.ports[0].delayMechanism = 2;
    model.ports[0].logSyncInterval = -3;
    const double delivered[6] = {2.5, -2.5, 2.4999, -2.4999, 0.0, 1e12};
    std::copy(delivered, delivered + 6, model.stats);
    OstPmcServerProbe probe(KESTREL, model, false);
    // Replies to an earlier cycle's queries, answered after their requests had timed out, are
    // dropped before the next cycle.
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(probe.ptp4l().sendTo(probe.clientPath(),
                                         response(mgmtTlv(PARENT_DS, Bytes(32, 0x77)))));
    }
    tick(probe, 4);

    const Json::Value info = probe.request(OSTPMC_GET_PTP_INFO)["data"];
    EXPECT_EQ("02-11-22-ff-fe-33-44-55", info["local"]["id"].asString());
    EXPECT_EQ(GM, info["grandMaster"]["id"].asString());
    EXPECT_EQ(100, info["grandMaster"]["priority1"].asInt());
    EXPECT_EQ(6, info["grandMaster"]["clockClass"].asInt());
    EXPECT_EQ(-1500.0, info["offsetFromMaster"].asDouble());
    EXPECT_EQ(2500.5, info["meanPathDelay"].asDouble());
    EXPECT_EQ(2, info["stepsRemoved"].asInt());
    EXPECT_TRUE(info["slaveOnly"].asBool());
    ASSERT_EQ(2u, info["port"].size());
    EXPECT_EQ("Slave", info["port"][0]["roleStatus"].asString());
    EXPECT_EQ("P2P", info["port"][0]["delayMechanism"].asString());
    EXPECT_EQ(-3, info["port"][0]["syncInterval"].asInt());
    EXPECT_EQ(300, info["port"][0]["peerMeanPathDelay"].asInt());
    EXPECT_EQ("Master", info["port"][1]["roleStatus"].asString());
    EXPECT_EQ("AES67:Media", info["profile"].asString());

    // Halves away from zero; the offset copied from the status.
    const PtpStats& stats = probe.stats();
    EXPECT_EQ(
        (std::vector<int>{3, -3, 2, -2, 0}),
        (std::vector<int>{stats.masterOffsetRMS, stats.masterOffsetMaxAbs, stats.freqDeviationMean,
                          stats.freqDeviationStdDev, stats.pathDelayMean}));
    EXPECT_EQ(-1500.0f, stats.offsetFromMaster);
}

TEST(StatusCycle, PortRolesDriveTheStateMachine) {
    // Port states of a two-port board and the state they lead to from FAILURE, where the first
    // step always goes.
    const struct {
        uint8_t first, second;
        PtpFsmStates::en_states after;
    } cases[] = {
        {9, 6, PtpFsmStates::SLAVE_UNSTABLE},  // a slave role wins
        {7, 4, PtpFsmStates::SLAVE_UNSTABLE},  // passive counts as slave
        {6, 4, PtpFsmStates::MASTER},         {4, 10, PtpFsmStates::MASTER},
        {8, 3, PtpFsmStates::FAILURE},  // uncalibrated and disabled: no role
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.first) + " " + std::to_string(c.second));
        FakePtp4l::Model model = twoPorts();
        model.ports[0].state = c.first;
        model.ports[1].state = c.second;
        OstPmcServerProbe probe(0, model, false);
        tick(probe, 2);
        EXPECT_EQ(c.after, probe.fsmState());
    }
}

// The threshold is the one of the system defaults; stability brings one resume-all that
// carries the grandmaster and the status.
TEST(StatusCycle, ASlaveBecomesStableBelowTheThresholdWithOneResumeAll) {
    for (double threshold : {300.0, 500.0}) {
        SCOPED_TRACE(threshold);
        OstPmcServerProbe::Setup setup;
        setup.board = EGRET;
        setup.threshold = threshold;
        setup.clockDriver = false;
        setup.model.offsetFromMaster = 400LL * 65536;
        OstPmcServerProbe probe(setup);
        tick(probe, 8);
        const auto published = probe.publications();
        if (threshold < 400) {
            EXPECT_EQ(PtpFsmStates::SLAVE_UNSTABLE, probe.fsmState());
            EXPECT_TRUE(published.empty());
            continue;
        }
        EXPECT_EQ(PtpFsmStates::SLAVE_STABLE, probe.fsmState());
        ASSERT_EQ(1u, published.size());
        EXPECT_EQ("1000", published[0].first);
        const Json::Value& body = published[0].second;
        EXPECT_EQ(2, body["action"].asInt());
        EXPECT_EQ(GM, body["gmid"].asString());
        EXPECT_EQ("slave-stable", body["ptp-state"].asString());
        EXPECT_EQ(400.0, body["details"]["offsetFromMaster"].asDouble());
        EXPECT_EQ("Slave", body["details"]["port"][0]["roleStatus"].asString());
    }
}

TEST(StatusCycle, AFailedCycleFeedsNothingAndTenInARowMeanNoUsablePort) {
    OstPmcServerProbe probe(8, FakePtp4l::Model(), false);
    tick(probe, 6);
    ASSERT_EQ(PtpFsmStates::SLAVE_STABLE, probe.fsmState());
    probe.publications();

    // ptp4l refuses the default data set: every cycle fails at once.
    probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedGets = {DEFAULT_DS}; });
    probe.log().clear();
    for (int cycle = 1; cycle <= 9; ++cycle) {
        EXPECT_LT(probe.tick(), 0);
    }
    EXPECT_EQ(PtpFsmStates::SLAVE_STABLE, probe.fsmState());
    EXPECT_TRUE(probe.log().containsFragment("CHK(int OstPmcServer::refreshPtpStatus())::"));
    EXPECT_TRUE(probe.log().containsFragment("CHK(int OstPmcServer::monitorPTPStatus())::"));
    EXPECT_TRUE(probe.publications().empty());
    Json::Value health = probe.request(OSTPMC_GET_INTERNAL_DEBUG_INFO)["data"]["monitor"];
    EXPECT_FALSE(health["lastCycleOk"].asBool());
    EXPECT_EQ(9, health["failedCyclesInARow"].asInt());
    EXPECT_EQ(15u, health["cycles"].asUInt());

    // The tenth: the state machine hears of no usable port and mutes, once for the outage.
    EXPECT_LT(probe.tick(), 0);
    EXPECT_EQ(PtpFsmStates::FAILURE, probe.fsmState());
    for (int cycle = 0; cycle < 5; ++cycle) {
        EXPECT_LT(probe.tick(), 0);
    }
    EXPECT_EQ(1u, probe.log().count(
                      "OSTPMC:: ptp4l has not answered for 10 status cycles: no usable PTP port"));
    const auto published = probe.publications();
    ASSERT_EQ(1u, published.size());
    EXPECT_EQ(1, published[0].second["action"].asInt());
    EXPECT_FALSE(published[0].second["details"].isMember("port"));

    // ptp4l answers again: the state machine takes over as usual.
    probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedGets.clear(); });
    tick(probe, 4);
    EXPECT_EQ(PtpFsmStates::SLAVE_STABLE, probe.fsmState());
    health = probe.request(OSTPMC_GET_INTERNAL_DEBUG_INFO)["data"]["monitor"];
    EXPECT_TRUE(health["lastCycleOk"].asBool());
    EXPECT_EQ(0, health["failedCyclesInARow"].asInt());
    EXPECT_LE(health["secondsSinceLastGoodCycle"].asInt(), 1);
}

TEST(StatusCycle, ReconciliationStopsAfterSixtyRunsUntilTheNextParameterRequest) {
    FakePtp4l::Model model;
    model.ignoredSets = {PRIORITY1};  // echoed, never shown: the push never ends by itself
    OstPmcServerProbe probe(8, model, false);
    probe.mutableCfg().priority1 = 90;
    auto pushes = [&] {
        int count = 0;
        for (const auto& id : asked(probe.ptp4l())) {
            count += id.first == PRIORITY1;
        }
        return count;
    };
    tick(probe, 70);
    EXPECT_EQ(60, pushes());
    EXPECT_EQ(60, probe.checkCount());
    ASSERT_EQ(0, probe.result(OSTPMC_SET_PTP_PARAMETER, Json::Value(Json::objectValue)));
    EXPECT_EQ(0, probe.checkCount());
    pushes();
    tick(probe, 3);
    EXPECT_EQ(3, pushes());
}

}  // namespace
