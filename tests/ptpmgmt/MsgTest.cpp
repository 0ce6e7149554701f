#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

#include "WireBytes.h"
#include "msg.h"

namespace {

struct MsgPut {
    void operator()(ptp_message* m) const { msg_put(m); }
};
using MsgPtr = std::unique_ptr<ptp_message, MsgPut>;

MsgPtr newMsg() {
    MsgPtr m(msg_allocate());
    EXPECT_NE(m, nullptr);
    return m;
}

// A message holding the datagram, ready for msg_post_recv.
MsgPtr received(const Bytes& datagram) {
    MsgPtr m = newMsg();
    std::memcpy(m->data, datagram.data(), datagram.size());
    return m;
}

int postRecv(const Bytes& datagram, MsgPtr* out = nullptr) {
    MsgPtr m = received(datagram);
    const int err = msg_post_recv(m.get(), static_cast<int>(datagram.size()));
    if (out) {
        *out = std::move(m);
    }
    return err;
}

uint16_t h16(const ptp_message* m, int off) {
    return wire::get16(m->data + off);
}
uint32_t h32(const ptp_message* m, int off) {
    return wire::get32(m->data + off);
}
uint64_t h64(const ptp_message* m, int off) {
    return wire::get64(m->data + off);
}

// A datagram of the given type and size with a valid version-2 header.
Bytes headerOnly(uint8_t type, size_t size) {
    WireWriter w;
    w.u8(type).u8(2).be16(static_cast<uint16_t>(size)).fill(size - 4, 0);
    return w.get();
}

Bytes managementWithTlv(const Bytes& tlv, size_t trailing = 0) {
    ManagementDatagram m;
    Bytes b = m.bytes();
    b.resize(48);
    b.insert(b.end(), tlv.begin(), tlv.end());
    b.insert(b.end(), trailing, 0xEE);
    return b;
}

Bytes tlv(uint16_t type, const Bytes& value, int lengthField = -1) {
    return WireWriter()
        .be16(type)
        .be16(static_cast<uint16_t>(lengthField >= 0 ? lengthField : value.size()))
        .bytes(value)
        .get();
}

Bytes mgmtTlv(uint16_t id, const Bytes& data) {
    return tlv(1, WireWriter().be16(id).bytes(data).get());
}

Bytes pattern(size_t n, uint8_t start = 1) {
    Bytes b(n);
    for (size_t i = 0; i < n; i++) {
        b[i] = static_cast<uint8_t>(start + i);
    }
    return b;
}

}  // namespace

// --- Header and length checks -----------------------------------------------------------------

TEST(MsgPostRecv, RefusesShortDatagramsWrongVersionAndUnknownTypes) {
    EXPECT_EQ(postRecv(headerOnly(0x0D, 33)), -EBADMSG);

    Bytes v1 = headerOnly(0x0D, 34);
    v1[1] = 0x01;
    EXPECT_EQ(postRecv(v1), -EPROTO);
    v1[1] = 0x12;  // only the low nibble is the version
    EXPECT_EQ(postRecv(v1), -EBADMSG) << "34 bytes are too few for a management body";

    EXPECT_EQ(postRecv(headerOnly(0x04, 60)), -EBADMSG) << "type 4 is unknown";
    EXPECT_EQ(postRecv(headerOnly(0x0F, 60)), -EBADMSG);

    MsgPtr m = newMsg();
    EXPECT_EQ(msg_post_recv(m.get(), 1501), -EBADMSG) << "more than the buffer holds";
}

TEST(MsgPostRecv, ManagementNeedsItsWholeBody) {
    EXPECT_EQ(postRecv(headerOnly(0x0D, 47)), -EBADMSG);
    MsgPtr m;
    EXPECT_EQ(postRecv(headerOnly(0x0D, 48), &m), 0);
    EXPECT_EQ(m->tlv_count, 0);
    EXPECT_EQ(postRecv(headerOnly(0x0B, 63)), -EBADMSG) << "ANNOUNCE needs 64";
    EXPECT_EQ(postRecv(headerOnly(0x09, 53)), -EBADMSG) << "DELAY_RESP needs 54";
    EXPECT_EQ(postRecv(headerOnly(0x0C, 43)), -EBADMSG) << "SIGNALING needs 44";
}

