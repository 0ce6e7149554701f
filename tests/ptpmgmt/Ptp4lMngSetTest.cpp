#include <functional>

#include "MngFixture.h"

namespace {

Bytes echo(uint16_t id, uint8_t value, uint8_t reserved = 0) {
    return managementReply(id, {value, reserved});
}

int inUse() {
    const msg_pool_counters c = msg_pool_stats();
    return c.allocated - c.pooled;
}

}  // namespace

using Ptp4lMngSet = MngFixture;

TEST_F(Ptp4lMngSet, Priority1IsSetClockWideAndEchoed) {
    peer.answer(echo(0x2005, 0x80));
    EXPECT_EQ(mng.set_priority1(128), 0);
    const Bytes req = request(0);
    expectRequest(req, 1, 0x2005, 2);
    EXPECT_EQ(WireReader(req).slice(54, 2), (Bytes{0x80, 0x00}));
    EXPECT_TRUE(log.contains("ptp4lMng:: Awaiting TLV 2005 response", Logger::DBG));
    EXPECT_TRUE(log.contains("ptp4lMng:: Got response", Logger::DBG));
    EXPECT_FALSE(log.containsFragment("Error"));
}

TEST_F(Ptp4lMngSet, EveryWrapperSendsItsIdToItsPort) {
    const struct {
        std::function<int(ptp4lMng&)> call;
        uint16_t id;
        uint16_t port;
        uint8_t value;
    } cases[] = {
        {[](ptp4lMng& m) { return m.set_priority1(1); }, 0x2005, 0xFFFF, 1},
        {[](ptp4lMng& m) { return m.set_priority2(200); }, 0x2006, 0xFFFF, 200},
        {[](ptp4lMng& m) { return m.set_domain(0); }, 0x2007, 0xFFFF, 0},
        {[](ptp4lMng& m) { return m.set_announce_interval(2, 0xFE); }, 0x2009, 2, 0xFE},
        {[](ptp4lMng& m) { return m.set_announce_receipt_timeout(1, 3); }, 0x200A, 1, 3},
        {[](ptp4lMng& m) { return m.set_sync_interval(1, 0xFD); }, 0x200B, 1, 0xFD},
        {[](ptp4lMng& m) { return m.set_parameter(0x2008, 1, 0); }, 0x2008, 0, 1},
    };
    size_t n = 0;
    for (const auto& c : cases) {
        peer.answer(echo(c.id, c.value));
        EXPECT_EQ(c.call(mng), 0) << std::hex << c.id;
        const Bytes req = request(n++);
        expectRequest(req, 1, c.id, 2, c.port);
        EXPECT_EQ(WireReader(req).slice(54, 2), (Bytes{c.value, 0x00})) << std::hex << c.id;
    }
}

TEST_F(Ptp4lMngSet, MismatchFailsAndKeepsTheReply) {
    const int before = inUse();

    peer.answer(echo(0x2005, 0x80, 0x01));
    EXPECT_EQ(mng.set_priority1(128), -1) << "reserved byte must be 0";
    EXPECT_TRUE(log.contains("ptp4lMng:: Error setting parameter 180 80", Logger::ERR));
    EXPECT_EQ(inUse(), before + 1) << "the mismatching reply stays allocated";

    peer.answer(echo(0x2006, 0x7F));
    EXPECT_EQ(mng.set_priority2(128), -1);
    EXPECT_TRUE(log.contains("ptp4lMng:: Error setting parameter 7f 80", Logger::ERR));

    // ptp4l refuses SET DOMAIN with NOT_SUPPORTED: the managementId sits where the echo would.
    peer.answer(errorStatusReply(0x2007, 6));
    EXPECT_EQ(mng.set_domain(5), -1);
    EXPECT_TRUE(log.contains("ptp4lMng:: Error setting parameter 2007 5", Logger::ERR));

    // The reply is not matched to the request: an echo of another id is taken.
    log.clear();
    peer.answer(echo(0x2006, 0x10));
    EXPECT_EQ(mng.set_priority1(0x10), 0);
    EXPECT_TRUE(log.lines().size() == 2u);
}

