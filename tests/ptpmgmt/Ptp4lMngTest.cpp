#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "MngFixture.h"

namespace {

using Ints = std::vector<long long>;
const Bytes IDENTITY = {0xEC, 0x46, 0x70, 0xFF, 0xFE, 0x0A, 0x0B, 0x0C};

// flags 3, numberPorts 2, priority1, class 248, accuracy 0xFE, variance 0xFFFF, priority2 127,
// identity, domain 24.
Bytes defaultDsData(uint8_t priority1 = 128) {
    return cat({{3, 0, 0, 2, priority1, 248, 0xFE, 0xFF, 0xFF, 127}, IDENTITY, {24, 0}});
}

// logMinDelayReqInterval -2, announce -1, receipt timeout 3, sync -3, E2E, pdelay 2, version 2.
Bytes portDsData(int64_t peerMeanPathDelay) {
    return cat({IDENTITY, be(2, 2), Bytes{6, 0xFE}, be(static_cast<uint64_t>(peerMeanPathDelay), 8),
                Bytes{0xFF, 3, 0xFD, 1, 2, 2}});
}

// One query of each way a reply is checked (the others share these paths), with the text it
// logs for a reply of another kind (both spellings are deliberate).
const struct {
    uint16_t id;
    const char* function;
    const char* unexpected;
} QUERIES[] = {
    {0xC000, "get_time_status", "Got unexpected reponse type 0x%X to get_time_status request"},
    {0x2001, "get_current_ds", "Got unexpected reponse type 0x%X to get_current_ds request"},
    {0x2004, "get_port_data_set", "Got unexpected response type 0x%X to get_port_data_set request"},
    {0x2000, "get_default_ds", "Got unexpected reponse type 0x%X to get_default_data_set request"},
};

int query(ptp4lMng& m, uint16_t id) {
    defaultDS dds;
    portDS pds;
    return id == 0xC000   ? m.get_time_status(nullptr)
           : id == 0x2001 ? m.get_current_ds(nullptr, nullptr, nullptr)
           : id == 0x2004 ? m.get_port_data_set(&pds, 1)
                          : m.get_default_ds(dds);
}

std::string unexpected(const char* fmt, unsigned value) {
    char text[160];
    snprintf(text, sizeof(text), fmt, value);
    return std::string("ptp4lMng:: ") + text;
}

}  // namespace

using Ptp4lMngQuery = MngFixture;

TEST_F(Ptp4lMngQuery, GetRequestsCarryHeaderTargetDomainAvbByteAndZeroData) {
    answer(managementReply(0x2000, defaultDsData()));
    defaultDS ds;
    ASSERT_EQ(mng.get_default_ds(ds), 0);
    expectRequest(0, 0, 0x2000, Bytes(20, 0));
    answer(managementReply(0x2004, portDsData(0)));
    portDS port;
    ASSERT_EQ(mng.get_port_data_set(&port, 2), 0);
    expectRequest(1, 0, 0x2004, Bytes(26, 0), 2);

    // CLOCK_DESCRIPTION asks with the empty description; an id without a known length with none.
    mng.setPtpIpcDomain(44);
    EXPECT_EQ(mng.send_get_action(0x0001), 0);
    expectRequest(2, 0, 0x0001, Bytes(22, 0), 0xFFFF, 44);
    EXPECT_EQ(mng.send_get_action(0x2011), 0);
    expectRequest(3, 0, 0x2011, {}, 0xFFFF, 44);
    EXPECT_EQ(errors(), Texts{"Error unsupported case 8209 in function pmc_tlv_datalen"});

    ptp_message* unknownType = mng.pmc_message(0);
    unknownType->data[0] = 0x05;
    EXPECT_EQ(mng.pmc_send(unknownType, 48), -1);
    EXPECT_TRUE(log.contains("ptp4lMng:: msg pre send error", Logger::ERR));
    msg_put(unknownType);

    EXPECT_EQ(ptp4lMng(true).send_get_action(0x2000), 0);
    EXPECT_EQ(ptp4lMng(false).send_get_action(0x2000), 0);
    expectRequest(4, 0, 0x2000, Bytes(20, 0), 0xFFFF, 0, 0x1D);
    expectRequest(5, 0, 0x2000, Bytes(20, 0));
    EXPECT_TRUE(log.contains("Creating ptp4l management interface in AVB mode", Logger::INF));
    EXPECT_TRUE(log.contains("Creating ptp4l management interface in non-AVB mode", Logger::INF));
}

TEST_F(Ptp4lMngQuery, SequenceIdWrapsAfter65536MessagesAndIsSharedByEveryClient) {
    auto next = [](ptp4lMng& m) {
        ptp_message* msg = m.pmc_message(0);
        const uint16_t seq = wire::get16(msg->data + 30);
        msg_put(msg);
        return seq;
    };
    const uint16_t start = next(mng);
    for (int i = 1; i <= 65536; i++) {  // back where it started after the wrap
        ASSERT_EQ(next(mng), static_cast<uint16_t>(start + i));
    }
    ptp4lMng other("/nonexistent/path");
    EXPECT_EQ(next(other), static_cast<uint16_t>(start + 1));
}

