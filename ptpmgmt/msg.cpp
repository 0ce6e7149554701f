#include "msg.h"

#include <arpa/inet.h>
#include <endian.h>

#include <cerrno>
#include <new>

using namespace ptp;

namespace wire {
void swap16(unsigned char* p) {
    put16(p, ntohs(get16(p)));
}
void swap32(unsigned char* p) {
    put32(p, ntohl(get32(p)));
}
void swap64(unsigned char* p) {
    put64(p, be64toh(get64(p)));
}
}  // namespace wire

using wire::get16;
using wire::put16;
using wire::swap16;
using wire::swap32;
using wire::swap64;

uint64_t host2net64(uint64_t value) {
    return htobe64(value);
}
uint64_t net2host64(uint64_t value) {
    return be64toh(value);
}

// ---------------------------------------------------------------------------------------------
// Pool

namespace {

// Released records wait here for reuse; only msg_cleanup() gives them back to the heap.
struct MessagePool {
    ptp_message* head = nullptr;
    int allocated = 0;
    int pooled = 0;
};

MessagePool& pool() {
    static MessagePool p;
    return p;
}

}  // namespace

ptp_message* msg_allocate() {
    MessagePool& p = pool();
    ptp_message* msg = p.head;
    if (msg) {
        p.head = msg->list.next;
        if (p.head) {
            p.head->list.prev = nullptr;
        }
        p.pooled--;
    } else {
        msg = new (std::nothrow) ptp_message;
        if (!msg) {
            return nullptr;
        }
        p.allocated++;
    }
    std::memset(static_cast<void*>(msg), 0, sizeof(*msg));
    msg->refcnt = 1;
    return msg;
}

void msg_get(ptp_message* msg) {
    msg->refcnt++;
}

void msg_put(ptp_message* msg) {
    // A record already back in the pool must not be linked in twice.
    if (msg->refcnt <= 0 || --msg->refcnt > 0) {
        return;
    }
    MessagePool& p = pool();
    msg->list.prev = nullptr;
    msg->list.next = p.head;
    if (p.head) {
        p.head->list.prev = msg;
    }
    p.head = msg;
    p.pooled++;
}

void msg_cleanup() {
    MessagePool& p = pool();
    while (p.head) {
        ptp_message* next = p.head->list.next;
        delete p.head;
        p.head = next;
        p.pooled--;
        p.allocated--;
    }
}

msg_pool_counters msg_pool_stats() {
    const MessagePool& p = pool();
    return {p.allocated, p.pooled};
}

// ---------------------------------------------------------------------------------------------
// Message types

namespace {

// Length of the fixed part (header included) of each type, -1 for an unknown type.
int body_length(int type) {
    switch (type) {
        case SYNC:
        case DELAY_REQ:
        case FOLLOW_UP:
        case SIGNALING:
            return 44;
        case PDELAY_REQ:
        case PDELAY_RESP:
        case DELAY_RESP:
        case PDELAY_RESP_FOLLOW_UP:
            return 54;
        case ANNOUNCE:
            return 64;
        case MANAGEMENT:
            return mgmt::SIZE;
        default:
            return -1;
    }
}

// Where the TLV suffix starts, -1 for the types that carry none.
int suffix_offset(int type) {
    switch (type) {
        case SYNC:
        case DELAY_REQ:
        case PDELAY_REQ:
        case PDELAY_RESP:
            return -1;
        default:
            return body_length(type);
    }
}

void swap_timestamp(unsigned char* d) {
    swap16(d + body::TIMESTAMP_SECONDS_MSB);
    swap32(d + body::TIMESTAMP_SECONDS_LSB);
    swap32(d + body::TIMESTAMP_NANOSECONDS);
}

void copy_timestamp(ptp_message* msg) {
    const unsigned char* d = msg->data;
    msg->ts.pdu.seconds_msb = ntohs(get16(d + body::TIMESTAMP_SECONDS_MSB));
    msg->ts.pdu.seconds_lsb = ntohl(wire::get32(d + body::TIMESTAMP_SECONDS_LSB));
    msg->ts.pdu.nanoseconds = ntohl(wire::get32(d + body::TIMESTAMP_NANOSECONDS));
}

void swap_header(unsigned char* d) {
    swap16(d + hdr::MESSAGE_LENGTH);
    swap64(d + hdr::CORRECTION);
    swap16(d + hdr::SOURCE_PORT_NUMBER);
    swap16(d + hdr::SEQUENCE_ID);
}

}  // namespace

