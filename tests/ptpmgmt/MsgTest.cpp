#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#include "WireBytes.h"
#include "msg.h"

namespace {

struct MsgPut {
    void operator()(ptp_message* m) const { msg_put(m); }
};
using MsgPtr = std::unique_ptr<ptp_message, MsgPut>;

int postRecv(const Bytes& datagram, MsgPtr* out = nullptr) {
    MsgPtr m(msg_allocate());
    std::copy(datagram.begin(), datagram.end(), m->data);
    const int err = msg_post_recv(m.get(), static_cast<int>(datagram.size()));
    if (out) {
        *out = std::move(m);
    }
    return err;
}

uint16_t h16(const MsgPtr& m, int off) {
    return wire::get16(m->data + off);
}

// A datagram of the given type and size with a valid version-2 header.
Bytes headerOnly(uint8_t type, size_t size) {
    return cat({{type, 2}, be(size, 2), Bytes(size - 4, 0)});
}

// Statistics: six doubles as the device stores them; any swap would show.
const Bytes STATS =
    cat({be(0x0102030405060708ULL, 8), be(0x1112131415161718ULL, 8), Bytes(32, 0x5A)});

// The management data of fixed size, with the length each must have.
const std::pair<uint16_t, size_t> FIXED[] = {{0x2000, 20}, {0x2001, 18}, {0x2002, 32}, {0x2003, 4},
                                             {0x2004, 26}, {0xC000, 50}, {0xC001, 8},  {0xC002, 8},
                                             {0xC003, 66}, {0xC006, 48}};

// IEEE 1588-2008 15.5.3.1.2, physical layer "x", product "ost"; the two address lengths add
// up to an even number so that no pad byte is needed.
Bytes clockDescription(uint8_t physicalLength, uint8_t addressLength) {
    return cat({Bytes{0x80, 0, 1, 'x', 0, physicalLength}, Bytes(physicalLength, 0xAB),
                Bytes{0, 1, 0, addressLength}, Bytes(addressLength, 0xCD),
                Bytes{0x00, 0x1B, 0x19, 0x00, 3, 'o', 's', 't', 0, 0, 1, 2, 3, 4, 5, 6}});
}

// A host-order message of the type with distinctive values in every converted field.
MsgPtr hostMessage(uint8_t type, int length) {
    MsgPtr m(msg_allocate());
    unsigned char* d = m->data;
    for (int i = 34; i < length; i++) {
        d[i] = static_cast<unsigned char>(i);
    }
    d[0] = type;
    d[1] = 2;
    wire::put16(d + 2, static_cast<uint16_t>(length));
    wire::put64(d + 8, 0x0102030405060708ULL);
    wire::put16(d + 28, 0x0A0B);
    wire::put16(d + 30, 0xBEEF);
    return m;
}

// A host-order management message with one TLV of the given data length.
MsgPtr hostManagement(uint16_t id, size_t dataLength) {
    MsgPtr m = hostMessage(0x0D, 54 + static_cast<int>(dataLength));
    wire::put16(m->data + 42, 0x0102);
    wire::put16(m->data + 48, 1);
    wire::put16(m->data + 50, static_cast<uint16_t>(2 + dataLength));
    wire::put16(m->data + 52, id);
    m->tlv_count = 1;
    return m;
}

}  // namespace

TEST(MsgPostRecv, RefusesWhatCannotBeAMessage) {
    EXPECT_EQ(msg_post_recv(MsgPtr(msg_allocate()).get(), 1501), -EBADMSG)
        << "more than the buffer holds";
    Bytes version = headerOnly(0x0D, 48);
    version[1] = 0x12;  // only the low nibble is the version
    EXPECT_EQ(postRecv(version), 0);
    version[1] = 0x01;
    EXPECT_EQ(postRecv(version), -EPROTO);
    version.resize(33);
    EXPECT_EQ(postRecv(version), -EBADMSG) << "too short to have a version";

    EXPECT_EQ(postRecv(headerOnly(0x0D, 47)), -EBADMSG);
    MsgPtr m;
    EXPECT_EQ(postRecv(headerOnly(0x0D, 48), &m), 0);
    EXPECT_EQ(m->tlv_count, 0);
    EXPECT_EQ(postRecv(headerOnly(0x0B, 63)), -EBADMSG) << "ANNOUNCE needs 64";
    EXPECT_EQ(postRecv(headerOnly(0x04, 60)), -EBADMSG) << "type 4 is unknown";

    for (uint8_t type : {0x0, 0x1, 0x2, 0x3}) {
        EXPECT_EQ(postRecv(headerOnly(type, 54)), -ETIME) << "event without timestamp " << +type;
    }
}

