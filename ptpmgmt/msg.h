#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "ddt.h"

// One PTP message and its codec. The buffer holds the message exactly as on the wire; it is in
// host byte order between msg_post_recv() and msg_pre_send() and in network order outside that
// span. Fields are read and written at their offsets (ddt.h) through the accessors below, which
// never make unaligned accesses.

enum hwts_type : int {
    HWTS_SOFTWARE = 0,
    HWTS_HARDWARE = 1,
};

// Positions of the variable-length sub-fields of a CLOCK_DESCRIPTION TLV, when it is the last
// TLV of its message. Each points into the message's own buffer (null: not present).
struct tlv_extra {
    unsigned char* clockType;
    unsigned char* physicalLayerProtocol;  // PTPText
    unsigned char* physicalAddressLength;  // followed by the address
    unsigned char* protocolAddress;        // networkProtocol, addressLength, address
    unsigned char* manufacturerIdentity;
    unsigned char* productDescription;  // PTPText
    unsigned char* revisionData;        // PTPText
    unsigned char* userDescription;     // PTPText
    unsigned char* profileIdentity;
};

struct pdu_timestamp {
    uint16_t seconds_msb;
    uint32_t seconds_lsb;
    uint32_t nanoseconds;
};

struct ptp_message {
    alignas(8) unsigned char data[ptp::MESSAGE_BUFFER_SIZE];
    int32_t refcnt;
    struct {
        ptp_message* next;
        ptp_message* prev;
    } list;
    struct {
        pdu_timestamp pdu;
        struct timespec host;
    } ts;
    hwts_type hwts_kind;
    struct timespec hwts;
    char address[132];  // the sender's socket path
    int32_t tlv_count;  // TLVs in the suffix, or a negative error after a failed receive
    tlv_extra last_tlv;

    uint8_t type() const { return data[ptp::hdr::TYPE] & 0x0F; }
};

// Native-order access to the buffer; the codec swaps fields in place between wire and host
// order, so readers outside the codec always see host order.
namespace wire {
inline uint16_t get16(const unsigned char* p) {
    uint16_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}
inline uint32_t get32(const unsigned char* p) {
    uint32_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}
inline uint64_t get64(const unsigned char* p) {
    uint64_t v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}
inline void put16(unsigned char* p, uint16_t v) {
    std::memcpy(p, &v, sizeof(v));
}
inline void put32(unsigned char* p, uint32_t v) {
    std::memcpy(p, &v, sizeof(v));
}
inline void put64(unsigned char* p, uint64_t v) {
    std::memcpy(p, &v, sizeof(v));
}

// Convert one field in place between network and host order (the same swap both ways).
void swap16(unsigned char* p);
void swap32(unsigned char* p);
void swap64(unsigned char* p);
}  // namespace wire

// Byte order of 64-bit values: swaps all eight bytes on the (little-endian) device; one
// routine serves both directions.
uint64_t host2net64(uint64_t value);
uint64_t net2host64(uint64_t value);

// Pool of message records. Released records are kept for reuse and freed by msg_cleanup().
ptp_message* msg_allocate();  // zeroed, refcnt 1; null when memory is exhausted
void msg_get(ptp_message* msg);
void msg_put(ptp_message* msg);
void msg_cleanup();

struct msg_pool_counters {
    int allocated;  // records taken from the heap since start (or the last cleanup)
    int pooled;     // records waiting in the pool
};
msg_pool_counters msg_pool_stats();

// Host to network order in place, just before sending: 0, or -1 for an unknown type or a
// TLV that does not fit the buffer.
int msg_pre_send(ptp_message* msg);
// Network to host order in place, just after receiving cnt bytes, with the checks that decide
// whether the datagram is accepted: 0, -EBADMSG, -EPROTO or -ETIME.
int msg_post_recv(ptp_message* msg, int cnt);

// Per-TLV conversions; tlv points at the TLV's head inside a message buffer whose lengthField
// is in host order and has been checked to lie within the buffer.
int tlv_pre_send(unsigned char* tlv, tlv_extra* extra);
int tlv_post_recv(unsigned char* tlv, tlv_extra* extra);

// 1 for an event message (SYNC, DELAY_REQ, PDELAY_REQ, PDELAY_RESP) without a hardware
// timestamp, else 0.
int msg_sots_missing(const ptp_message* msg);

const char* msg_type_string(int type);
void msg_print(const ptp_message* msg, FILE* stream);
