// The status cycle, driven tick by tick in-process against a fake ptp4l: what is asked, what the
// status records and the state machine make of the answers, and how the cycle recovers.
#include <gtest/gtest.h>

#include <cmath>

#include "OstPmcCommands.h"
#include "OstPmcServerProbe.h"

namespace {

using Ids = std::vector<std::pair<uint16_t, uint16_t>>;  // managementId, target port
constexpr uint16_t DEFAULT_DS = 0x2000, CURRENT_DS = 0x2001, PARENT_DS = 0x2002, PORT_DS = 0x2004,
                   PRIORITY1 = 0x2005, STATS = 0xC006;
constexpr uint16_t ALL = 0xFFFF;

Ids asked(FakePtp4l& ptp4l) {
    Ids ids;
    for (const FakePtp4l::Request& r : ptp4l.requests()) {
        ids.emplace_back(r.id, r.targetPort);
    }
    ptp4l.clearRequests();
    return ids;
}

FakePtp4l::Model twoPorts() {
    FakePtp4l::Model model;
    model.ports.resize(2);
    model.ports[1].number = 2;
    model.ports[1].state = 6;  // MASTER
    return model;
}

TEST(StatusCycle, QueriesFollowTheBoardAndStatisticsEveryFourthTick) {
    const Ids clockAndOnePort = {
        {DEFAULT_DS, ALL}, {PORT_DS, 1}, {PARENT_DS, ALL}, {CURRENT_DS, ALL}};
    const Ids clockAndTwoPorts = {
        {DEFAULT_DS, ALL}, {PORT_DS, 1}, {PORT_DS, 2}, {PARENT_DS, ALL}, {CURRENT_DS, ALL}};
    const struct {
        int board;
        bool redundancy;
        bool secondPort;
        bool stats;
    } boards[] = {{3, false, true, true},   {9, false, true, true},   {0, false, true, false},
                  {12, false, true, false}, {4, false, false, false}, {5, true, true, false},
                  {8, false, false, false}, {2, false, false, false}, {16, false, false, false}};
    for (const auto& b : boards) {
        SCOPED_TRACE(b.board);
        OstPmcServerProbe::Setup setup;
        setup.board = b.board;
        setup.redundancy = b.redundancy;
        setup.clockDriver = false;
        setup.model = twoPorts();
        OstPmcServerProbe probe(setup);
        for (int tick = 1; tick <= 8; ++tick) {
            ASSERT_EQ(0, probe.tick());
            Ids expected = b.secondPort ? clockAndTwoPorts : clockAndOnePort;
            if (b.stats && tick % 4 == 0) {
                expected.emplace_back(STATS, ALL);
            }
            EXPECT_EQ(expected, asked(probe.ptp4l())) << "tick " << tick;
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
    for (int tick = 0; tick < 4; ++tick) {
        ASSERT_EQ(0, probe.tick());
    }

    const Json::Value info = probe.request(OSTPMC_GET_PTP_INFO)["data"];
    EXPECT_EQ("02-11-22-ff-fe-33-44-55", info["local"]["id"].asString());
    EXPECT_EQ("0a-0b-0c-ff-fe-0d-0e-0f", info["grandMaster"]["id"].asString());
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
    EXPECT_EQ(3, stats.masterOffsetRMS);
    EXPECT_EQ(-3, stats.masterOffsetMaxAbs);
    EXPECT_EQ(2, stats.freqDeviationMean);
    EXPECT_EQ(-2, stats.freqDeviationStdDev);
    EXPECT_EQ(0, stats.pathDelayMean);
    EXPECT_EQ(-1500.0f, stats.offsetFromMaster);
}

TEST(StatusCycle, PortRolesDriveTheStateMachine) {
    // Port states of a two-port board and the summary they make.
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
        FakePtp4l::Model model = twoPorts();
        model.ports[0].state = c.first;
        model.ports[1].state = c.second;
        OstPmcServerProbe probe(0, model, false);
        ASSERT_EQ(0, probe.tick());
        EXPECT_EQ(PtpFsmStates::FAILURE, probe.fsmState()) << "the first step always";
        ASSERT_EQ(0, probe.tick());
        EXPECT_EQ(c.after, probe.fsmState()) << int(c.first) << " " << int(c.second);
    }
}

TEST(StatusCycle, ASlaveBecomesStableWithOneResumeAllCarryingTheGrandmaster) {
    FakePtp4l::Model model;
    model.offsetFromMaster = 400LL * 65536;
    OstPmcServerProbe probe(8, model, false);
    for (int tick = 0; tick < 6; ++tick) {
        ASSERT_EQ(0, probe.tick());
    }
    EXPECT_EQ(PtpFsmStates::SLAVE_STABLE, probe.fsmState());
    const auto published = probe.publications();
    ASSERT_EQ(1u, published.size());
    EXPECT_EQ("1000", published[0].first);
    const Json::Value& body = published[0].second;
    EXPECT_EQ(2, body["action"].asInt());
    EXPECT_EQ("0a-0b-0c-ff-fe-0d-0e-0f", body["gmid"].asString());
    EXPECT_EQ("slave-stable", body["ptp-state"].asString());
    EXPECT_EQ(400.0, body["details"]["offsetFromMaster"].asDouble());
    EXPECT_EQ("Slave", body["details"]["port"][0]["roleStatus"].asString());
}

TEST(StatusCycle, TheThresholdComesFromTheSystemDefaults) {
    for (double threshold : {300.0, 500.0}) {
        OstPmcServerProbe::Setup setup;
        setup.board = EGRET;
        setup.threshold = threshold;
        setup.clockDriver = false;
        setup.model.offsetFromMaster = 400LL * 65536;
        OstPmcServerProbe probe(setup);
        for (int tick = 0; tick < 8; ++tick) {
            ASSERT_EQ(0, probe.tick());
        }
        EXPECT_EQ(threshold > 400 ? PtpFsmStates::SLAVE_STABLE : PtpFsmStates::SLAVE_UNSTABLE,
                  probe.fsmState())
            << "an offset of 400 ns against " << threshold;
    }
}

TEST(StatusCycle, AFailedCycleFeedsNothingAndTenInARowMeanNoUsablePort) {
    OstPmcServerProbe probe(8, FakePtp4l::Model(), false);
    for (int tick = 0; tick < 6; ++tick) {
        ASSERT_EQ(0, probe.tick());
    }
    ASSERT_EQ(PtpFsmStates::SLAVE_STABLE, probe.fsmState());
    probe.publications();

    // ptp4l refuses the default data set: every cycle fails at once.
    probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedGets = {DEFAULT_DS}; });
    probe.log().clear();
    for (int tick = 1; tick <= 9; ++tick) {
        EXPECT_LT(probe.tick(), 0);
        EXPECT_EQ(PtpFsmStates::SLAVE_STABLE, probe.fsmState()) << "tick " << tick;
    }
    EXPECT_TRUE(probe.log().containsFragment("CHK(int OstPmcServer::refreshPtpStatus())::"));
    EXPECT_TRUE(probe.log().containsFragment("CHK(int OstPmcServer::monitorPTPStatus())::"));
    EXPECT_TRUE(probe.publications().empty());
    Json::Value health = probe.request(OSTPMC_GET_INTERNAL_DEBUG_INFO)["data"]["monitor"];
    EXPECT_FALSE(health["lastCycleOk"].asBool());
    EXPECT_EQ(9, health["failedCyclesInARow"].asInt());
    EXPECT_EQ(15u, health["cycles"].asUInt());