const char* msg_type_string(int type) {
    switch (type) {
        case SYNC:
            return "SYNC";
        case DELAY_REQ:
            return "DELAY_REQ";
        case PDELAY_REQ:
            return "PDELAY_REQ";
        case PDELAY_RESP:
            return "PDELAY_RESP";
        case FOLLOW_UP:
            return "FOLLOW_UP";
        case DELAY_RESP:
            return "DELAY_RESP";
        case PDELAY_RESP_FOLLOW_UP:
            return "PDELAY_RESP_FOLLOW_UP";
        case ANNOUNCE:
            return "ANNOUNCE";
        case SIGNALING:
            return "SIGNALING";
        case MANAGEMENT:
            return "MANAGEMENT";
        default:
            return "unknown";
    }
}

void msg_print(const ptp_message* msg, FILE* stream) {
    fprintf(stream, "\t%-10s sequenceId %4hu \n", msg_type_string(msg->type()),
            get16(msg->data + hdr::SEQUENCE_ID));
}

int msg_sots_missing(const ptp_message* msg) {
    switch (msg->type()) {
        case SYNC:
        case DELAY_REQ:
        case PDELAY_REQ:
        case PDELAY_RESP:
            return msg->hwts.tv_sec == 0 && msg->hwts.tv_nsec == 0 ? 1 : 0;
        default:
            return 0;
    }
}

// ---------------------------------------------------------------------------------------------
// TLVs