TEST_F(Ptp4lMngSet, ReceiveFailureNamesTheIdInDecimal) {
    peer.answer(Bytes());
    EXPECT_EQ(mng.set_domain(5), -1);
    EXPECT_TRUE(log.contains("ptp4lMng:: recv message failed", Logger::ERR));
    EXPECT_TRUE(log.contains("ptp4lMng:: Error receiving message 8199", Logger::ERR));
    EXPECT_EQ(mng.ipcDomain(), 0);
}

TEST_F(Ptp4lMngSet, DomainFollowsOnlyASuccessfulSet) {
    peer.answer(errorStatusReply(0x2007, 6));
    EXPECT_EQ(mng.set_domain(5), -1);
    EXPECT_EQ(mng.ipcDomain(), 0);
    EXPECT_EQ(mng.send_get_action(0x2000), 0);
    EXPECT_EQ(WireReader(request(1)).u8(4), 0);

    peer.answer(echo(0x2007, 5));
    EXPECT_EQ(mng.set_domain(5), 0);
    EXPECT_EQ(mng.ipcDomain(), 5);
    EXPECT_EQ(WireReader(request(2)).u8(4), 0) << "the SET itself still goes to domain 0";
    EXPECT_EQ(mng.send_get_action(0x2000), 0);
    EXPECT_EQ(WireReader(request(3)).u8(4), 5);

    EXPECT_EQ(mng.setPtpIpcDomain(127), 0);
    EXPECT_EQ(mng.send_get_action(0x2000), 0);
    EXPECT_EQ(WireReader(request(4)).u8(4), 127);
}