    // The tenth: the state machine hears of no usable port and mutes, once.
    EXPECT_LT(probe.tick(), 0);
    EXPECT_EQ(PtpFsmStates::FAILURE, probe.fsmState());
    EXPECT_EQ(1u, probe.log().count(
                      "OSTPMC:: ptp4l has not answered for 10 status cycles: no usable PTP port"));
    auto published = probe.publications();
    ASSERT_EQ(1u, published.size());
    EXPECT_EQ(1, published[0].second["action"].asInt());
    EXPECT_FALSE(published[0].second["details"].isMember("port"));
    for (int tick = 0; tick < 5; ++tick) {
        EXPECT_LT(probe.tick(), 0);
    }
    EXPECT_TRUE(probe.publications().empty());

    // ptp4l answers again: the table takes over as usual.
    probe.ptp4l().update([](FakePtp4l::Model& m) { m.refusedGets.clear(); });
    for (int tick = 0; tick < 4; ++tick) {
        ASSERT_EQ(0, probe.tick());
    }
    EXPECT_EQ(PtpFsmStates::SLAVE_STABLE, probe.fsmState());
    health = probe.request(OSTPMC_GET_INTERNAL_DEBUG_INFO)["data"]["monitor"];
    EXPECT_TRUE(health["lastCycleOk"].asBool());
    EXPECT_EQ(0, health["failedCyclesInARow"].asInt());
    EXPECT_LE(health["secondsSinceLastGoodCycle"].asInt(), 1);
}

TEST(StatusCycle, LateRepliesAreDroppedBeforeEachCycle) {
    OstPmcServerProbe probe(8, FakePtp4l::Model(), false);
    // Replies to an earlier cycle's queries, answered after their requests had timed out.
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(probe.ptp4l().sendTo(probe.clientPath(),
                                         response(mgmtTlv(PARENT_DS, Bytes(32, 0x77)))));
    }
    ASSERT_EQ(0, probe.tick());
    EXPECT_EQ("02-11-22-ff-fe-33-44-55", probe.status().local.id);
    EXPECT_EQ("0a-0b-0c-ff-fe-0d-0e-0f", probe.status().grandMaster.id);
}

TEST(StatusCycle, ReconciliationStopsAfterSixtyRunsUntilTheNextParameterRequest) {
    FakePtp4l::Model model;
    model.ignoredSets = {PRIORITY1};  // echoed, never shown: the push never ends by itself
    OstPmcServerProbe probe(8, model, false);
    probe.mutableCfg().priority1 = 90;
    auto pushes = [&] {
        int count = 0;
        for (const FakePtp4l::Request& r : probe.ptp4l().requests()) {
            count += r.id == PRIORITY1 && r.action == 1;
        }
        probe.ptp4l().clearRequests();
        return count;
    };
    for (int tick = 0; tick < 70; ++tick) {
        ASSERT_EQ(0, probe.tick());
    }
    EXPECT_EQ(60, pushes());
    EXPECT_EQ(60, probe.checkCount());
    ASSERT_EQ(0, probe.result(OSTPMC_SET_PTP_PARAMETER, Json::Value(Json::objectValue)));
    EXPECT_EQ(0, probe.checkCount());
    pushes();
    for (int tick = 0; tick < 3; ++tick) {
        ASSERT_EQ(0, probe.tick());
    }
    EXPECT_EQ(3, pushes());
}

}  // namespace