TEST(MsgPostRecv, WalksTheTlvs) {
    MsgPtr m;
    EXPECT_EQ(postRecv(response(tlv(1, {0x20, 0x05, 0x80}, 3)), &m), -EBADMSG);
    EXPECT_EQ(m->tlv_count, -EBADMSG) << "odd length";
    EXPECT_EQ(postRecv(response(tlv(1, {0x20, 0x05, 0x80, 0x00}, 6)), &m), -EBADMSG);
    EXPECT_EQ(m->tlv_count, -EBADMSG) << "longer than the datagram";
    EXPECT_EQ(postRecv(response(tlv(1, {0, 0}, 0))), -EBADMSG) << "no room for the id";

    for (size_t trailing = 1; trailing <= 4; trailing++) {
        EXPECT_EQ(postRecv(cat({response(mgmtTlv(0x2005, {1, 0})), Bytes(trailing, 0xEE)}), &m), 0);
        EXPECT_EQ(m->tlv_count, 1) << trailing << " trailing bytes are ignored";
    }
    ASSERT_EQ(postRecv(response(cat({tlv(4, {1, 2}), tlv(0x7FFF, {}), mgmtTlv(0, {})})), &m), 0);
    EXPECT_EQ(m->tlv_count, 3);
}

TEST(MsgPostRecv, ManagementDataOfFixedSizeOrNone) {
    for (const auto& [id, length] : FIXED) {
        EXPECT_EQ(postRecv(response(mgmtTlv(id, Bytes(length, 0)))), 0) << id;
        EXPECT_EQ(postRecv(response(mgmtTlv(id, Bytes(length + 2, 0)))), -EBADMSG) << id;
        EXPECT_EQ(postRecv(response(mgmtTlv(id, Bytes(length - 2, 0)))), -EBADMSG) << id;
    }
    EXPECT_EQ(postRecv(response(mgmtTlv(0x2000, Bytes(19, 0)))), -EBADMSG) << "19 data bytes";
    MsgPtr idOnly;
    EXPECT_EQ(postRecv(response(mgmtTlv(0x2000, {})), &idOnly), 0) << "lengthField 2";
    EXPECT_EQ(h16(idOnly, 50), 2);
    EXPECT_EQ(h16(idOnly, 52), 0x2000);

    for (uint16_t id : {0x0003, 0x0004, 0x0005, 0x0007, 0x200D, 0x200E}) {
        EXPECT_EQ(postRecv(response(mgmtTlv(id, {}))), 0) << id;
        EXPECT_EQ(postRecv(response(mgmtTlv(id, {0, 0}))), -EBADMSG) << id << " takes no data";
    }
    EXPECT_EQ(postRecv(response(mgmtTlv(0x1234, {1, 2, 3, 4}))), 0) << "unknown ids pass";

    MsgPtr stats;
    ASSERT_EQ(postRecv(response(mgmtTlv(0xC006, STATS)), &stats), 0);
    EXPECT_EQ(Bytes(stats->data + 54, stats->data + 54 + 48), STATS) << "never swapped";
}

TEST(MsgPostRecv, PathTraceIsCutTo179Identities) {
    for (const auto& [length, kept] : {std::pair{1448, 1432}, {1440, 1432}, {1432, 1432}}) {
        MsgPtr m;
        ASSERT_EQ(postRecv(response(tlv(8, Bytes(length, 0x5A))), &m), 0);
        EXPECT_EQ(h16(m, 50), kept) << length;
        EXPECT_EQ(m->tlv_count, 1);
    }
}