TEST_F(Ptp4lMngQuery, DataSetsAreReadAtTheirOffsetsAndConverted) {
    answer(managementReply(0x2000, defaultDsData()));
    answer(managementReply(0x2000, defaultDsData()));
    defaultDS ds;
    ASSERT_EQ(mng.get_default_ds(ds), 0);
    // Both forms read the same fields; each is checked where the other does not look.
    EXPECT_EQ((Ints{ds.flags, ds.numberPorts, ds.clockIdentity[0], ds.clockIdentity[7]}),
              (Ints{3, 2, 0xEC, 0x0C}));
    unsigned char domain = 0, p1 = 0, p2 = 0, cc = 0, ca = 0, gm[8] = {};
    unsigned short variance = 0;
    ASSERT_EQ(mng.get_default_ds(&domain, &p1, &p2, &cc, &ca, &variance), 0);
    EXPECT_EQ((Ints{domain, p1, p2, cc, ca, variance}), (Ints{24, 128, 127, 248, 0xFE, 0xFFFF}));

    answer(
        managementReply(0x2002, cat({Bytes(8, 0x31), Bytes{0, 1, 0, 0, 0xFF, 0xFF, 0x7F, 0xFF},
                                     Bytes{0xFF, 0xFF, 100, 6, 0x21, 0x4E, 0x5D, 101}, IDENTITY})));
    ASSERT_EQ(mng.get_parent_ds(&p1, &p2, &cc, &ca, &variance, gm), 0);
    EXPECT_EQ((Ints{p1, p2, cc, ca, variance}), (Ints{100, 101, 6, 0x21, 0x4E5D}));
    EXPECT_EQ(Bytes(gm, gm + 8), IDENTITY);

    answer(managementReply(0x2004, portDsData(0x20000)));
    answer(managementReply(0x2004, portDsData(0x20000)));
    portDS port;
    ASSERT_EQ(mng.get_port_data_set(&port, 2), 0);
    EXPECT_EQ((Ints{port.logMinDelayReqInterval, port.delayMechanism, port.versionNumber}),
              (Ints{-2, 1, 2}));
    unsigned short number = 0;
    long long delay = 0;
    signed char sync = 0, announce = 0, timeout = 0, pdelay = 0;
    ASSERT_EQ(
        mng.get_port_data_set(2, gm, &number, &delay, &sync, &announce, &timeout, &pdelay, &cc), 0);
    EXPECT_EQ((Ints{gm[0], gm[7], number, delay, sync, announce, timeout, pdelay, cc}),
              (Ints{0xEC, 0x0C, 2, 2, -3, -1, 3, 2, 6}));
    EXPECT_EQ(mng.get_port_data_set(nullptr, 1), -1) << "without a record nothing is asked";
    EXPECT_EQ(peer.requests().size(), 5u);

    // peerMeanPathDelay is shifted (towards minus infinity), the current data set divided.
    for (const auto& [scaled, ns] : {std::pair{-1LL, -1LL}, {0x10000, 1}, {-0x18000, -2}}) {
        answer(managementReply(0x2004, portDsData(scaled)));
        ASSERT_EQ(mng.get_port_data_set(&port, 1), 0);
        EXPECT_EQ(port.peerMeanPathDelay, ns) << scaled;
    }
    answer(managementReply(0x2001, cat({be(3, 2), be(0x18000, 8), be(-0x8000LL, 8)})));
    float offset = 0, meanDelay = 0;
    ASSERT_EQ(mng.get_current_ds(&number, &offset, &meanDelay), 0);
    EXPECT_EQ(number, 3);
    EXPECT_FLOAT_EQ(offset, 1.5f);
    EXPECT_FLOAT_EQ(meanDelay, -0.5f);

    const Bytes stats = cat({be(0x0102030405060708ULL, 8), Bytes(40, 0x5A)});
    answer(managementReply(0xC006, stats));
    statsResultsDS got;
    ASSERT_EQ(mng.get_stats_results_ds(got), 0);
    EXPECT_EQ(std::memcmp(&got, stats.data(), 48), 0) << "copied unchanged";
    EXPECT_TRUE(errors().empty());
}

TEST_F(Ptp4lMngQuery, TimeStatusGrandmasterIdentity) {
    answer(managementReply(0xC000, cat({Bytes(42, 0), IDENTITY})));
    unsigned char gm[8] = {};
    ASSERT_EQ(mng.get_time_status(gm), 0);
    EXPECT_EQ(Bytes(gm, gm + 8), IDENTITY);
    expectRequest(0, 0, 0xC000, Bytes(50, 0));

    // An empty answer or none clears the first byte; an answer of another kind leaves it.
    answer(managementReply(0xC000, {}));
    answer(errorStatusReply(0xC000, 6));
    answer(Bytes());
    for (uint8_t left : {0, 0xEC, 0}) {
        gm[0] = 0xEC;
        EXPECT_EQ(mng.get_time_status(gm), -1);
        EXPECT_EQ(gm[0], left);
    }
}