TEST(MsgPostRecv, ConvertsHeaderAndManagementBody) {
    ManagementDatagram d;
    d.sequenceId = 0x1234;
    d.id = 0x2005;
    d.data = {0x80, 0x00};
    Bytes b = d.bytes();
    b[8] = 0x01;  // correctionField 0x0100000000000002
    b[15] = 0x02;
    b[42] = 0x00;  // target port 7
    b[43] = 0x07;
    MsgPtr m;
    ASSERT_EQ(postRecv(b, &m), 0);
    EXPECT_EQ(h16(m.get(), 2), 56);
    EXPECT_EQ(h64(m.get(), 8), 0x0100000000000002ULL);
    EXPECT_EQ(h16(m.get(), 28), 1);
    EXPECT_EQ(h16(m.get(), 30), 0x1234);
    EXPECT_EQ(h16(m.get(), 42), 7);
    EXPECT_EQ(h16(m.get(), 48), 1);
    EXPECT_EQ(h16(m.get(), 50), 4);
    EXPECT_EQ(h16(m.get(), 52), 0x2005);
    EXPECT_EQ(m->data[54], 0x80) << "one-byte data is not swapped";
    EXPECT_EQ(m->tlv_count, 1);
}

TEST(MsgPostRecv, EventMessagesWithoutTimestampAreRefused) {
    for (uint8_t type : {0x0, 0x1, 0x2, 0x3}) {
        MsgPtr m;
        EXPECT_EQ(postRecv(headerOnly(type, 54), &m), -ETIME) << int(type);
    }
    MsgPtr sync = received(headerOnly(0x0, 44));
    sync->hwts.tv_nsec = 1;
    EXPECT_EQ(msg_post_recv(sync.get(), 44), 0);
    EXPECT_EQ(sync->tlv_count, 0);
    EXPECT_EQ(msg_sots_missing(sync.get()), 0);

    MsgPtr followUp = received(headerOnly(0x8, 44));
    EXPECT_EQ(msg_sots_missing(followUp.get()), 0) << "general messages carry no timestamp";
}

TEST(MsgPostRecv, AnnounceFieldsAndHostTimestamp) {
    WireWriter w;
    w.bytes(headerOnly(0x0B, 34));
    w.be16(0x0001).be32(0x02030405).be32(0x06070809);  // originTimestamp
    w.be16(37).u8(0).u8(128).u8(6).u8(0x21).be16(0x4E5D).u8(128).fill(8, 0xAA).be16(3).u8(0xA0);
    ASSERT_EQ(w.size(), 64u);
    MsgPtr m;
    ASSERT_EQ(postRecv(w.get(), &m), 0);
    EXPECT_EQ(m->ts.pdu.seconds_msb, 0x0001);
    EXPECT_EQ(m->ts.pdu.seconds_lsb, 0x02030405u);
    EXPECT_EQ(m->ts.pdu.nanoseconds, 0x06070809u);
    EXPECT_TRUE(m->ts.host.tv_sec != 0 || m->ts.host.tv_nsec != 0);
    EXPECT_EQ(h16(m.get(), 44), 37);
    EXPECT_EQ(h16(m.get(), 50), 0x4E5D);
    EXPECT_EQ(h16(m.get(), 61), 3);
}

// --- TLV walk --------------------------------------------------------------------------------

TEST(MsgPostRecv, TlvLengthMustBeEvenAndFitTheDatagram) {
    MsgPtr odd;
    EXPECT_EQ(postRecv(managementWithTlv(tlv(1, {0x20, 0x05, 0x80}, 3)), &odd), -EBADMSG);
    EXPECT_EQ(odd->tlv_count, -EBADMSG);

    MsgPtr tooLong;
    EXPECT_EQ(postRecv(managementWithTlv(tlv(1, {0x20, 0x05, 0x80, 0x00}, 6)), &tooLong), -EBADMSG);
    EXPECT_EQ(tooLong->tlv_count, -EBADMSG);

    MsgPtr belowId;
    EXPECT_EQ(postRecv(managementWithTlv(tlv(1, {}, 0), 2), &belowId), -EBADMSG)
        << "a MANAGEMENT TLV holds at least its id";
}

