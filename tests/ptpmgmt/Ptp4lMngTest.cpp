#include <cmath>
#include <cstring>
#include <functional>
#include <limits>

#include "MngFixture.h"

namespace {

Bytes defaultDsData() {
    // flags (slave-only, two-step), numberPorts 2, priority1 128, class 248, accuracy 0xFE,
    // variance 0xFFFF, priority2 127, identity, domain 24.
    return WireWriter()
        .u8(0x03)
        .u8(0)
        .be16(2)
        .u8(128)
        .u8(248)
        .u8(0xFE)
        .be16(0xFFFF)
        .u8(127)
        .bytes({0x00, 0x1B, 0x19, 0xFF, 0xFE, 0x00, 0x00, 0x01})
        .u8(24)
        .u8(0)
        .get();
}

Bytes portDsData(uint16_t portNumber, int64_t peerMeanPathDelay, uint8_t portState = 9) {
    return WireWriter()
        .bytes({0x00, 0x1B, 0x19, 0xFF, 0xFE, 0x00, 0x00, 0x02})
        .be16(portNumber)
        .u8(portState)
        .u8(0xFE)
        .be64(static_cast<uint64_t>(peerMeanPathDelay))
        .u8(0xFF)
        .u8(3)
        .u8(0xFD)
        .u8(1)
        .u8(0x02)
        .u8(2)
        .get();
}

Bytes currentDsData(uint16_t steps, int64_t offset, int64_t delay) {
    return WireWriter()
        .be16(steps)
        .be64(static_cast<uint64_t>(offset))
        .be64(static_cast<uint64_t>(delay))
        .get();
}

Bytes parentDsData() {
    return WireWriter()
        .fill(8, 0x31)
        .be16(1)
        .u8(0)
        .u8(0)
        .be16(0xFFFF)
        .be32(0x7FFFFFFF)
        .u8(100)
        .u8(6)
        .u8(0x21)
        .be16(0x4E5D)
        .u8(101)
        .bytes({0xEC, 0x46, 0x70, 0xFF, 0xFE, 0x0A, 0x0B, 0x0C})
        .get();
}

Bytes timeStatusData() {
    return WireWriter()
        .be64(static_cast<uint64_t>(-1234))
        .be64(5)
        .be32(6)
        .be32(static_cast<uint32_t>(-7))
        .be16(8)
        .be16(0)
        .be64(0)
        .be16(0)
        .be32(1)
        .bytes({0xEC, 0x46, 0x70, 0xFF, 0xFE, 0x0A, 0x0B, 0x0C})
        .get();
}

// One GET query, called with throw-away outputs.
struct QueryCase {
    const char* function;
    uint16_t id;
    std::function<int(ptp4lMng&)> call;
    const char* unexpectedFormat;
};

std::vector<QueryCase> allQueries() {
    return {
        {"get_time_status", 0xC000,
         [](ptp4lMng& m) {
             unsigned char id[8];
             return m.get_time_status(id);
         },
         "ptp4lMng:: Got unexpected reponse type 0x%X to get_time_status request"},
        {"get_port_data_set", 0x2004,
         [](ptp4lMng& m) {
             portDS ds;
             return m.get_port_data_set(&ds, 1);
         },
         "ptp4lMng:: Got unexpected response type 0x%X to get_port_data_set request"},
        {"get_default_ds", 0x2000,
         [](ptp4lMng& m) {
             defaultDS ds;
             return m.get_default_ds(ds);
         },
         "ptp4lMng:: Got unexpected reponse type 0x%X to get_default_data_set request"},
        {"get_parent_ds", 0x2002,
         [](ptp4lMng& m) {
             unsigned char p1, p2, cc, ca, id[8];
             unsigned short v;
             return m.get_parent_ds(&p1, &p2, &cc, &ca, &v, id);
         },
         "ptp4lMng:: Got unexpected reponse type 0x%X to get_parent_data_set request"},
        {"get_current_ds", 0x2001,
         [](ptp4lMng& m) {
             unsigned short steps;
             float offset, delay;
             return m.get_current_ds(&steps, &offset, &delay);
         },
         "ptp4lMng:: Got unexpected reponse type 0x%X to get_current_ds request"},
        {"get_path_trace", 0x2015,
         [](ptp4lMng& m) {
             unsigned int count;
             unsigned long long ids[4];
             return m.get_path_trace(&count, ids, 4);
         },
         "ptp4lMng:: Got unexpected reponse type 0x%X to get_path_trace request"},
        {"get_stats_results_ds", 0xC006,
         [](ptp4lMng& m) {
             statsResultsDS ds;
             return m.get_stats_results_ds(ds);
         },
         "ptp4lMng:: Got unexpected reponse type 0x%X to get_stats_results_ds request"},
    };
}

size_t errorLines(const LogCapture& log) {
    size_t n = 0;
    for (const LogCapture::Line& line : log.lines()) {
        n += line.level == Logger::ERR ? 1 : 0;
    }
    return n;
}

std::string format(const char* fmt, unsigned value) {
    char text[160];
    snprintf(text, sizeof(text), fmt, value);
    return text;
}

}  // namespace