namespace {

// IEEE 802.1 organisation and its follow-up information subtype (gPTP).
constexpr unsigned char ieee8021_id[3] = {0x00, 0x80, 0xC2};
constexpr unsigned char follow_up_info_subtype[3] = {0x00, 0x00, 0x01};
constexpr int FOLLOW_UP_INFO_LENGTH = 28;
constexpr int MANAGEMENT_ERROR_STATUS_MIN_LENGTH = 8;
constexpr int ORGANIZATION_EXTENSION_MIN_LENGTH = 6;
constexpr int PATH_TRACE_CUT_LENGTH = PATH_TRACE_MAX_ENTRIES * 8;
constexpr int MAX_ADDRESS_LENGTH = 16;

int padded(int n) {
    return n + (n & 1);
}

// One field that is swapped: offset in the data field and width in bytes.
struct Field {
    int offset;
    int width;
};

void swap_fields(unsigned char* data, const Field* fields, size_t n) {
    for (size_t i = 0; i < n; i++) {
        unsigned char* p = data + fields[i].offset;
        switch (fields[i].width) {
            case 2:
                swap16(p);
                break;
            case 4:
                swap32(p);
                break;
            default:
                swap64(p);
                break;
        }
    }
}

// Fixed-size management data: its required length and the fields that change byte order.
struct FixedLayout {
    int length;
    const Field* fields;
    size_t count;
};

constexpr Field DEFAULT_DS_FIELDS[] = {{2, 2}, {7, 2}};
constexpr Field CURRENT_DS_FIELDS[] = {{0, 2}, {2, 8}, {10, 8}};
constexpr Field PARENT_DS_FIELDS[] = {{8, 2}, {12, 2}, {14, 4}, {21, 2}};
constexpr Field TIME_PROPERTIES_DS_FIELDS[] = {{0, 2}};
constexpr Field PORT_DS_FIELDS[] = {{8, 2}, {12, 8}};
constexpr Field TIME_STATUS_NP_FIELDS[] = {{0, 8},  {8, 8},  {16, 4}, {20, 4}, {24, 2},
                                           {26, 2}, {28, 8}, {36, 2}, {38, 4}};
constexpr Field GRANDMASTER_SETTINGS_NP_FIELDS[] = {{2, 2}, {4, 2}};
constexpr Field PORT_DS_NP_FIELDS[] = {{0, 4}, {4, 4}};
constexpr Field SUBSCRIBE_EVENTS_NP_FIELDS[] = {{0, 2}};

template <size_t N>
constexpr FixedLayout layout(int length, const Field (&fields)[N]) {
    return {length, fields, N};
}

// Null for the ids without a fixed layout.
const FixedLayout* fixed_layout(int id) {
    static constexpr FixedLayout defaultDs = layout(len::DEFAULT_DATA_SET, DEFAULT_DS_FIELDS);
    static constexpr FixedLayout currentDs = layout(len::CURRENT_DATA_SET, CURRENT_DS_FIELDS);
    static constexpr FixedLayout parentDs = layout(len::PARENT_DATA_SET, PARENT_DS_FIELDS);
    static constexpr FixedLayout timePropertiesDs =
        layout(len::TIME_PROPERTIES_DATA_SET, TIME_PROPERTIES_DS_FIELDS);
    static constexpr FixedLayout portDs = layout(len::PORT_DATA_SET, PORT_DS_FIELDS);
    static constexpr FixedLayout timeStatus = layout(len::TIME_STATUS_NP, TIME_STATUS_NP_FIELDS);
    static constexpr FixedLayout gmSettings =
        layout(len::GRANDMASTER_SETTINGS_NP, GRANDMASTER_SETTINGS_NP_FIELDS);
    static constexpr FixedLayout portDsNp = layout(len::PORT_DATA_SET_NP, PORT_DS_NP_FIELDS);
    static constexpr FixedLayout subscribe =
        layout(len::SUBSCRIBE_EVENTS_NP, SUBSCRIBE_EVENTS_NP_FIELDS);
    static constexpr FixedLayout stats = {len::STATS_DATA_SET_NP, nullptr, 0};
    switch (id) {
        case MID_DEFAULT_DATA_SET:
            return &defaultDs;
        case MID_CURRENT_DATA_SET:
            return &currentDs;
        case MID_PARENT_DATA_SET:
            return &parentDs;
        case MID_TIME_PROPERTIES_DATA_SET:
            return &timePropertiesDs;
        case MID_PORT_DATA_SET:
            return &portDs;
        case MID_TIME_STATUS_NP:
            return &timeStatus;
        case MID_GRANDMASTER_SETTINGS_NP:
            return &gmSettings;
        case MID_PORT_DATA_SET_NP:
            return &portDsNp;
        case MID_SUBSCRIBE_EVENTS_NP:
            return &subscribe;
        case TLV_STATS_DATA_SET_NP:
            // Statistics arrive in the device's own byte order and are never swapped.
            return &stats;
        default:
            return nullptr;
    }
}

bool must_be_empty(int id) {
    switch (id) {
        case MID_SAVE_IN_NON_VOLATILE_STORAGE:
        case MID_RESET_NON_VOLATILE_STORAGE:
        case MID_INITIALIZE:
        case MID_FAULT_LOG_RESET:
        case MID_ENABLE_PORT:
        case MID_DISABLE_PORT:
            return true;
        default:
            return false;
    }
}

// Walks the variable-length fields of a management data field without reading past it.
class FieldCursor {
  public:
    FieldCursor(unsigned char* data, int length) : m_data(data), m_length(length) {}

    bool fits(int n) const { return n >= 0 && m_pos + n <= m_length; }
    unsigned char* here() const { return m_data + m_pos; }
    int used() const { return m_pos; }

    // Steps over n bytes; false when they run past the data.
    bool skip(int n) {
        if (!fits(n)) {
            return false;
        }
        m_pos += n;
        return true;
    }
    // Steps over a PTPText (length byte and text); null when it runs past the data.
    unsigned char* text() {
        unsigned char* start = here();
        if (!fits(1) || !skip(1 + start[0])) {
            return nullptr;
        }
        return start;
    }
    // Converts a received 16-bit field to host order in place and reads it.
    bool field16(uint16_t* value, unsigned char** where) {
        if (!fits(2)) {
            return false;
        }
        *where = here();
        swap16(*where);
        *value = get16(*where);
        m_pos += 2;
        return true;
    }