TEST(MsgPostRecv, TrailingBytesAfterTheLastTlvAreIgnored) {
    for (size_t trailing = 1; trailing <= 4; trailing++) {
        MsgPtr m;
        EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x2005, {1, 0}), trailing), &m), 0)
            << trailing;
        EXPECT_EQ(m->tlv_count, 1) << trailing;
    }
}

TEST(MsgPostRecv, CountsSeveralTlvs) {
    Bytes suffix = tlv(0x0004, {1, 2});
    Bytes second = tlv(0x7FFF, {});
    suffix.insert(suffix.end(), second.begin(), second.end());
    Bytes third = mgmtTlv(0x0000, {});
    suffix.insert(suffix.end(), third.begin(), third.end());
    MsgPtr m;
    ASSERT_EQ(postRecv(managementWithTlv(suffix), &m), 0);
    EXPECT_EQ(m->tlv_count, 3);
}

TEST(MsgPostRecv, FixedDataSetsNeedTheirExactLength) {
    MsgPtr full;
    Bytes ds = WireWriter()
                   .u8(0x03)
                   .u8(0)
                   .be16(2)
                   .u8(128)
                   .u8(248)
                   .u8(0xFE)
                   .be16(0xFFFF)
                   .u8(127)
                   .fill(8, 0x42)
                   .u8(0)
                   .u8(0)
                   .get();
    ASSERT_EQ(postRecv(managementWithTlv(mgmtTlv(0x2000, ds)), &full), 0);
    EXPECT_EQ(h16(full.get(), 54 + 2), 2) << "numberPorts";
    EXPECT_EQ(h16(full.get(), 54 + 7), 0xFFFF) << "offsetScaledLogVariance";

    Bytes shortDs(ds.begin(), ds.end() - 2);
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x2000, shortDs))), -EBADMSG);
    Bytes nineteen(ds.begin(), ds.end() - 1);
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x2000, nineteen))), -EBADMSG);

    MsgPtr empty;
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x2000, {})), &empty), 0);
    EXPECT_EQ(h16(empty.get(), 50), 2);
    EXPECT_EQ(h16(empty.get(), 52), 0x2000);

    const struct {
        uint16_t id;
        size_t length;
    } fixed[] = {{0x2001, 18}, {0x2002, 32}, {0x2003, 4},  {0x2004, 26}, {0xC000, 50},
                 {0xC001, 8},  {0xC002, 8},  {0xC003, 66}, {0xC006, 48}};
    for (const auto& f : fixed) {
        EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(f.id, Bytes(f.length, 0)))), 0) << f.id;
        EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(f.id, Bytes(f.length + 2, 0)))), -EBADMSG)
            << f.id;
        EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(f.id, Bytes(f.length - 2, 0)))), -EBADMSG)
            << f.id;
    }
}

TEST(MsgPostRecv, StatisticsDataIsHandedOverUnchanged) {
    const Bytes stats = pattern(48);
    MsgPtr m;
    ASSERT_EQ(postRecv(managementWithTlv(mgmtTlv(0xC006, stats)), &m), 0);
    EXPECT_EQ(Bytes(m->data + 54, m->data + 54 + 48), stats);
}

TEST(MsgPostRecv, PathTraceIsCutTo179Identities) {
    ManagementDatagram d;
    Bytes b = d.bytes();
    b.resize(48);
    WireWriter w;
    w.be16(0x0008).be16(1448).fill(1448, 0x5A);
    b.insert(b.end(), w.get().begin(), w.get().end());
    ASSERT_EQ(b.size(), 1500u);
    MsgPtr m;
    ASSERT_EQ(postRecv(b, &m), 0);
    EXPECT_EQ(h16(m.get(), 50), 1432);
    EXPECT_EQ(m->tlv_count, 1);

    MsgPtr below;
    ASSERT_EQ(postRecv(managementWithTlv(tlv(0x0008, Bytes(1432, 1))), &below), 0);
    EXPECT_EQ(h16(below.get(), 50), 1432) << "179 identities stay as they are";
}

