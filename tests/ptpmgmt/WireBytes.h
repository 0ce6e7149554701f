#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

// Network-order bytes for the tests, written and read independently of the codec under test.
using Bytes = std::vector<uint8_t>;

class WireWriter {
  public:
    WireWriter& u8(uint8_t v) {
        m_bytes.push_back(v);
        return *this;
    }
    WireWriter& be16(uint16_t v) { return u8(v >> 8).u8(v & 0xFF); }
    WireWriter& be32(uint32_t v) { return be16(v >> 16).be16(v & 0xFFFF); }
    WireWriter& be64(uint64_t v) { return be32(v >> 32).be32(v & 0xFFFFFFFF); }
    WireWriter& bytes(const Bytes& b) {
        m_bytes.insert(m_bytes.end(), b.begin(), b.end());
        return *this;
    }
    WireWriter& bytes(std::initializer_list<uint8_t> b) { return bytes(Bytes(b)); }
    WireWriter& fill(size_t n, uint8_t v) {
        m_bytes.insert(m_bytes.end(), n, v);
        return *this;
    }
    const Bytes& get() const { return m_bytes; }
    size_t size() const { return m_bytes.size(); }

  private:
    Bytes m_bytes;
};

// Reads big-endian fields at offsets of a datagram.
class WireReader {
  public:
    explicit WireReader(Bytes b) : m_bytes(std::move(b)) {}
    uint8_t u8(size_t off) const { return m_bytes.at(off); }
    uint16_t be16(size_t off) const { return static_cast<uint16_t>(u8(off) << 8 | u8(off + 1)); }
    uint32_t be32(size_t off) const { return uint32_t(be16(off)) << 16 | be16(off + 2); }
    uint64_t be64(size_t off) const { return uint64_t(be32(off)) << 32 | be32(off + 4); }
    Bytes slice(size_t off, size_t n) const {
        return Bytes(m_bytes.begin() + off, m_bytes.begin() + off + n);
    }

  private:
    Bytes m_bytes;
};

// Datagrams as ptp4l sends them: a common header and a MANAGEMENT body (RESPONSE) followed by
// one TLV. lengthField is 2 + data size unless given.
struct ManagementDatagram {
    uint8_t byte0 = 0x0D;
    uint8_t version = 2;
    uint8_t domain = 0;
    uint16_t sequenceId = 0;
    uint8_t action = 2;
    uint16_t tlvType = 1;
    uint16_t id = 0;
    Bytes data;
    int lengthField = -1;  // -1: 2 + data size

    Bytes bytes() const {
        const Bytes tlv = tlvBytes();
        WireWriter w;
        w.u8(byte0).u8(version).be16(static_cast<uint16_t>(48 + tlv.size())).u8(domain).u8(0);
        w.be16(0).be64(0).be32(0);
        w.fill(8, 0x11).be16(1).be16(sequenceId).u8(0x04).u8(0x7F);
        w.fill(8, 0xFF).be16(0xFFFF).u8(0).u8(0).u8(action).u8(0);
        w.bytes(tlv);
        return w.get();
    }

    Bytes tlvBytes() const {
        WireWriter w;
        w.be16(tlvType)
            .be16(static_cast<uint16_t>(lengthField >= 0 ? lengthField : 2 + data.size()))
            .be16(id)
            .bytes(data);
        return w.get();
    }
};

// A MANAGEMENT reply carrying the data of id.
inline Bytes managementReply(uint16_t id, const Bytes& data) {
    ManagementDatagram m;
    m.id = id;
    m.data = data;
    return m.bytes();
}

// MANAGEMENT_ERROR_STATUS: managementErrorId, managementId, 4 reserved bytes.
inline Bytes errorStatusReply(uint16_t managementId, uint16_t errorId) {
    ManagementDatagram m;
    m.tlvType = 2;
    m.id = errorId;
    m.data = WireWriter().be16(managementId).be32(0).get();
    return m.bytes();
}