TEST(MsgCodec, ErrorStatusAndFollowUpInformationBothWays) {
    // IEEE 802.1AS follow-up information: organisation and subtype, then the converted fields.
    const Bytes followUp = cat({Bytes{0x00, 0x80, 0xC2, 0x00, 0x00, 0x01}, be(0x11223344, 4),
                                be(5, 4), be(0x0102030405060708ULL, 8), be(0xA0B0C0D0, 6)});
    const Bytes signaling =
        cat({headerOnly(0x0C, 44), tlv(2, {0, 6, 0x20, 0x07, 0, 0, 0, 0}), tlv(3, followUp)});
    MsgPtr m;
    ASSERT_EQ(postRecv(signaling, &m), 0);
    EXPECT_EQ(m->tlv_count, 2);
    EXPECT_EQ(h16(m, 48), 6) << "managementErrorId";
    EXPECT_EQ(h16(m, 50), 0x2007);
    EXPECT_EQ(wire::get32(m->data + 56 + 10), 0x11223344u);
    EXPECT_EQ(wire::get64(m->data + 56 + 18), 0x0102030405060708ULL);
    ASSERT_EQ(msg_pre_send(m.get()), 0);
    EXPECT_EQ(Bytes(m->data, m->data + signaling.size()), signaling);

    EXPECT_EQ(postRecv(response(tlv(2, {0, 6, 0x20, 0x07, 0, 0}))), -EBADMSG);
    EXPECT_EQ(postRecv(response(tlv(3, {0, 0x80, 0xC2, 0}))), -EBADMSG);
    EXPECT_EQ(postRecv(response(tlv(3, Bytes(followUp.begin(), followUp.end() - 2)))), -EBADMSG);
}

TEST(MsgCodec, VariableLengthManagementData) {
    const Bytes datagram = response(mgmtTlv(1, clockDescription(6, 4)));
    MsgPtr cd;
    ASSERT_EQ(postRecv(datagram, &cd), 0);
    const tlv_extra& x = cd->last_tlv;
    ASSERT_NE(x.clockType, nullptr);
    EXPECT_EQ(wire::get16(x.clockType), 0x8000);
    EXPECT_EQ(wire::get16(x.physicalAddressLength), 6);
    EXPECT_EQ(wire::get16(x.protocolAddress + 2), 4);
    EXPECT_EQ(x.manufacturerIdentity[1], 0x1B);
    EXPECT_EQ(x.profileIdentity[5], 6);
    // Sent back through the positions the receive recorded.
    ASSERT_EQ(msg_pre_send(cd.get()), 0);
    EXPECT_EQ(Bytes(cd->data, cd->data + datagram.size()), datagram);

    Bytes cut = clockDescription(0, 0);
    cut.resize(cut.size() - 2);
    for (const Bytes& bad : {clockDescription(17, 1), clockDescription(1, 17), cut,
                             cat({clockDescription(0, 0), {0, 0}})}) {
        EXPECT_EQ(postRecv(response(mgmtTlv(1, bad))), -EBADMSG) << bad.size();
    }
    EXPECT_EQ(postRecv(response(mgmtTlv(2, {3, 'a', 'b', 'c'}))), 0);
    EXPECT_EQ(postRecv(response(mgmtTlv(2, {1, 'a', 0, 0}))), -EBADMSG);
    EXPECT_EQ(postRecv(response(mgmtTlv(2, {5, 'a', 'b', 0}))), -EBADMSG);
}