TEST(MsgPostRecv, ErrorStatusAndOrganizationExtension) {
    MsgPtr err;
    ASSERT_EQ(
        postRecv(managementWithTlv(tlv(2, WireWriter().be16(6).be16(0x2007).be32(0).get())), &err),
        0);
    EXPECT_EQ(h16(err.get(), 52), 6);
    EXPECT_EQ(h16(err.get(), 54), 0x2007);
    EXPECT_EQ(postRecv(managementWithTlv(tlv(2, {0, 6, 0x20, 0x07, 0, 0}))), -EBADMSG);

    EXPECT_EQ(postRecv(managementWithTlv(tlv(3, {0, 0x80, 0xC2, 0}))), -EBADMSG);

    WireWriter followUp;
    followUp.bytes({0x00, 0x80, 0xC2, 0x00, 0x00, 0x01})
        .be32(0x11223344)
        .be16(0x5566)
        .be16(7)
        .be64(0x0102030405060708ULL)
        .be16(9)
        .be32(0xA0B0C0D0);
    ASSERT_EQ(followUp.size(), 28u);
    MsgPtr fu;
    ASSERT_EQ(postRecv(managementWithTlv(tlv(3, followUp.get())), &fu), 0);
    EXPECT_EQ(h32(fu.get(), 48 + 10), 0x11223344u);
    EXPECT_EQ(h16(fu.get(), 48 + 14), 0x5566);
    EXPECT_EQ(h64(fu.get(), 48 + 18), 0x0102030405060708ULL);
    EXPECT_EQ(h32(fu.get(), 48 + 28), 0xA0B0C0D0u);

    Bytes shortFollowUp(followUp.get().begin(), followUp.get().end() - 2);
    EXPECT_EQ(postRecv(managementWithTlv(tlv(3, shortFollowUp))), -EBADMSG);

    Bytes otherOrg = followUp.get();
    otherOrg[2] = 0xC3;
    MsgPtr other;
    ASSERT_EQ(postRecv(managementWithTlv(tlv(3, otherOrg)), &other), 0);
    EXPECT_EQ(Bytes(other->data + 52, other->data + 52 + 28), otherOrg) << "left untouched";
}

// IEEE 1588-2008 15.5.3.1.2 with the given field contents.
Bytes clockDescription(const std::string& physicalLayer, uint16_t physicalLength,
                       uint16_t addressLength, const std::string& product) {
    WireWriter w;
    w.be16(0x8000);
    w.u8(static_cast<uint8_t>(physicalLayer.size()))
        .bytes(Bytes(physicalLayer.begin(), physicalLayer.end()));
    w.be16(physicalLength).fill(physicalLength, 0xAB);
    w.be16(1).be16(addressLength).fill(addressLength, 0xCD);
    w.bytes({0x00, 0x1B, 0x19, 0x00});
    w.u8(static_cast<uint8_t>(product.size())).bytes(Bytes(product.begin(), product.end()));
    w.u8(0).u8(0);
    w.bytes({1, 2, 3, 4, 5, 6});
    Bytes b = w.get();
    if (b.size() % 2) {
        b.push_back(0);
    }
    return b;
}

TEST(MsgPostRecv, VariableLengthManagementData) {
    MsgPtr cd;
    ASSERT_EQ(postRecv(managementWithTlv(
                           mgmtTlv(0x0001, clockDescription("IEEE 802.3", 6, 4, "ost;dev;1"))),
                       &cd),
              0);
    const tlv_extra& x = cd->last_tlv;
    ASSERT_NE(x.clockType, nullptr);
    EXPECT_EQ(wire::get16(x.clockType), 0x8000);
    EXPECT_EQ(*x.physicalLayerProtocol, 10);
    EXPECT_EQ(wire::get16(x.physicalAddressLength), 6);
    EXPECT_EQ(wire::get16(x.protocolAddress), 1);
    EXPECT_EQ(wire::get16(x.protocolAddress + 2), 4);
    EXPECT_EQ(x.manufacturerIdentity[1], 0x1B);
    EXPECT_EQ(*x.productDescription, 9);
    EXPECT_EQ(x.profileIdentity[5], 6);

    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x0001, clockDescription("", 17, 0, "")))),
              -EBADMSG)
        << "physical address longer than 16";
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x0001, clockDescription("", 0, 17, "")))),
              -EBADMSG)
        << "protocol address longer than 16";
    Bytes cut = clockDescription("x", 0, 0, "");
    cut.resize(cut.size() - 2);
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x0001, cut))), -EBADMSG);
    Bytes padded = clockDescription("", 0, 0, "");
    padded.insert(padded.end(), {0, 0});
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x0001, padded))), -EBADMSG)
        << "more data than the fields use";

    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x0002, {3, 'a', 'b', 'c'}))), 0);
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x0002, {1, 'a', 0, 0}))), -EBADMSG);
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0x0002, {5, 'a', 'b', 0}))), -EBADMSG);

    WireWriter props;
    props.fill(8, 0x10).be16(2).u8(9).u8(1).u8(4).bytes({'e', 't', 'h', '0'});
    MsgPtr pp;
    Bytes propsData = props.get();
    propsData.push_back(0);  // pad to even
    ASSERT_EQ(postRecv(managementWithTlv(mgmtTlv(0xC004, propsData)), &pp), 0);
    EXPECT_EQ(h16(pp.get(), 54 + 8), 2);
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0xC004, Bytes(12, 0)))), -EBADMSG);
    propsData[12] = 6;  // interface text longer than the TLV
    EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(0xC004, propsData))), -EBADMSG);
}