  private:
    unsigned char* m_data;
    int m_length;
    int m_pos = 0;
};

// IEEE 1588-2008 15.5.3.1.2. Received data is parsed field by field; the extra record gets the
// positions of the sub-fields.
int clock_description_post_recv(unsigned char* data, int dataLength, int lengthField,
                                tlv_extra* extra) {
    FieldCursor cur(data, dataLength);
    tlv_extra found = {};
    uint16_t value = 0;
    unsigned char* where = nullptr;

    if (!cur.field16(&value, &found.clockType)) {
        return -EBADMSG;
    }
    if (!(found.physicalLayerProtocol = cur.text())) {
        return -EBADMSG;
    }
    if (!cur.field16(&value, &found.physicalAddressLength) || value > MAX_ADDRESS_LENGTH ||
        !cur.skip(value)) {
        return -EBADMSG;
    }
    found.protocolAddress = cur.here();
    if (!cur.field16(&value, &where) || !cur.field16(&value, &where) ||
        value > MAX_ADDRESS_LENGTH || !cur.skip(value)) {
        return -EBADMSG;
    }
    found.manufacturerIdentity = cur.here();
    if (!cur.skip(4)) {  // manufacturerIdentity and its reserved byte
        return -EBADMSG;
    }
    if (!(found.productDescription = cur.text()) || !(found.revisionData = cur.text()) ||
        !(found.userDescription = cur.text())) {
        return -EBADMSG;
    }
    found.profileIdentity = cur.here();
    if (!cur.skip(6)) {
        return -EBADMSG;
    }
    if (padded(cur.used()) + 2 != lengthField) {
        return -EBADMSG;
    }
    if (extra) {
        *extra = found;
    }
    return 0;
}

void clock_description_pre_send(const tlv_extra* extra) {
    if (!extra || !extra->clockType || !extra->physicalAddressLength || !extra->protocolAddress) {
        return;
    }
    swap16(extra->clockType);
    swap16(extra->physicalAddressLength);
    swap16(extra->protocolAddress);      // networkProtocol
    swap16(extra->protocolAddress + 2);  // addressLength
}

// A data field that is one PTPText and its pad byte.
int ptp_text_check(const unsigned char* data, int dataLength, int lengthField) {
    if (dataLength < 1 || 1 + data[0] > dataLength) {
        return -EBADMSG;
    }
    return padded(1 + data[0]) + 2 == lengthField ? 0 : -EBADMSG;
}

// ptp4l's port properties: portIdentity, port state, timestamping, interface name.
int port_properties_check(const unsigned char* data, int dataLength, int lengthField) {
    if (dataLength < len::PORT_PROPERTIES_NP_MIN) {
        return -EBADMSG;
    }
    const int used = len::PORT_PROPERTIES_NP_MIN + data[12];
    if (used > dataLength || padded(used) + 2 != lengthField) {
        return -EBADMSG;
    }
    return 0;
}

int management_post_recv(unsigned char* tlv, tlv_extra* extra) {
    const int lengthField = get16(tlv + 2);
    if (lengthField < 2) {
        return -EBADMSG;
    }
    unsigned char* idField = tlv + TLV_HEAD_SIZE;
    swap16(idField);
    if (lengthField == 2) {
        return 0;
    }
    const int id = get16(idField);
    unsigned char* data = idField + 2;
    const int dataLength = lengthField - 2;

    if (const FixedLayout* fixed = fixed_layout(id)) {
        if (dataLength != fixed->length) {
            return -EBADMSG;
        }
        swap_fields(data, fixed->fields, fixed->count);
        return 0;
    }
    if (must_be_empty(id)) {
        return -EBADMSG;
    }
    switch (id) {
        case MID_CLOCK_DESCRIPTION:
            return clock_description_post_recv(data, dataLength, lengthField, extra);
        case MID_USER_DESCRIPTION:
            return ptp_text_check(data, dataLength, lengthField);
        case MID_PORT_PROPERTIES_NP: {
            const int err = port_properties_check(data, dataLength, lengthField);
            if (err == 0) {
                swap16(data + 8);
            }
            return err;
        }
        default:
            return 0;
    }
}

int management_pre_send(unsigned char* tlv, tlv_extra* extra) {
    const int lengthField = get16(tlv + 2);
    if (lengthField < 2) {
        return -EBADMSG;
    }
    unsigned char* idField = tlv + TLV_HEAD_SIZE;
    const int id = get16(idField);
    swap16(idField);
    if (lengthField == 2) {
        return 0;
    }
    unsigned char* data = idField + 2;
    const int dataLength = lengthField - 2;

    if (const FixedLayout* fixed = fixed_layout(id)) {
        if (dataLength < fixed->length) {
            return -EBADMSG;
        }
        swap_fields(data, fixed->fields, fixed->count);
        return 0;
    }
    switch (id) {
        case MID_CLOCK_DESCRIPTION:
            clock_description_pre_send(extra);
            return 0;
        case MID_PORT_PROPERTIES_NP:
            if (dataLength < len::PORT_PROPERTIES_NP_MIN) {
                return -EBADMSG;
            }
            swap16(data + 8);
            return 0;
        default:
            return 0;
    }
}

bool is_follow_up_info(const unsigned char* tlv) {
    return std::memcmp(tlv + 4, ieee8021_id, 3) == 0 &&
           std::memcmp(tlv + 7, follow_up_info_subtype, 3) == 0;
}

// Follow-up information TLV (IEEE 802.1AS): the fields after organizationId and subtype.
void swap_follow_up_info(unsigned char* tlv) {
    swap32(tlv + 10);  // cumulativeScaledRateOffset
    swap16(tlv + 14);  // gmTimeBaseIndicator
    swap16(tlv + 16);  // lastGmPhaseChange.nanoseconds_msb
    swap64(tlv + 18);  // lastGmPhaseChange.nanoseconds_lsb
    swap16(tlv + 26);  // lastGmPhaseChange.fractional_nanoseconds
    swap32(tlv + 28);  // scaledLastGmFreqChange
}

int organization_extension(unsigned char* tlv) {
    const int lengthField = get16(tlv + 2);
    if (lengthField < ORGANIZATION_EXTENSION_MIN_LENGTH) {
        return -EBADMSG;
    }
    if (is_follow_up_info(tlv)) {
        if (lengthField != FOLLOW_UP_INFO_LENGTH) {
            return -EBADMSG;
        }
        swap_follow_up_info(tlv);
    }
    return 0;
}

int management_error_status(unsigned char* tlv) {
    if (get16(tlv + 2) < MANAGEMENT_ERROR_STATUS_MIN_LENGTH) {
        return -EBADMSG;
    }
    swap16(tlv + 4);  // managementErrorId
    swap16(tlv + 6);  // managementId
    return 0;
}

}  // namespace

