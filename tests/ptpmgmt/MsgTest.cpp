#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
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

Bytes bytes(const MsgPtr& m, size_t from, size_t to) {
    return Bytes(m->data + from, m->data + to);
}

// A datagram of the given type and size with a valid version-2 header.
Bytes headerOnly(uint8_t type, size_t size) {
    return cat({{type, 2}, be(size, 2), Bytes(size - 4, 0)});
}

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

// A host-order message of the type with distinctive values in every converted field; with a
// managementId, a MANAGEMENT message carrying that one TLV.
MsgPtr hostMessage(uint8_t type, int length, int id = -1) {
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
    if (id >= 0) {
        wire::put16(d + 42, 0x0102);
        wire::put16(d + 48, 1);
        wire::put16(d + 50, static_cast<uint16_t>(length - 52));
        wire::put16(d + 52, static_cast<uint16_t>(id));
        m->tlv_count = 1;
    }
    return m;
}

}  // namespace

TEST(MsgPostRecv, RefusesWhatCannotBeAMessage) {
    EXPECT_EQ(msg_post_recv(MsgPtr(msg_allocate()).get(), 1501), -EBADMSG);
    Bytes version = headerOnly(0x0D, 48);
    version[1] = 0x12;  // only the low nibble is the version
    EXPECT_EQ(postRecv(version), 0);
    version[1] = 0x01;
    EXPECT_EQ(postRecv(version), -EPROTO);
    version.resize(33);
    EXPECT_EQ(postRecv(version), -EBADMSG) << "too short to have a version";

    EXPECT_EQ(postRecv(headerOnly(0x0D, 47)), -EBADMSG);
    EXPECT_EQ(postRecv(headerOnly(0x0B, 63)), -EBADMSG) << "ANNOUNCE needs 64";
    EXPECT_EQ(postRecv(headerOnly(0x04, 60)), -EBADMSG) << "type 4 is unknown";
    for (uint8_t type : {0x0, 0x1, 0x2, 0x3}) {
        EXPECT_EQ(postRecv(headerOnly(type, 54)), -ETIME) << "event without timestamp " << +type;
    }
}

TEST(MsgPostRecv, WalksTheTlvsAndChecksTheirSizes) {
    MsgPtr m;
    EXPECT_EQ(postRecv(headerOnly(0x0D, 48), &m), 0);
    EXPECT_EQ(m->tlv_count, 0);
    EXPECT_EQ(postRecv(response(tlv(1, {0x20, 0x05, 0x80}, 3)), &m), -EBADMSG);
    EXPECT_EQ(m->tlv_count, -EBADMSG) << "odd length";
    EXPECT_EQ(postRecv(response(tlv(1, {0x20, 0x05, 0x80, 0x00}, 6)), &m), -EBADMSG);
    EXPECT_EQ(m->tlv_count, -EBADMSG) << "longer than the datagram";
    EXPECT_EQ(postRecv(response(tlv(1, {0, 0}, 0))), -EBADMSG) << "no room for the id";
    EXPECT_EQ(postRecv(response(tlv(2, {0, 6, 0x20, 0x07, 0, 0}))), -EBADMSG) << "error status";

    for (size_t trailing = 1; trailing <= 4; trailing++) {
        EXPECT_EQ(postRecv(cat({response(mgmtTlv(0x2005, {1, 0})), Bytes(trailing, 0xEE)}), &m), 0);
        EXPECT_EQ(m->tlv_count, 1) << trailing << " trailing bytes are ignored";
    }
    ASSERT_EQ(postRecv(response(cat({tlv(4, {1, 2}), tlv(0x7FFF, {}), mgmtTlv(0, {})})), &m), 0);
    EXPECT_EQ(m->tlv_count, 3);
    EXPECT_EQ(postRecv(response(mgmtTlv(0x2000, Bytes(19, 0)))), -EBADMSG) << "19 data bytes";
    EXPECT_EQ(postRecv(response(mgmtTlv(0x2000, {}))), 0) << "lengthField 2";
    for (uint16_t id : {0x0003, 0x0004, 0x0005, 0x0007, 0x200D, 0x200E}) {
        EXPECT_EQ(postRecv(response(mgmtTlv(id, {}))), 0) << id;
        EXPECT_EQ(postRecv(response(mgmtTlv(id, {0, 0}))), -EBADMSG) << id << " takes no data";
    }
    EXPECT_EQ(postRecv(response(mgmtTlv(0x1234, {1, 2, 3, 4}))), 0) << "unknown ids pass";
    // PATH_TRACE is cut to the 179 identities a message can carry.
    for (int length : {1440, 1432}) {
        ASSERT_EQ(postRecv(response(tlv(8, Bytes(length, 0x5A))), &m), 0);
        EXPECT_EQ(h16(m, 50), 1432) << length;
    }
}