TEST(MsgPostRecv, CommandsWithoutDataMustBeEmpty) {
    for (uint16_t id : {0x0003, 0x0004, 0x0005, 0x0007, 0x200D, 0x200E}) {
        EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(id, {}))), 0) << id;
        EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(id, {0, 0}))), -EBADMSG) << id;
    }
    for (uint16_t id : {0x0000, 0x0006, 0x2005, 0xC005, 0x1234}) {
        EXPECT_EQ(postRecv(managementWithTlv(mgmtTlv(id, {1, 2, 3, 4}))), 0) << id;
    }
}

// --- Sending and the round trip --------------------------------------------------------------

namespace {

// A host-order message of the given type with distinctive values in every converted field.
MsgPtr hostMessage(uint8_t type, int length) {
    MsgPtr m = newMsg();
    unsigned char* d = m->data;
    d[0] = type;
    d[1] = 2;
    wire::put16(d + 2, static_cast<uint16_t>(length));
    wire::put64(d + 8, 0x0102030405060708ULL);
    wire::put16(d + 28, 0x0A0B);
    wire::put16(d + 30, 0xBEEF);
    wire::put16(d + 34, 0x0011);
    wire::put32(d + 36, 0x22334455);
    wire::put32(d + 40, 0x66778899);
    for (int i = 44; i < length; i++) {
        d[i] = static_cast<unsigned char>(i);
    }
    return m;
}

bool swapsTimestampOnSend(uint8_t type) {
    return type == 0x3 || type == 0x8 || type == 0x9 || type == 0xA;
}

}  // namespace

class MsgRoundTrip : public ::testing::TestWithParam<uint8_t> {};

TEST_P(MsgRoundTrip, PreSendThenPostRecvRestoresTheHostFields) {
    const uint8_t type = GetParam();
    const int bodyLength[16] = {44, 44, 54, 54, 0, 0, 0, 0, 44, 54, 54, 64, 44, 48};
    const int length = bodyLength[type];
    MsgPtr m = hostMessage(type, length);
    const Bytes host(m->data, m->data + length);

    ASSERT_EQ(msg_pre_send(m.get()), 0);
    const Bytes sent(m->data, m->data + length);
    WireReader r(sent);
    EXPECT_EQ(r.be16(2), length);
    EXPECT_EQ(r.be64(8), 0x0102030405060708ULL);
    EXPECT_EQ(r.be16(28), 0x0A0B);
    EXPECT_EQ(r.be16(30), 0xBEEF);

    m->hwts.tv_sec = 1;  // received with a timestamp
    ASSERT_EQ(msg_post_recv(m.get(), length), 0);
    Bytes back(m->data, m->data + length);
    if (swapsTimestampOnSend(type)) {
        EXPECT_EQ(m->ts.pdu.seconds_msb, 0x0011);
        EXPECT_EQ(m->ts.pdu.seconds_lsb, 0x22334455u);
        EXPECT_EQ(m->ts.pdu.nanoseconds, 0x66778899u);
        // The buffer keeps the timestamp in wire order; the record carries it.
        std::copy(host.begin() + 34, host.begin() + 44, back.begin() + 34);
    }
    EXPECT_EQ(back, host);
}

INSTANTIATE_TEST_SUITE_P(EveryType, MsgRoundTrip,
                         ::testing::Values(0x0, 0x1, 0x2, 0x3, 0x8, 0x9, 0xA, 0xB, 0xC, 0xD));