using Ptp4lMngQuery = MngFixture;

// --- Requests ----------------------------------------------------------------------------------

TEST_F(Ptp4lMngQuery, GetRequestsCarryTheFullHeaderAndZeroData) {
    peer.answer(managementReply(0x2000, defaultDsData()));
    defaultDS ds;
    ASSERT_EQ(mng.get_default_ds(ds), 0);
    const Bytes first = request(0);
    expectRequest(first, 0, 0x2000, 20);
    EXPECT_EQ(WireReader(first).slice(54, 20), Bytes(20, 0));

    peer.answer(managementReply(0x2004, portDsData(2, 0)));
    portDS port;
    ASSERT_EQ(mng.get_port_data_set(&port, 2), 0);
    const Bytes second = request(1);
    expectRequest(second, 0, 0x2004, 26, 2);
    EXPECT_EQ(sequenceId(second), static_cast<uint16_t>(sequenceId(first) + 1));

    mng.setPtpIpcDomain(44);
    peer.answer(managementReply(0xC006, Bytes(48, 0)));
    statsResultsDS stats;
    ASSERT_EQ(mng.get_stats_results_ds(stats), 0);
    expectRequest(request(2), 0, 0xC006, 48, 0xFFFF, 44);
}

TEST_F(Ptp4lMngQuery, DataLengthOfEveryGet) {
    const struct {
        int id;
        int length;
    } table[] = {{0x0000, 0},  {0x2015, 0},  {0x0001, 22}, {0x0002, 2},  {0x2005, 2},  {0x2006, 2},
                 {0x2007, 2},  {0x2008, 2},  {0x2009, 2},  {0x200A, 2},  {0x200B, 2},  {0x200C, 2},
                 {0x2010, 2},  {0x2012, 2},  {0x2013, 2},  {0x6000, 2},  {0x6001, 2},  {0x2000, 20},
                 {0x2001, 18}, {0x2002, 32}, {0x2003, 4},  {0x2004, 26}, {0xC000, 50}, {0xC001, 8},
                 {0xC002, 8},  {0xC006, 48}};
    for (const auto& t : table) {
        EXPECT_EQ(mng.pmc_tlv_datalen(t.id), t.length) << std::hex << t.id;
    }
    EXPECT_TRUE(log.lines().empty());

    EXPECT_EQ(mng.pmc_tlv_datalen(0x2011), 0);
    EXPECT_TRUE(
        log.contains("Error unsupported case 8209 in function pmc_tlv_datalen", Logger::ERR));

    // An unknown id still goes out, with no data.
    EXPECT_EQ(mng.send_get_action(0x1234), 0);
    expectRequest(request(0), 0, 0x1234, 0);

    // CLOCK_DESCRIPTION asks with the empty description.
    EXPECT_EQ(mng.send_get_action(0x0001), 0);
    const Bytes cd = request(1);
    expectRequest(cd, 0, 0x0001, 22);
    EXPECT_EQ(WireReader(cd).slice(54, 22), Bytes(22, 0));

    PortIdentity target = {{1, 2, 3, 4, 5, 6, 7, 8}, 0x0102};
    EXPECT_EQ(mng.send_get_action(0x2004, &target), 0);
    const Bytes targeted = request(2);
    EXPECT_EQ(WireReader(targeted).be64(34), 0x0102030405060708ULL);
    EXPECT_EQ(WireReader(targeted).be16(42), 0x0102);
}