TEST(MsgCodec, VariableLengthManagementData) {
    const Bytes datagram = response(mgmtTlv(1, clockDescription(6, 4)));
    MsgPtr cd;
    ASSERT_EQ(postRecv(datagram, &cd), 0);
    const tlv_extra& x = cd->last_tlv;
    ASSERT_NE(x.protocolAddress, nullptr);
    EXPECT_EQ(wire::get16(x.clockType) + wire::get16(x.protocolAddress + 2), 0x8000 + 4);
    // Sent back through the positions the receive recorded.
    ASSERT_EQ(msg_pre_send(cd.get()), 0);
    EXPECT_EQ(bytes(cd, 0, datagram.size()), datagram);

    for (const Bytes& bad : {clockDescription(17, 1), clockDescription(1, 17),
                             cat({clockDescription(0, 0), {0, 0}})}) {
        EXPECT_EQ(postRecv(response(mgmtTlv(1, bad))), -EBADMSG) << bad.size();
    }
    EXPECT_EQ(postRecv(response(mgmtTlv(2, {5, 'a', 'b', 0}))), -EBADMSG) << "USER_DESCRIPTION";
}

TEST(MsgCodec, PreSendThenPostRecvRoundTrips) {
    for (const auto& [id, length] : FIXED) {
        const int size = 54 + static_cast<int>(length);
        MsgPtr m = hostMessage(0x0D, size, id);
        const Bytes host = bytes(m, 0, size);
        ASSERT_EQ(msg_pre_send(m.get()), 0) << id;
        EXPECT_EQ(bytes(m, 0, 16),
                  cat({{0x0D, 2}, be(size, 2), Bytes(4, 0), be(0x0102030405060708, 8)}));
        EXPECT_EQ(bytes(m, 28, 32), (Bytes{0x0A, 0x0B, 0xBE, 0xEF}));
        EXPECT_EQ(bytes(m, 42, 54),
                  cat({{1, 2, 44, 45, 46, 47}, be(1, 2), be(2 + length, 2), be(id, 2)}));
        ASSERT_EQ(msg_post_recv(m.get(), size), 0) << id;
        EXPECT_EQ(bytes(m, 0, size), host) << id;
        EXPECT_EQ(postRecv(response(mgmtTlv(id, Bytes(length + 2, 0)))), -EBADMSG) << id;
        EXPECT_EQ(postRecv(response(mgmtTlv(id, Bytes(length - 2, 0)))), -EBADMSG) << id;
    }
    EXPECT_EQ(msg_pre_send(hostMessage(0x05, 48).get()), -1) << "unknown type";
    EXPECT_EQ(msg_pre_send(hostMessage(0x0D, 60, 0x2000).get()), -1) << "6-byte DEFAULT_DATA_SET";
    MsgPtr overflowing = hostMessage(0x0D, 54, 0x7FFF);
    wire::put16(overflowing->data + 50, 1460);
    EXPECT_EQ(msg_pre_send(overflowing.get()), -1);
}

TEST(MsgPool, ReleasedRecordsAreReusedZeroed) {
    ptp_message* a = msg_allocate();
    a->tlv_count = 5;
    msg_get(a);
    msg_put(a);
    const int pooled = msg_pool_stats().pooled;
    msg_put(a);
    msg_put(a);  // once more: must not be linked in twice
    EXPECT_EQ(msg_pool_stats().pooled, pooled + 1) << "pooled after the last reference only";
    ptp_message* b = msg_allocate();
    EXPECT_EQ(b, a) << "the head of the pool is taken first";
    EXPECT_EQ(b->refcnt, 1);
    EXPECT_EQ(b->tlv_count, 0);
    msg_put(b);
    msg_cleanup();
    EXPECT_EQ(msg_pool_stats().pooled, 0);
}