TEST(MsgPreSend, ConvertsTlvsAndRoundTripsManagementData) {
    const struct {
        uint16_t id;
        size_t length;
    } cases[] = {{0x2000, 20}, {0x2001, 18}, {0x2002, 32}, {0x2003, 4},  {0x2004, 26}, {0xC000, 50},
                 {0xC001, 8},  {0xC002, 8},  {0xC003, 66}, {0xC006, 48}, {0x2005, 2},  {0x0000, 0}};
    for (const auto& c : cases) {
        const int length = 54 + static_cast<int>(c.length);
        MsgPtr m = hostMessage(0x0D, length);
        wire::put16(m->data + 42, 0x0102);
        wire::put16(m->data + 48, 1);
        wire::put16(m->data + 50, static_cast<uint16_t>(2 + c.length));
        wire::put16(m->data + 52, c.id);
        m->tlv_count = 1;
        const Bytes host(m->data, m->data + length);
        ASSERT_EQ(msg_pre_send(m.get()), 0) << c.id;
        WireReader r(Bytes(m->data, m->data + length));
        EXPECT_EQ(r.be16(42), 0x0102);
        EXPECT_EQ(r.be16(48), 1);
        EXPECT_EQ(r.be16(50), 2 + c.length);
        EXPECT_EQ(r.be16(52), c.id);
        ASSERT_EQ(msg_post_recv(m.get(), length), 0) << c.id;
        EXPECT_EQ(Bytes(m->data, m->data + length), host) << c.id;
    }
}

TEST(MsgPreSend, DataFieldsGoOutInNetworkOrder) {
    MsgPtr m = hostMessage(0x0D, 54 + 18);
    wire::put16(m->data + 48, 1);
    wire::put16(m->data + 50, 20);
    wire::put16(m->data + 52, 0x2001);
    wire::put16(m->data + 54, 3);
    wire::put64(m->data + 56, 0x18000);
    wire::put64(m->data + 64, static_cast<uint64_t>(-1));
    m->tlv_count = 1;
    ASSERT_EQ(msg_pre_send(m.get()), 0);
    const Bytes sent(m->data, m->data + 72);
    WireReader r(sent);
    EXPECT_EQ(r.be16(54), 3);
    EXPECT_EQ(r.be64(56), 0x18000u);
    EXPECT_EQ(r.be64(64), ~0ULL);

    MsgPtr stats = hostMessage(0x0D, 54 + 48);
    wire::put16(stats->data + 48, 1);
    wire::put16(stats->data + 50, 50);
    wire::put16(stats->data + 52, 0xC006);
    const Bytes data = pattern(48, 7);
    std::memcpy(stats->data + 54, data.data(), data.size());
    stats->tlv_count = 1;
    ASSERT_EQ(msg_pre_send(stats.get()), 0);
    EXPECT_EQ(Bytes(stats->data + 54, stats->data + 102), data) << "never swapped";
}

TEST(MsgPreSend, RoundTripsVariableTlvs) {
    // CLOCK_DESCRIPTION converted through the extra record that a receive fills in.
    const Bytes cd = clockDescription("IEEE 802.3", 6, 4, "ost");
    const Bytes datagram = managementWithTlv(mgmtTlv(0x0001, cd));
    MsgPtr m;
    ASSERT_EQ(postRecv(datagram, &m), 0);
    m->hwts = {};
    ASSERT_EQ(msg_pre_send(m.get()), 0);
    EXPECT_EQ(Bytes(m->data, m->data + datagram.size()), datagram);

    // Two TLVs in a SIGNALING message: error status and follow-up information.
    WireWriter suffix;
    suffix.bytes(tlv(2, WireWriter().be16(6).be16(0x2007).be32(0).get()));
    suffix.bytes(tlv(3, WireWriter()
                            .bytes({0x00, 0x80, 0xC2, 0x00, 0x00, 0x01})
                            .be32(1)
                            .be16(2)
                            .be16(3)
                            .be64(4)
                            .be16(5)
                            .be32(6)
                            .get()));
    WireWriter signaling;
    signaling.bytes(headerOnly(0x0C, 44)).bytes(suffix.get());
    MsgPtr s;
    ASSERT_EQ(postRecv(signaling.get(), &s), 0);
    EXPECT_EQ(s->tlv_count, 2);
    ASSERT_EQ(msg_pre_send(s.get()), 0);
    EXPECT_EQ(Bytes(s->data, s->data + signaling.size()), signaling.get());
}