TEST_F(Ptp4lMngQuery, SequenceIdWrapsAfter65536Messages) {
    ptp_message* first = mng.pmc_message(0);
    ASSERT_NE(first, nullptr);
    const uint16_t start = wire::get16(first->data + 30);
    msg_put(first);
    uint16_t last = start;
    for (int i = 1; i <= 65536; i++) {
        ptp_message* m = mng.pmc_message(0);
        ASSERT_NE(m, nullptr);
        const uint16_t seq = wire::get16(m->data + 30);
        ASSERT_EQ(seq, static_cast<uint16_t>(last + 1));
        last = seq;
        msg_put(m);
    }
    EXPECT_EQ(last, start) << "65536 messages later the counter is back where it was";

    // Shared by every client of the process.
    ptp4lMng other(std::string("/nonexistent/path"));
    ptp_message* next = other.pmc_message(1);
    EXPECT_EQ(wire::get16(next->data + 30), static_cast<uint16_t>(start + 1));
    EXPECT_EQ(next->data[46], 1);
    msg_put(next);
}

TEST_F(Ptp4lMngQuery, PreSendFailureIsLogged) {
    ptp_message* m = mng.pmc_message(0);
    m->data[0] = 0x05;
    EXPECT_EQ(mng.pmc_send(m, 48), -1);
    EXPECT_TRUE(log.contains("ptp4lMng:: msg pre send error", Logger::ERR));
    msg_put(m);
}

// --- Replies -----------------------------------------------------------------------------------

TEST_F(Ptp4lMngQuery, DefaultDataSetBothForms) {
    peer.answer(managementReply(0x2000, defaultDsData()));
    peer.answer(managementReply(0x2000, defaultDsData()));

    defaultDS ds;
    ASSERT_EQ(mng.get_default_ds(ds), 0);
    EXPECT_EQ(ds.flags, 0x03);
    EXPECT_EQ(ds.numberPorts, 2);
    EXPECT_EQ(ds.priority1, 128);
    EXPECT_EQ(ds.clockQuality.clockClass, 248);
    EXPECT_EQ(ds.clockQuality.clockAccuracy, 0xFE);
    EXPECT_EQ(ds.clockQuality.offsetScaledLogVariance, 0xFFFF);
    EXPECT_EQ(ds.priority2, 127);
    EXPECT_EQ(ds.clockIdentity[1], 0x1B);
    EXPECT_EQ(ds.clockIdentity[7], 0x01);
    EXPECT_EQ(ds.domainNumber, 24);

    unsigned char domain = 0, p1 = 0, p2 = 0, cc = 0, ca = 0;
    unsigned short variance = 0;
    ASSERT_EQ(mng.get_default_ds(&domain, &p1, &p2, &cc, &ca, &variance), 0);
    EXPECT_EQ(domain, 24);
    EXPECT_EQ(p1, 128);
    EXPECT_EQ(p2, 127);
    EXPECT_EQ(cc, 248);
    EXPECT_EQ(ca, 0xFE);
    EXPECT_EQ(variance, 0xFFFF);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Ptp4lMngQuery, PeerMeanPathDelayIsShiftedToNanoseconds) {
    const struct {
        int64_t scaled;
        long long ns;
    } cases[] = {{-1, -1},
                 {0x10000, 1},
                 {0x18000, 1},
                 {-0x18000, -2},
                 {0xFFFF, 0},
                 {0, 0},
                 {std::numeric_limits<int64_t>::min(), std::numeric_limits<int64_t>::min() >> 16}};
    for (const auto& c : cases) {
        peer.answer(managementReply(0x2004, portDsData(1, c.scaled)));
        portDS ds;
        ASSERT_EQ(mng.get_port_data_set(&ds, 1), 0);
        EXPECT_EQ(ds.peerMeanPathDelay, c.ns) << c.scaled;

        peer.answer(managementReply(0x2004, portDsData(1, c.scaled)));
        long long delay = 99;
        ASSERT_EQ(mng.get_port_data_set(1, nullptr, nullptr, &delay, nullptr, nullptr, nullptr,
                                        nullptr, nullptr),
                  0);
        EXPECT_EQ(delay, c.ns) << c.scaled;
    }
}