TEST_F(Ptp4lMngSet, SetActionCopiesTheData) {
    char data[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(mng.send_set_action(0x0002, data, 6, 3), 0);
    const Bytes req = request(0);
    expectRequest(req, 1, 0x0002, 6, 3);
    EXPECT_EQ(WireReader(req).slice(54, 6), (Bytes{1, 2, 3, 4, 5, 6}));

    EXPECT_EQ(mng.send_set_action(0x0002, data, -1, 3), -1);
    EXPECT_EQ(mng.send_set_action(0x0002, data, 1500, 3), -1);
    EXPECT_EQ(mng.send_set_action(0x0002, nullptr, 2, 3), -1);
}

// --- Event subscription ------------------------------------------------------------------------

TEST_F(Ptp4lMngSet, SubscriptionRequest) {
    peer.answer(errorStatusReply(0xC003, 6));
    EXPECT_EQ(mng.register_for_notifications(), -1);
    const Bytes req = request(0);
    expectRequest(req, 1, 0xC003, 66);
    WireReader r(req);
    EXPECT_EQ(r.be16(54), 0xFFFF) << "duration";
    EXPECT_EQ(r.u8(56), 0x03) << "port state and time synchronisation events";
    EXPECT_EQ(r.slice(57, 63), Bytes(63, 0));
    EXPECT_TRUE(log.contains("ptp4lMng:: Sending TLV_SUBSCRIBE_EVENTS_NP", Logger::DBG));
    EXPECT_TRUE(log.contains("ptp4lMng:: Awaiting TLV_SUBSCRIBE_EVENTS_NP response", Logger::DBG));
    EXPECT_TRUE(log.contains("ptp4lMng:: Got response", Logger::DBG));
    EXPECT_TRUE(log.contains("ptp4lMng:: Subscription error 6 reported", Logger::ERR));
}

TEST_F(Ptp4lMngSet, SubscriptionReplies) {
    Bytes mask(64, 0);
    mask[0] = 0x03;
    ManagementDatagram unknownType;
    unknownType.tlvType = 4;
    unknownType.id = 0xC003;
    unknownType.data = {0x03, 0xC0};  // read in the device's order at offset 54

    const struct {
        Bytes reply;
        int result;
        const char* text;
    } cases[] = {
        // ptp4l's answer echoes the duration where the check expects the id.
        {managementReply(0xC003, WireWriter().be16(0xFFFF).bytes(mask).get()), -1,
         "ptp4lMng:: Unknown TLV ID 65535"},
        {managementReply(0xC003, WireWriter().be16(0xC003).bytes(mask).get()), 0,
         "ptp4lMng:: Subscription success reported"},
        {errorStatusReply(0xC003, 2), -1, "ptp4lMng:: Subscription error 2 reported"},
        {errorStatusReply(0x2000, 2), -1, "ptp4lMng:: Unknown TLV ID 8192"},
        {unknownType.bytes(), -1, "ptp4lMng:: Unknown TLV type 4"},
        {Bytes(), -1, "ptp4lMng:: register_for_notifications: Error receiving message"},
    };
    const int before = inUse();
    for (const auto& c : cases) {
        log.clear();
        peer.answer(c.reply);
        EXPECT_EQ(mng.register_for_notifications(), c.result) << c.text;
        EXPECT_TRUE(log.contains(c.text, Logger::ERR)) << c.text;
    }
    EXPECT_EQ(inUse(), before) << "every reply went back to the pool";
}

// --- Labels ------------------------------------------------------------------------------------

TEST(Ptp4lMngLabels, PortRoles) {
    const char* const expected[] = {"--",           "Initializing", "Faulty",       "Disabled",
                                    "Listening",    "Pre Master",   "Master",       "Passive",
                                    "Uncalibrated", "Slave",        "Grand Master", "--"};
    for (unsigned state = 0; state < 12; state++) {
        std::string out = "stale";
        EXPECT_EQ(ptp4lMng::getPortRoleString(static_cast<unsigned char>(state), &out), 0);
        EXPECT_EQ(out, expected[state]) << state;
    }
    std::string out;
    EXPECT_EQ(ptp4lMng::getPortRoleString(255, &out), 0);
    EXPECT_EQ(out, "--");
    EXPECT_EQ(ptp4lMng::getPortRoleString(9, nullptr), -1);
}

TEST(Ptp4lMngLabels, DelayMechanisms) {
    const struct {
        unsigned char value;
        const char* label;
    } cases[] = {{0, "Auto"}, {1, "E2E"}, {2, "P2P"}, {3, "--"}, {0xFE, "--"}};
    for (const auto& c : cases) {
        std::string out = "stale";
        EXPECT_EQ(ptp4lMng::getDelayMechanismString(c.value, &out), 0);
        EXPECT_EQ(out, c.label);
    }
    EXPECT_EQ(ptp4lMng::getDelayMechanismString(1, nullptr), -1);
}

// --- Construction ------------------------------------------------------------------------------

TEST(Ptp4lMngConstruction, ModesAndServerPaths) {
    ScriptedPeer peer(SysRoot::path("/var/run/ptp4l"));
    {
        LogCapture log;
        ptp4lMng avb(true);
        EXPECT_TRUE(log.contains("Creating ptp4l management interface in AVB mode", Logger::INF));
        EXPECT_EQ(avb.serverPath(), SysRoot::path("/var/run/ptp4l"));
        EXPECT_TRUE(avb.avbMode());
        EXPECT_EQ(avb.ipcDomain(), 0);
        EXPECT_EQ(avb.send_get_action(0x2000), 0);
        ASSERT_TRUE(peer.waitForRequests(1));
        EXPECT_EQ(peer.lastRequest().at(0), 0x1D);
    }
    {
        LogCapture log;
        ptp4lMng plain(false);
        EXPECT_TRUE(
            log.contains("Creating ptp4l management interface in non-AVB mode", Logger::INF));
        EXPECT_EQ(plain.send_get_action(0x2000), 0);
        ASSERT_TRUE(peer.waitForRequests(2));
        EXPECT_EQ(peer.lastRequest().at(0), 0x0D);
    }
    {
        LogCapture log;
        ptp4lMng literal("/some/where");
        EXPECT_EQ(literal.serverPath(), "/some/where");
        EXPECT_FALSE(literal.avbMode());
        EXPECT_TRUE(log.lines().empty()) << "no log line for an explicit server path";
    }
}