TEST(MsgPreSend, RefusesUnknownTypesAndTlvsBeyondTheBuffer) {
    MsgPtr unknown = hostMessage(0x05, 48);
    EXPECT_EQ(msg_pre_send(unknown.get()), -1);

    MsgPtr overflowing = hostMessage(0x0D, 48);
    wire::put16(overflowing->data + 48, 0x7FFF);
    wire::put16(overflowing->data + 50, 1460);
    overflowing->tlv_count = 2;
    EXPECT_EQ(msg_pre_send(overflowing.get()), -1);

    MsgPtr shortData = hostMessage(0x0D, 60);
    wire::put16(shortData->data + 48, 1);
    wire::put16(shortData->data + 50, 8);
    wire::put16(shortData->data + 52, 0x2000);
    shortData->tlv_count = 1;
    EXPECT_EQ(msg_pre_send(shortData.get()), -1) << "DEFAULT_DATA_SET with 6 data bytes";
}

// --- Pool, names, byte order -----------------------------------------------------------------

TEST(MsgPool, ReleasedRecordsAreReusedZeroed) {
    ptp_message* a = msg_allocate();
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->refcnt, 1);
    a->data[0] = 0x0D;
    a->tlv_count = 5;
    const msg_pool_counters before = msg_pool_stats();

    msg_get(a);
    msg_put(a);
    EXPECT_EQ(msg_pool_stats().pooled, before.pooled) << "still referenced";
    msg_put(a);
    EXPECT_EQ(msg_pool_stats().pooled, before.pooled + 1);
    msg_put(a);  // once more: must not be linked in twice
    EXPECT_EQ(msg_pool_stats().pooled, before.pooled + 1);

    ptp_message* b = msg_allocate();
    EXPECT_EQ(b, a) << "the head of the pool is taken first";
    EXPECT_EQ(b->refcnt, 1);
    EXPECT_EQ(b->data[0], 0);
    EXPECT_EQ(b->tlv_count, 0);
    EXPECT_EQ(msg_pool_stats().allocated, before.allocated);

    ptp_message* c = msg_allocate();
    EXPECT_NE(c, b);
    msg_put(b);
    msg_put(c);
    const msg_pool_counters filled = msg_pool_stats();
    EXPECT_GE(filled.pooled, 2);
    msg_cleanup();
    const msg_pool_counters emptied = msg_pool_stats();
    EXPECT_EQ(emptied.pooled, 0);
    EXPECT_EQ(emptied.allocated, filled.allocated - filled.pooled);
}

TEST(MsgNames, TypeStringsAndPrint) {
    const struct {
        int type;
        const char* name;
    } names[] = {{0, "SYNC"},
                 {1, "DELAY_REQ"},
                 {2, "PDELAY_REQ"},
                 {3, "PDELAY_RESP"},
                 {8, "FOLLOW_UP"},
                 {9, "DELAY_RESP"},
                 {10, "PDELAY_RESP_FOLLOW_UP"},
                 {11, "ANNOUNCE"},
                 {12, "SIGNALING"},
                 {13, "MANAGEMENT"},
                 {4, "unknown"},
                 {15, "unknown"}};
    for (const auto& n : names) {
        EXPECT_STREQ(msg_type_string(n.type), n.name);
    }

    MsgPtr m = hostMessage(0x0D, 48);
    wire::put16(m->data + 30, 42);
    char* text = nullptr;
    size_t size = 0;
    FILE* stream = open_memstream(&text, &size);
    ASSERT_NE(stream, nullptr);
    msg_print(m.get(), stream);
    fclose(stream);
    EXPECT_EQ(std::string(text), "\tMANAGEMENT sequenceId   42 \n");
    free(text);
}

TEST(MsgByteOrder, SixtyFourBitSwapTurnsAllEightBytes) {
    EXPECT_EQ(host2net64(0x0102030405060708ULL), 0x0807060504030201ULL);
    EXPECT_EQ(net2host64(host2net64(0xFEDCBA9876543210ULL)), 0xFEDCBA9876543210ULL);
}
