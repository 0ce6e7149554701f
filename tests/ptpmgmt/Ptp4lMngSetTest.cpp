#include <string>
#include <tuple>
#include <vector>

#include "MngFixture.h"

using Ptp4lMngSet = MngFixture;

TEST_F(Ptp4lMngSet, EveryWrapperSetsItsIdOnItsPortAndAcceptsTheEcho) {
    const struct {
        int (*call)(ptp4lMng&);
        uint16_t id;
        uint16_t port;
        uint8_t value;
    } cases[] = {
        {[](ptp4lMng& m) { return m.set_priority1(128); }, 0x2005, 0xFFFF, 128},
        {[](ptp4lMng& m) { return m.set_priority2(200); }, 0x2006, 0xFFFF, 200},
        {[](ptp4lMng& m) { return m.set_announce_interval(2, 0xFE); }, 0x2009, 2, 0xFE},
        {[](ptp4lMng& m) { return m.set_announce_receipt_timeout(1, 3); }, 0x200A, 1, 3},
        {[](ptp4lMng& m) { return m.set_sync_interval(1, 0xFD); }, 0x200B, 1, 0xFD},
        {[](ptp4lMng& m) { return m.set_parameter(0x2008, 1, 0); }, 0x2008, 0, 1},
    };
    for (size_t i = 0; i < std::size(cases); i++) {
        answer(managementReply(cases[i].id, {cases[i].value, 0}));
        EXPECT_EQ(cases[i].call(mng), 0);
        expectRequest(i, 1, cases[i].id, {cases[i].value, 0}, cases[i].port);
    }
    EXPECT_TRUE(errors().empty());

    char data[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(mng.send_set_action(0x0002, data, 6, 3), 0);
    expectRequest(std::size(cases), 1, 0x0002, {1, 2, 3, 4, 5, 6}, 3);
    EXPECT_EQ(mng.send_set_action(0x0002, data, -1, 3), -1);
    EXPECT_EQ(mng.send_set_action(0x0002, data, 1500, 3), -1);
    EXPECT_EQ(mng.send_set_action(0x0002, nullptr, 2, 3), -1);
    EXPECT_EQ(peer.requests().size(), std::size(cases) + 1);
}

TEST_F(Ptp4lMngSet, MismatchFailsAndOnlyASuccessfulSetMovesTheDomain) {
    const int before = inUse();
    answer(managementReply(0x2005, {0x80, 0x01}));  // reserved byte not 0
    answer(managementReply(0x2006, {0x7F, 0}));
    // ptp4l refuses with an error status: the managementId sits where the echo would.
    answer(errorStatusReply(0x2007, 6));
    answer(Bytes());
    EXPECT_EQ(mng.set_priority1(0x80), -1);
    EXPECT_EQ(mng.set_priority2(0x80), -1);
    EXPECT_EQ(mng.set_domain(5), -1);
    EXPECT_EQ(mng.set_domain(5), -1);
    EXPECT_EQ(inUse(), before) << "mismatching and refused replies go back to the pool";
    EXPECT_EQ(mng.ipcDomain(), 0);
    EXPECT_EQ(errors(),
              (Texts{"ptp4lMng:: Error setting parameter 180 80",
                     "ptp4lMng:: Error setting parameter 7f 80",
                     "ptp4lMng:: Error setting parameter 2007 5", "ptp4lMng:: recv message failed",
                     "ptp4lMng:: Error receiving message 8199"}));

    answer(managementReply(0x2007, {5, 0}));
    EXPECT_EQ(mng.set_domain(5), 0);
    EXPECT_EQ(mng.send_get_action(0x2005), 0);
    expectRequest(4, 1, 0x2007, {5, 0});  // the SET itself still goes to domain 0
    expectRequest(5, 0, 0x2005, {0, 0}, 0xFFFF, 5);
}

TEST_F(Ptp4lMngSet, SubscriptionRequestAndReplies) {
    Bytes mask(64, 0);
    mask[0] = 0x03;  // port state and time synchronisation events
    const std::tuple<Bytes, int, const char*> cases[] = {
        // ptp4l's own answer echoes the duration where the check expects the id.
        {managementReply(0xC003, cat({{0xFF, 0xFF}, mask})), -1, "ptp4lMng:: Unknown TLV ID 65535"},
        {managementReply(0xC003, cat({{0xC0, 0x03}, mask})), 0,
         "ptp4lMng:: Subscription success reported"},
        {errorStatusReply(0xC003, 2), -1, "ptp4lMng:: Subscription error 2 reported"},
        // Read in the device's order at offset 54.
        {response(tlv(4, {0xC0, 0x03, 0x03, 0xC0})), -1, "ptp4lMng:: Unknown TLV type 4"},
        {Bytes(), -1, "ptp4lMng:: register_for_notifications: Error receiving message"},
    };
    const int before = inUse();
    for (const auto& [reply, result, text] : cases) {
        log.clear();
        answer(reply);
        EXPECT_EQ(mng.register_for_notifications(), result) << text;
        EXPECT_TRUE(log.contains(text, Logger::ERR)) << text;
    }
    EXPECT_EQ(inUse(), before) << "every reply went back to the pool";
    expectRequest(0, 1, 0xC003, cat({{0xFF, 0xFF}, mask}));
}

TEST(Ptp4lMngLabels, PortRolesAndDelayMechanisms) {
    std::string all, out;
    for (unsigned value = 0; value <= 15; value++) {
        EXPECT_EQ(value < 12 ? ptp4lMng::getPortRoleString(value, &out)
                             : ptp4lMng::getDelayMechanismString(value - 12, &out),
                  0);
        all += out + "|";
    }
    EXPECT_EQ(all,
              "--|Initializing|Faulty|Disabled|Listening|Pre Master|Master|Passive|"
              "Uncalibrated|Slave|Grand Master|--|Auto|E2E|P2P|--|");
    EXPECT_EQ(ptp4lMng::getPortRoleString(9, nullptr), -1);
    EXPECT_EQ(ptp4lMng::getDelayMechanismString(1, nullptr), -1);
}