TEST(MsgCodec, PreSendThenPostRecvRoundTripsEveryType) {
    const int lengths[16] = {44, 44, 54, 54, 0, 0, 0, 0, 44, 54, 54, 64, 44, 48};
    for (uint8_t type : {0x0, 0x1, 0x2, 0x3, 0x8, 0x9, 0xA, 0xB, 0xC, 0xD}) {
        MsgPtr m = hostMessage(type, lengths[type]);
        const Bytes host(m->data, m->data + lengths[type]);
        ASSERT_EQ(msg_pre_send(m.get()), 0) << +type;
        EXPECT_EQ(Bytes(m->data + 2, m->data + 4), be(lengths[type], 2));
        EXPECT_EQ(Bytes(m->data + 8, m->data + 16), be(0x0102030405060708ULL, 8));
        EXPECT_EQ(Bytes(m->data + 28, m->data + 32), (Bytes{0x0A, 0x0B, 0xBE, 0xEF}));
        m->hwts.tv_sec = 1;  // received with a timestamp
        ASSERT_EQ(msg_post_recv(m.get(), lengths[type]), 0) << +type;
        // The origin timestamp is handed over in the record, not the buffer.
        std::copy(host.begin() + 34, host.begin() + 44, m->data + 34);
        EXPECT_EQ(Bytes(m->data, m->data + lengths[type]), host) << +type;
    }
}

TEST(MsgCodec, ManagementDataRoundTripsAndGoesOutInNetworkOrder) {
    for (const auto& [id, length] : FIXED) {
        MsgPtr m = hostManagement(id, length);
        const int size = 54 + static_cast<int>(length);
        const Bytes host(m->data, m->data + size);
        ASSERT_EQ(msg_pre_send(m.get()), 0) << id;
        EXPECT_EQ(Bytes(m->data + 42, m->data + 54),
                  (Bytes{1, 2, 44, 45, 46, 47, 0, 1, 0, static_cast<uint8_t>(2 + length),
                         static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)}));
        ASSERT_EQ(msg_post_recv(m.get(), size), 0) << id;
        EXPECT_EQ(Bytes(m->data, m->data + size), host) << id;
    }
    MsgPtr current = hostManagement(0x2001, 18);
    wire::put16(current->data + 54, 3);
    wire::put64(current->data + 56, 0x18000);
    wire::put64(current->data + 64, ~0ULL - 1);
    ASSERT_EQ(msg_pre_send(current.get()), 0);
    EXPECT_EQ(Bytes(current->data + 54, current->data + 72),
              cat({be(3, 2), be(0x18000, 8), be(~0ULL - 1, 8)}));

    MsgPtr stats = hostManagement(0xC006, 48);
    std::copy(STATS.begin(), STATS.end(), stats->data + 54);
    ASSERT_EQ(msg_pre_send(stats.get()), 0);
    EXPECT_EQ(Bytes(stats->data + 54, stats->data + 102), STATS) << "never swapped";
}

TEST(MsgCodec, PreSendRefusesUnknownTypesShortDataAndTlvsBeyondTheBuffer) {
    EXPECT_EQ(msg_pre_send(hostMessage(0x05, 48).get()), -1);
    EXPECT_EQ(msg_pre_send(hostManagement(0x2000, 6).get()), -1) << "DEFAULT_DATA_SET of 6 bytes";
    MsgPtr overflowing = hostManagement(0x7FFF, 0);
    wire::put16(overflowing->data + 50, 1460);
    EXPECT_EQ(msg_pre_send(overflowing.get()), -1);
}

TEST(MsgPool, ReleasedRecordsAreReusedZeroed) {
    ptp_message* a = msg_allocate();
    a->tlv_count = 5;
    const msg_pool_counters before = msg_pool_stats();
    msg_get(a);
    msg_put(a);
    EXPECT_EQ(msg_pool_stats().pooled, before.pooled) << "still referenced";
    msg_put(a);
    msg_put(a);  // once more: must not be linked in twice
    EXPECT_EQ(msg_pool_stats().pooled, before.pooled + 1);
    ptp_message* b = msg_allocate();
    EXPECT_EQ(b, a) << "the head of the pool is taken first";
    EXPECT_EQ(b->refcnt, 1);
    EXPECT_EQ(b->tlv_count, 0);
    EXPECT_EQ(msg_pool_stats().allocated, before.allocated);
    msg_put(b);
    msg_cleanup();
    EXPECT_EQ(msg_pool_stats().pooled, 0);
    EXPECT_EQ(msg_pool_stats().allocated, before.allocated - before.pooled - 1);
}