int tlv_post_recv(unsigned char* tlv, tlv_extra* extra) {
    switch (get16(tlv)) {
        case TLV_MANAGEMENT:
            return management_post_recv(tlv, extra);
        case TLV_MANAGEMENT_ERROR_STATUS:
            return management_error_status(tlv);
        case TLV_ORGANIZATION_EXTENSION:
            return organization_extension(tlv);
        case TLV_PATH_TRACE:
            // More identities than fit a 1500-byte message: keep what can be real.
            if (get16(tlv + 2) >= PATH_TRACE_CUT_LENGTH + 8) {
                put16(tlv + 2, PATH_TRACE_CUT_LENGTH);
            }
            return 0;
        default:
            return 0;
    }
}

int tlv_pre_send(unsigned char* tlv, tlv_extra* extra) {
    switch (get16(tlv)) {
        case TLV_MANAGEMENT:
            return management_pre_send(tlv, extra);
        case TLV_MANAGEMENT_ERROR_STATUS:
            return management_error_status(tlv);
        case TLV_ORGANIZATION_EXTENSION:
            return organization_extension(tlv);
        default:
            return 0;
    }
}

// ---------------------------------------------------------------------------------------------
// Messages

int msg_pre_send(ptp_message* msg) {
    unsigned char* d = msg->data;
    const int type = msg->type();
    if (body_length(type) < 0) {
        return -1;
    }
    swap_header(d);

    switch (type) {
        case SYNC:
        case DELAY_REQ:
        case PDELAY_REQ:
            return 0;
        case PDELAY_RESP:
            swap_timestamp(d);
            swap16(d + body::REQUESTING_PORT_NUMBER);
            return 0;
        case FOLLOW_UP:
            swap_timestamp(d);
            break;
        case DELAY_RESP:
        case PDELAY_RESP_FOLLOW_UP:
            swap_timestamp(d);
            swap16(d + body::REQUESTING_PORT_NUMBER);
            break;
        case ANNOUNCE:
            // The origin timestamp is left as the sender wrote it.
            swap16(d + body::ANNOUNCE_CURRENT_UTC_OFFSET);
            swap16(d + body::ANNOUNCE_OFFSET_SCALED_LOG_VARIANCE);
            swap16(d + body::ANNOUNCE_STEPS_REMOVED);
            break;
        case MANAGEMENT:
            swap16(d + mgmt::TARGET_PORT_NUMBER);
            break;
        default:
            break;
    }

    int offset = suffix_offset(type);
    for (int i = 0; i < msg->tlv_count; i++) {
        if (offset + TLV_HEAD_SIZE > MESSAGE_BUFFER_SIZE) {
            return -1;
        }
        unsigned char* tlv = d + offset;
        const int length = get16(tlv + 2);
        if (offset + TLV_HEAD_SIZE + length > MESSAGE_BUFFER_SIZE) {
            return -1;
        }
        tlv_extra* extra = i == msg->tlv_count - 1 ? &msg->last_tlv : nullptr;
        if (tlv_pre_send(tlv, extra) < 0) {
            return -1;
        }
        swap16(tlv);
        swap16(tlv + 2);
        offset += TLV_HEAD_SIZE + length;
    }
    return 0;
}