TEST_F(Ptp4lMngQuery, PathTraceCountAndEntries) {
    // Message offset 56 holds the byte count in the device's order, the entries follow at 58.
    const Bytes two = cat({be(0x0102030405060708ULL, 8), be(0x090A0B0C0D0E0F10ULL, 8)});
    answer(managementReply(0x2015, cat({Bytes{0xAA, 0xBB, 16, 0}, two})));
    unsigned int count = 0;
    unsigned long long ids[3] = {};
    ASSERT_EQ(mng.get_path_trace(&count, ids, 3), 0);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(Bytes(reinterpret_cast<uint8_t*>(ids), reinterpret_cast<uint8_t*>(ids + 3)),
              cat({two, Bytes(8, 0)}));
    expectRequest(0, 0, 0x2015, {});

    answer(managementReply(0x2015, cat({Bytes{0xAA, 0xBB, 32, 0}, Bytes(32, 0)})));
    EXPECT_EQ(mng.get_path_trace(&count, ids, 3), -1);
    EXPECT_EQ(count, 4u) << "written before it is checked";
    std::vector<unsigned long long> many(9000);
    answer(managementReply(0x2015, cat({Bytes{0xAA, 0xBB, 0xF8, 0xFF}, two})));  // beyond it
    EXPECT_EQ(mng.get_path_trace(&count, many.data(), 9000), -1);
    EXPECT_EQ(log.count("ptp4lMng:: Invalid number of path_trace entries"), 2u);
}

TEST_F(Ptp4lMngQuery, EveryQueryLogsItsTextsForEmptyOtherAndMissingReplies) {
    const int before = inUse();
    for (const auto& q : QUERIES) {
        SCOPED_TRACE(q.function);
        answer(managementReply(q.id, {}));    // ptp4l without the data: the id only
        answer(errorStatusReply(q.id, 6));    // NOT_SUPPORTED
        answer(managementReply(0x0000, {}));  // lengthField 2 and id 0: not empty but unexpected
        answer(Bytes());                      // an empty datagram: nothing received
        log.clear();
        for (int i = 0; i < 4; i++) {
            EXPECT_EQ(query(mng, q.id), -1);
        }
        EXPECT_EQ(errors(),
                  (Texts{"ptp4lMng:: empty-tlv", unexpected(q.unexpected, 6),
                         unexpected(q.unexpected, 0), "ptp4lMng:: recv message failed",
                         "ptp4lMng:: " + std::string(q.function) + ": Error receiving message"}));
    }
    EXPECT_EQ(inUse(), before) << "every reply went back to the pool";
}

TEST_F(Ptp4lMngQuery, RefusedDatagramsAreReceiveFailures) {
    const Bytes good = managementReply(0x2000, defaultDsData());
    const std::pair<Bytes, const char*> cases[] = {
        {managementReply(0x2000, Bytes(19, 0)), "ptp4lMng:: bad message"},   // odd length
        {cat({{0x0D, 1}, Bytes(52, 0)}), "ptp4lMng:: ignoring message"},     // version 1
        {Bytes(good.begin(), good.begin() + 40), "ptp4lMng:: bad message"},  // truncated
        {cat({{0, 2, 0, 44}, Bytes(40, 0)}), "ptp4lMng:: received SYNC without timestamp"}};
    const int before = inUse();
    for (const auto& [datagram, text] : cases) {
        log.clear();
        answer(datagram);
        defaultDS ds;
        EXPECT_EQ(mng.get_default_ds(ds), -1);
        EXPECT_EQ(errors(), (Texts{text, "ptp4lMng:: get_default_ds: Error receiving message"}));
    }
    EXPECT_EQ(inUse(), before) << "every refused reply went back to the pool";
}

TEST_F(Ptp4lMngQuery, StaleReplyIsTakenAsTheAnswerAndSilenceTimesOut) {
    // The first request is answered twice; the second takes the left-over, whatever its
    // sequenceId.
    Bytes stale = managementReply(0x2000, defaultDsData(77));
    stale[31] = 99;
    answer(managementReply(0x2000, defaultDsData()));
    answer(stale);
    defaultDS ds;
    ASSERT_EQ(mng.get_default_ds(ds), 0);
    EXPECT_EQ(ds.priority1, 128);
    ASSERT_EQ(mng.get_default_ds(ds), 0);
    EXPECT_EQ(ds.priority1, 77);

    // The one case that waits for the 2-second receive time-out; outputs stay as they were.
    EXPECT_EQ(mng.get_default_ds(ds), -1);
    EXPECT_EQ(ds.priority1, 77);
    EXPECT_EQ(errors(), (Texts{"ptp4lMng:: recv message failed",
                               "ptp4lMng:: get_default_ds: Error receiving message"}));
}