TEST_F(Ptp4lMngQuery, PortDataSetFields) {
    peer.answer(managementReply(0x2004, portDsData(2, 0x20000, 6)));
    portDS ds;
    ASSERT_EQ(mng.get_port_data_set(&ds, 2), 0);
    EXPECT_EQ(ds.portIdentity.clockIdentity[7], 0x02);
    EXPECT_EQ(ds.portIdentity.portNumber, 2);
    EXPECT_EQ(ds.portState, 6);
    EXPECT_EQ(ds.logMinDelayReqInterval, -2);
    EXPECT_EQ(ds.peerMeanPathDelay, 2);
    EXPECT_EQ(ds.logAnnounceInterval, -1);
    EXPECT_EQ(ds.announceReceiptTimeout, 3);
    EXPECT_EQ(ds.logSyncInterval, -3);
    EXPECT_EQ(ds.delayMechanism, 1);
    EXPECT_EQ(ds.logMinPdelayReqInterval, 2);
    EXPECT_EQ(ds.versionNumber, 2);

    peer.answer(managementReply(0x2004, portDsData(2, 0x20000, 6)));
    unsigned char identity[8] = {};
    unsigned short number = 0;
    long long delay = 0;
    signed char sync = 0, announce = 0, timeout = 0, pdelay = 0;
    unsigned char state = 0;
    ASSERT_EQ(mng.get_port_data_set(2, identity, &number, &delay, &sync, &announce, &timeout,
                                    &pdelay, &state),
              0);
    EXPECT_EQ(identity[0], 0x00);
    EXPECT_EQ(identity[7], 0x02);
    EXPECT_EQ(number, 2);
    EXPECT_EQ(delay, 2);
    EXPECT_EQ(sync, -3);
    EXPECT_EQ(announce, -1);
    EXPECT_EQ(timeout, 3);
    EXPECT_EQ(pdelay, 2);
    EXPECT_EQ(state, 6);
    expectRequest(request(1), 0, 0x2004, 26, 2);

    // Without a record nothing is asked.
    EXPECT_EQ(mng.get_port_data_set(nullptr, 1), -1);
    peer.answer(managementReply(0x2004, portDsData(1, 0)));
    ASSERT_EQ(mng.get_port_data_set(&ds, 1), 0);
    EXPECT_EQ(peer.requests().size(), 3u);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(Ptp4lMngQuery, CurrentDataSetInFloatNanoseconds) {
    peer.answer(managementReply(0x2001, currentDsData(3, 0x18000, -0x8000)));
    unsigned short steps = 0;
    float offset = 0, delay = 0;
    ASSERT_EQ(mng.get_current_ds(&steps, &offset, &delay), 0);
    EXPECT_EQ(steps, 3);
    EXPECT_FLOAT_EQ(offset, 1.5f);
    EXPECT_FLOAT_EQ(delay, -0.5f);
    EXPECT_TRUE(log.contains("ptp4lMng::get_current_ds", Logger::VERBOSE));
    EXPECT_TRUE(
        log.contains("ptp4lMng::get_current_ds got response type=1 l=20 id=2001 sr=3 "
                     "off=1 (18000) meanPd=-1 (FFFFFFFFFFFF8000)",
                     Logger::VERBOSE));
}

TEST_F(Ptp4lMngQuery, ParentDataSet) {
    peer.answer(managementReply(0x2002, parentDsData()));
    unsigned char p1 = 0, p2 = 0, cc = 0, ca = 0, id[8] = {};
    unsigned short variance = 0;
    ASSERT_EQ(mng.get_parent_ds(&p1, &p2, &cc, &ca, &variance, id), 0);
    EXPECT_EQ(p1, 100);
    EXPECT_EQ(p2, 101);
    EXPECT_EQ(cc, 6);
    EXPECT_EQ(ca, 0x21);
    EXPECT_EQ(variance, 0x4E5D);
    const unsigned char expected[8] = {0xEC, 0x46, 0x70, 0xFF, 0xFE, 0x0A, 0x0B, 0x0C};
    EXPECT_EQ(std::memcmp(id, expected, 8), 0);
}

TEST_F(Ptp4lMngQuery, TimeStatus) {
    peer.answer(managementReply(0xC000, timeStatusData()));
    unsigned char gm[8] = {};
    ASSERT_EQ(mng.get_time_status(gm), 0);
    EXPECT_EQ(gm[0], 0xEC);
    EXPECT_EQ(gm[7], 0x0C);
    EXPECT_TRUE(log.contains("ptp4lMng:: Get GM ID EC 46 70 FF FE 0A 0B 0C", Logger::DBG));
    EXPECT_TRUE(log.contains("ptp4lMng:: TimeBaseInd  = 8", Logger::DBG));
    EXPECT_TRUE(log.contains("ptp4lMng:: FreqOffset   = -7", Logger::DBG));
    EXPECT_TRUE(log.contains("ptp4lMng:: MasterOffset = -1234", Logger::DBG));
    expectRequest(request(0), 0, 0xC000, 50);

    // An empty answer clears the first byte; an answer of another kind leaves it.
    peer.answer(managementReply(0xC000, {}));
    EXPECT_EQ(mng.get_time_status(gm), -1);
    EXPECT_EQ(gm[0], 0);
    gm[0] = 0xEC;
    peer.answer(errorStatusReply(0xC000, 6));
    EXPECT_EQ(mng.get_time_status(gm), -1);
    EXPECT_EQ(gm[0], 0xEC);
    peer.answer(Bytes());
    EXPECT_EQ(mng.get_time_status(gm), -1);
    EXPECT_EQ(gm[0], 0) << "receive failure";
}

TEST_F(Ptp4lMngQuery, PathTraceReadsCountAndEntriesAtTheirAgreedOffsets) {
    // Message offset 56 holds the byte count in the device's order, the entries follow at 58.
    auto reply = [](uint16_t byteCount, int entries) {
        Bytes data = {0xAA, 0xBB};
        data.push_back(static_cast<uint8_t>(byteCount & 0xFF));
        data.push_back(static_cast<uint8_t>(byteCount >> 8));
        for (int i = 0; i < entries * 8; i++) {
            data.push_back(static_cast<uint8_t>(i + 1));
        }
        return managementReply(0x2015, data);
    };
    peer.answer(reply(16, 2));
    unsigned int count = 0;
    unsigned long long ids[3] = {};
    ASSERT_EQ(mng.get_path_trace(&count, ids, 3), 0);
    EXPECT_EQ(count, 2u);
    unsigned long long expected[2];
    const uint8_t raw[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    std::memcpy(expected, raw, sizeof(raw));
    EXPECT_EQ(ids[0], expected[0]);
    EXPECT_EQ(ids[1], expected[1]);
    EXPECT_EQ(ids[2], 0u);
    expectRequest(request(0), 0, 0x2015, 0);

    peer.answer(reply(32, 4));
    count = 0;
    EXPECT_EQ(mng.get_path_trace(&count, ids, 3), -1);
    EXPECT_EQ(count, 4u) << "written before it is checked";
    EXPECT_TRUE(log.contains("ptp4lMng:: Invalid number of path_trace entries", Logger::ERR));

    // A count beyond the message itself is refused as well.
    log.clear();
    peer.answer(reply(0xFFF8, 2));
    std::vector<unsigned long long> many(9000);
    EXPECT_EQ(mng.get_path_trace(&count, many.data(), 9000), -1);
    EXPECT_TRUE(log.contains("ptp4lMng:: Invalid number of path_trace entries", Logger::ERR));
}

TEST_F(Ptp4lMngQuery, StatisticsAreCopiedUnchanged) {
    statsResultsDS sent = {12.5, -300.0, 1e-3, 2.25, 4.0e6, -0.0};
    Bytes data(48);
    std::memcpy(data.data(), &sent, 48);
    peer.answer(managementReply(0xC006, data));
    statsResultsDS got = {};
    ASSERT_EQ(mng.get_stats_results_ds(got), 0);
    EXPECT_EQ(std::memcmp(&got, &sent, 48), 0);
    EXPECT_EQ(got.masterOffsetRMS, 12.5);
    EXPECT_EQ(got.pathDelayMean, 4.0e6);

    // ptp4l without the statistics extension answers with the id only.
    peer.answer(managementReply(0xC006, {}));
    EXPECT_EQ(mng.get_stats_results_ds(got), -1);
    EXPECT_TRUE(log.contains("ptp4lMng:: empty-tlv", Logger::ERR));
}

// --- Reply handling shared by every query ------------------------------------------------------

TEST_F(Ptp4lMngQuery, EveryQueryHandlesEmptyErrorAndMissingReplies) {
    for (const QueryCase& q : allQueries()) {
        SCOPED_TRACE(q.function);

        log.clear();
        peer.answer(managementReply(q.id, {}));
        EXPECT_EQ(q.call(mng), -1);
        EXPECT_TRUE(log.contains("ptp4lMng:: empty-tlv", Logger::ERR));

        log.clear();
        peer.answer(errorStatusReply(q.id, 6));
        EXPECT_EQ(q.call(mng), -1);
        EXPECT_TRUE(log.contains(format(q.unexpectedFormat, 6), Logger::ERR));

        log.clear();
        peer.answer(managementReply(0x0000, {}));
        EXPECT_EQ(q.call(mng), -1);
        EXPECT_TRUE(log.contains(format(q.unexpectedFormat, 0), Logger::ERR))
            << "lengthField 2 with id 0 is not empty but unexpected";

        log.clear();
        peer.answer(managementReply(0x2003, WireWriter().be16(37).u8(0).u8(0).get()));
        EXPECT_EQ(q.call(mng), -1);
        EXPECT_TRUE(log.contains(format(q.unexpectedFormat, 0x2003), Logger::ERR));

        log.clear();
        peer.answer(Bytes());  // an empty datagram: nothing received
        EXPECT_EQ(q.call(mng), -1);
        EXPECT_TRUE(log.contains("ptp4lMng:: recv message failed", Logger::ERR));
        EXPECT_TRUE(log.contains(
            std::string("ptp4lMng:: ") + q.function + ": Error receiving message", Logger::ERR));
        EXPECT_EQ(errorLines(log), 2u);
    }
}

TEST_F(Ptp4lMngQuery, RefusedDatagramsAreReceiveFailures) {
    ManagementDatagram odd;
    odd.id = 0x2000;
    odd.data = Bytes(19, 0);
    Bytes version1 = managementReply(0x2000, defaultDsData());
    version1[1] = 1;
    Bytes truncated = managementReply(0x2000, defaultDsData());
    truncated.resize(40);
    Bytes cutTlv = managementReply(0x2000, defaultDsData());
    cutTlv.resize(cutTlv.size() - 4);
    Bytes sync = WireWriter().u8(0x00).u8(2).be16(44).fill(40, 0).get();
    Bytes unknownType = managementReply(0x2000, defaultDsData());
    unknownType[0] = 0x07;

    const struct {
        Bytes datagram;
        const char* text;
    } cases[] = {{odd.bytes(), "ptp4lMng:: bad message"},
                 {version1, "ptp4lMng:: ignoring message"},
                 {truncated, "ptp4lMng:: bad message"},
                 {cutTlv, "ptp4lMng:: bad message"},
                 {sync, "ptp4lMng:: received SYNC without timestamp"},
                 {unknownType, "ptp4lMng:: bad message"}};
    const msg_pool_counters before = msg_pool_stats();
    for (const auto& c : cases) {
        log.clear();
        peer.answer(c.datagram);
        defaultDS ds;
        EXPECT_EQ(mng.get_default_ds(ds), -1) << c.text;
        EXPECT_TRUE(log.contains(c.text, Logger::ERR)) << c.text;
        EXPECT_TRUE(log.contains("ptp4lMng:: get_default_ds: Error receiving message")) << c.text;
    }
    const msg_pool_counters after = msg_pool_stats();
    EXPECT_EQ(after.allocated - after.pooled, before.allocated - before.pooled)
        << "every refused reply went back to the pool";
}

TEST_F(Ptp4lMngQuery, StaleReplyIsTakenAsTheAnswer) {
    // The first request gets two answers; the second request gets none and takes the left-over.
    ManagementDatagram second;
    second.id = 0x2000;
    second.data = defaultDsData();
    second.data[4] = 77;  // priority1
    second.sequenceId = 999;
    peer.answer({managementReply(0x2000, defaultDsData()), second.bytes()});
    peer.answerNothing();
    defaultDS ds;
    ASSERT_EQ(mng.get_default_ds(ds), 0);
    EXPECT_EQ(ds.priority1, 128);
    ASSERT_EQ(mng.get_default_ds(ds), 0);
    EXPECT_EQ(ds.priority1, 77);

    // A left-over of another kind fails the next query.
    peer.answer(
        {managementReply(0x2004, portDsData(1, 0)), managementReply(0x2004, portDsData(2, 0))});
    peer.answerNothing();
    portDS port;
    ASSERT_EQ(mng.get_port_data_set(&port, 1), 0);
    log.clear();
    EXPECT_EQ(mng.get_default_ds(ds), -1);
    EXPECT_TRUE(log.contains(
        "ptp4lMng:: Got unexpected reponse type 0x2004 to get_default_data_set request",
        Logger::ERR));
}

TEST_F(Ptp4lMngQuery, ReceiveKeepsTheSenderPath) {
    peer.answer(managementReply(0x2005, {128, 0}));
    ASSERT_EQ(mng.send_get_action(0x2005), 0);
    ptp_message* reply = mng.pmc_recv();
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::string(reply->address), peer.path());
    EXPECT_EQ(reply->hwts_kind, HWTS_SOFTWARE);
    EXPECT_EQ(reply->tlv_count, 1);
    msg_put(reply);
}

TEST_F(Ptp4lMngQuery, UnansweredQueryFailsAfterTheReceiveTimeout) {
    defaultDS ds;
    ds.priority1 = 42;
    EXPECT_EQ(mng.get_default_ds(ds), -1);
    EXPECT_EQ(ds.priority1, 42) << "outputs are written only on success";
    EXPECT_TRUE(log.contains("ptp4lMng:: recv message failed", Logger::ERR));
    EXPECT_TRUE(log.contains("ptp4lMng:: get_default_ds: Error receiving message", Logger::ERR));
    EXPECT_EQ(errorLines(log), 2u);
}