int msg_post_recv(ptp_message* msg, int cnt) {
    unsigned char* d = msg->data;
    if ((cnt >= 0 && cnt < hdr::SIZE) || cnt > MESSAGE_BUFFER_SIZE) {
        return -EBADMSG;
    }
    if ((d[hdr::VERSION] & 0x0F) != PTP_VERSION) {
        return -EPROTO;
    }
    swap_header(d);

    const int type = msg->type();
    const int bodyLength = body_length(type);
    if (bodyLength < 0 || cnt < bodyLength) {
        return -EBADMSG;
    }

    switch (type) {
        case SYNC:
        case DELAY_REQ:
        case PDELAY_REQ:
        case FOLLOW_UP:
            copy_timestamp(msg);
            break;
        case PDELAY_RESP:
        case DELAY_RESP:
        case PDELAY_RESP_FOLLOW_UP:
            copy_timestamp(msg);
            swap16(d + body::REQUESTING_PORT_NUMBER);
            break;
        case ANNOUNCE:
            clock_gettime(CLOCK_MONOTONIC, &msg->ts.host);
            copy_timestamp(msg);
            swap16(d + body::ANNOUNCE_CURRENT_UTC_OFFSET);
            swap16(d + body::ANNOUNCE_OFFSET_SCALED_LOG_VARIANCE);
            swap16(d + body::ANNOUNCE_STEPS_REMOVED);
            break;
        case MANAGEMENT:
            swap16(d + mgmt::TARGET_PORT_NUMBER);
            break;
        default:
            break;
    }

    if (msg_sots_missing(msg)) {
        return -ETIME;
    }

    const int suffix = suffix_offset(type);
    if (suffix < 0) {
        msg->tlv_count = 0;
        return 0;
    }
    int offset = suffix;
    int remaining = cnt - suffix;
    int count = 0;
    // Up to four trailing bytes cannot hold a TLV and are ignored.
    while (remaining > TLV_HEAD_SIZE) {
        unsigned char* tlv = d + offset;
        swap16(tlv);
        swap16(tlv + 2);
        const int length = get16(tlv + 2);
        if ((length & 1) || length > remaining - TLV_HEAD_SIZE) {
            msg->tlv_count = -EBADMSG;
            return -EBADMSG;
        }
        tlv_extra* extra = TLV_HEAD_SIZE + length == remaining ? &msg->last_tlv : nullptr;
        const int err = tlv_post_recv(tlv, extra);
        if (err) {
            msg->tlv_count = err;
            return err < 0 ? err : 0;
        }
        count++;
        // Step over the TLV as it arrived, even when its list was cut.
        offset += TLV_HEAD_SIZE + length;
        remaining -= TLV_HEAD_SIZE + length;
    }
    msg->tlv_count = count;
    return 0;
}
