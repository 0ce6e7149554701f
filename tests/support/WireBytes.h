#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

// Network-order bytes for the tests, written and read independently of the codec under test.
using Bytes = std::vector<uint8_t>;

// v in n bytes, most significant first.
inline Bytes be(uint64_t v, size_t n) {
    Bytes b(n);
    for (size_t i = n; i-- > 0; v >>= 8) {
        b[i] = static_cast<uint8_t>(v);
    }
    return b;
}

inline Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// A TLV; lengthField is the value's size unless given.
inline Bytes tlv(uint16_t type, const Bytes& value, int lengthField = -1) {
    return cat({be(type, 2),
                be(lengthField >= 0 ? static_cast<size_t>(lengthField) : value.size(), 2), value});
}

inline Bytes mgmtTlv(uint16_t id, const Bytes& data) {
    return tlv(1, cat({be(id, 2), data}));
}

// A MANAGEMENT message (sequenceId 0) followed by the given TLVs; source fills the sender's
// clockIdentity.
inline Bytes mgmtMessage(uint8_t action, const Bytes& tlvs, uint16_t targetPort = 0xFFFF,
                         uint8_t domain = 0, uint8_t byte0 = 0x0D, uint8_t source = 0) {
    return cat({Bytes{byte0, 2}, be(48 + tlvs.size(), 2), Bytes{domain}, Bytes(15, 0),
                Bytes(8, source), Bytes{0, 1, 0, 0, 0x04, 0x7F}, Bytes(8, 0xFF), be(targetPort, 2),
                Bytes{0, 0, action, 0}, tlvs});
}

// ptp4l's RESPONSE carrying the given TLVs.
inline Bytes response(const Bytes& tlvs) {
    return mgmtMessage(2, tlvs, 0xFFFF, 0, 0x0D, 0x11);
}

inline Bytes managementReply(uint16_t id, const Bytes& data) {
    return response(mgmtTlv(id, data));
}

// MANAGEMENT_ERROR_STATUS: managementErrorId, managementId, 4 reserved bytes.
inline Bytes errorStatusReply(uint16_t managementId, uint16_t errorId) {
    return response(tlv(2, cat({be(errorId, 2), be(managementId, 2), Bytes(4, 0)})));
}
