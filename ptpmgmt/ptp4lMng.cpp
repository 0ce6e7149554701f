#include "ptp4lMng.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "Logger.h"
#include "SysRoot.h"

using namespace ptp;
using wire::get16;
using wire::get32;
using wire::get64;
using wire::put16;

namespace {

// sequenceId of the next message, shared by every client of the process.
uint16_t g_next_sequence_id = 0;

constexpr uint8_t TRANSPORT_SPECIFIC_DEFAULT = 0x00;
constexpr uint8_t TRANSPORT_SPECIFIC_AVB = 0x10;
constexpr uint8_t CONTROL_FIELD_MANAGEMENT = 0x04;
constexpr uint8_t LOG_MESSAGE_INTERVAL_MANAGEMENT = 0x7F;
constexpr uint16_t SOURCE_PORT_NUMBER = 1;
constexpr uint16_t WILDCARD_PORT_NUMBER = 0xFFFF;
constexpr uint16_t SUBSCRIPTION_DURATION = 0xFFFF;  // seconds, the longest there is
constexpr uint8_t EVENTS_PORT_STATE_AND_SYNC = 0x03;
constexpr int EVENT_BITMASK_SIZE = 64;

// Offsets inside the data field of the replies.
namespace field {
constexpr int DEFAULT_PRIORITY1 = 4;
constexpr int DEFAULT_CLOCK_CLASS = 5;
constexpr int DEFAULT_CLOCK_ACCURACY = 6;
constexpr int DEFAULT_OFFSET_SCALED_LOG_VARIANCE = 7;
constexpr int DEFAULT_PRIORITY2 = 9;
constexpr int DEFAULT_DOMAIN_NUMBER = 18;
constexpr int PARENT_GM_PRIORITY1 = 18;
constexpr int PARENT_GM_CLOCK_CLASS = 19;
constexpr int PARENT_GM_CLOCK_ACCURACY = 20;
constexpr int PARENT_GM_OFFSET_SCALED_LOG_VARIANCE = 21;
constexpr int PARENT_GM_PRIORITY2 = 23;
constexpr int PARENT_GM_IDENTITY = 24;
constexpr int CURRENT_STEPS_REMOVED = 0;
constexpr int CURRENT_OFFSET_FROM_MASTER = 2;
constexpr int CURRENT_MEAN_PATH_DELAY = 10;
constexpr int DEFAULT_FLAGS = 0;
constexpr int DEFAULT_NUMBER_PORTS = 2;
constexpr int DEFAULT_CLOCK_IDENTITY = 10;
constexpr int PORT_CLOCK_IDENTITY = 0;
constexpr int PORT_NUMBER = 8;
constexpr int PORT_STATE = 10;
constexpr int PORT_LOG_MIN_DELAY_REQ_INTERVAL = 11;
constexpr int PORT_PEER_MEAN_PATH_DELAY = 12;
constexpr int PORT_LOG_ANNOUNCE_INTERVAL = 20;
constexpr int PORT_ANNOUNCE_RECEIPT_TIMEOUT = 21;
constexpr int PORT_LOG_SYNC_INTERVAL = 22;
constexpr int PORT_DELAY_MECHANISM = 23;
constexpr int PORT_LOG_MIN_PDELAY_REQ_INTERVAL = 24;
constexpr int PORT_VERSION_NUMBER = 25;
constexpr int TIME_STATUS_MASTER_OFFSET = 0;
constexpr int TIME_STATUS_SCALED_LAST_GM_PHASE_CHANGE = 20;
constexpr int TIME_STATUS_GM_TIME_BASE_INDICATOR = 24;
constexpr int TIME_STATUS_GM_IDENTITY = 42;
}  // namespace field

// The path trace reply is read at these message offsets: the list's byte count, then the
// identities.
constexpr int PATH_TRACE_LENGTH_OFFSET = 56;
constexpr int PATH_TRACE_ENTRIES_OFFSET = 58;
constexpr int CLOCK_IDENTITY_SIZE = 8;

// Scaled nanoseconds (ns * 2^16) to whole nanoseconds, rounding towards minus infinity.
long long scaledToNs(int64_t scaled) {
    return scaled >= 0 ? scaled >> 16 : ~(~scaled >> 16);
}

float scaledToFloatNs(int64_t scaled) {
    return static_cast<float>(scaled) * (1.0f / ptp4lMng::PTP4L_DIVISOR_TO_CONVERT_TO_NS);
}

int64_t getS64(const unsigned char* p) {
    return static_cast<int64_t>(get64(p));
}

void readDefaultDS(const unsigned char* data, defaultDS& ds) {
    ds.flags = data[field::DEFAULT_FLAGS];
    ds.reserved1 = data[field::DEFAULT_FLAGS + 1];
    ds.numberPorts = get16(data + field::DEFAULT_NUMBER_PORTS);
    ds.priority1 = data[field::DEFAULT_PRIORITY1];
    ds.clockQuality.clockClass = data[field::DEFAULT_CLOCK_CLASS];
    ds.clockQuality.clockAccuracy = data[field::DEFAULT_CLOCK_ACCURACY];
    ds.clockQuality.offsetScaledLogVariance =
        get16(data + field::DEFAULT_OFFSET_SCALED_LOG_VARIANCE);
    ds.priority2 = data[field::DEFAULT_PRIORITY2];
    std::memcpy(ds.clockIdentity, data + field::DEFAULT_CLOCK_IDENTITY, CLOCK_IDENTITY_SIZE);
    ds.domainNumber = data[field::DEFAULT_DOMAIN_NUMBER];
    ds.reserved2 = data[field::DEFAULT_DOMAIN_NUMBER + 1];
}

// peerMeanPathDelay converted to nanoseconds.
void readPortDS(const unsigned char* data, portDS& ds) {
    std::memcpy(ds.portIdentity.clockIdentity, data + field::PORT_CLOCK_IDENTITY,
                CLOCK_IDENTITY_SIZE);
    ds.portIdentity.portNumber = get16(data + field::PORT_NUMBER);
    ds.portState = data[field::PORT_STATE];
    ds.logMinDelayReqInterval = static_cast<int8_t>(data[field::PORT_LOG_MIN_DELAY_REQ_INTERVAL]);
    ds.peerMeanPathDelay = scaledToNs(getS64(data + field::PORT_PEER_MEAN_PATH_DELAY));
    ds.logAnnounceInterval = static_cast<int8_t>(data[field::PORT_LOG_ANNOUNCE_INTERVAL]);
    ds.announceReceiptTimeout = data[field::PORT_ANNOUNCE_RECEIPT_TIMEOUT];
    ds.logSyncInterval = static_cast<int8_t>(data[field::PORT_LOG_SYNC_INTERVAL]);
    ds.delayMechanism = data[field::PORT_DELAY_MECHANISM];
    ds.logMinPdelayReqInterval = static_cast<int8_t>(data[field::PORT_LOG_MIN_PDELAY_REQ_INTERVAL]);
    ds.versionNumber = data[field::PORT_VERSION_NUMBER];
}

// The texts one GET query logs.
struct QueryTexts {
    const char* sendError;
    const char* function;
    const char* unexpectedReply;
};

enum class ReplyCheck { Ok, EmptyTlv, Unexpected };

// Sends the GET and takes the next accepted datagram as its reply; null after logging.
ptp_message* exchange(ptp4lMng& mng, int managementId, PortIdentity* target,
                      const QueryTexts& texts) {
    if (mng.send_get_action(managementId, target) < 0) {
        Logger::log(Logger::ERR, "%s", texts.sendError);
        return nullptr;
    }
    ptp_message* reply = mng.pmc_recv();
    if (!reply) {
        Logger::log(Logger::ERR, "ptp4lMng:: %s: Error receiving message", texts.function);
    }
    return reply;
}

// Whether the reply carries the data of managementId; releases it and logs when not.
ReplyCheck checkReply(ptp_message* reply, int managementId, const QueryTexts& texts) {
    const unsigned char* d = reply->data;
    const uint16_t word = get16(d + mgmt::TLV_ID);
    if (get16(d + mgmt::TLV_LENGTH) == 2 && word != 0) {
        Logger::log(Logger::ERR, "ptp4lMng:: empty-tlv");
        msg_put(reply);
        return ReplyCheck::EmptyTlv;
    }
    if (word != managementId) {
        Logger::log(Logger::ERR, texts.unexpectedReply, word);
        msg_put(reply);
        return ReplyCheck::Unexpected;
    }
    return ReplyCheck::Ok;
}

// The reply to a GET of managementId with its data, or null after logging.
ptp_message* query(ptp4lMng& mng, int managementId, PortIdentity* target, const QueryTexts& texts) {
    ptp_message* reply = exchange(mng, managementId, target, texts);
    if (!reply || checkReply(reply, managementId, texts) != ReplyCheck::Ok) {
        return nullptr;
    }
    return reply;
}

// All clocks, one port.
PortIdentity portTarget(unsigned short portNumber) {
    PortIdentity target;
    std::memset(target.clockIdentity, 0xFF, sizeof(target.clockIdentity));
    target.portNumber = portNumber;
    return target;
}

template <typename T>
void store(T* out, T value) {
    if (out) {
        *out = value;
    }
}

const QueryTexts TIME_STATUS_TEXTS = {
    "ptp4lMng:: Error sending command TLV_TIME_STATUS_NP", "get_time_status",
    "ptp4lMng:: Got unexpected reponse type 0x%X to get_time_status request"};
const QueryTexts PORT_DATA_SET_TEXTS = {
    "ptp4lMng:: Error sending command GET TLV_PORT_DATA_SET", "get_port_data_set",
    "ptp4lMng:: Got unexpected response type 0x%X to get_port_data_set request"};
const QueryTexts DEFAULT_DS_TEXTS = {
    "ptp4lMng:: Error sending command GET TLV_DEFAULT_DATA_SET", "get_default_ds",
    "ptp4lMng:: Got unexpected reponse type 0x%X to get_default_data_set request"};
const QueryTexts PARENT_DS_TEXTS = {
    "ptp4lMng:: Error sending command GET TLV_PARENT_DATA_SET", "get_parent_ds",
    "ptp4lMng:: Got unexpected reponse type 0x%X to get_parent_data_set request"};
const QueryTexts CURRENT_DS_TEXTS = {
    "ptp4lMng:: Error sending command GET TLV_CURRENT_DATA_SET", "get_current_ds",
    "ptp4lMng:: Got unexpected reponse type 0x%X to get_current_ds request"};
const QueryTexts PATH_TRACE_TEXTS = {
    "ptp4lMng:: Error sending command GET TLV_PATH_TRACE_LIST", "get_path_trace",
    "ptp4lMng:: Got unexpected reponse type 0x%X to get_path_trace request"};
const QueryTexts STATS_TEXTS = {
    "ptp4lMng:: Error sending command GET TLV_STATS_DATA_SET_NP", "get_stats_results_ds",
    "ptp4lMng:: Got unexpected reponse type 0x%X to get_stats_results_ds request"};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Construction

// The socket is close-on-exec: ptp4l and the init script are started by system() and must not
// inherit it for their whole life.
ptp4lMng::ptp4lMng(bool avbMode)
    : udsClient(SysRoot::path("/var/run/ptp4l"), SOCK_CLOEXEC),
      m_ipc_domain(0),
      m_avb_mode(avbMode) {
    Logger::log(Logger::INF, "Creating ptp4l management interface in %s mode",
                avbMode ? "AVB" : "non-AVB");
}

ptp4lMng::ptp4lMng(std::string serverPath)
    : udsClient(std::move(serverPath), SOCK_CLOEXEC), m_ipc_domain(0), m_avb_mode(false) {}

ptp4lMng::~ptp4lMng() = default;

int ptp4lMng::setPtpIpcDomain(unsigned char domain) {
    m_ipc_domain = domain;
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Building and exchanging

ptp_message* ptp4lMng::pmc_message(unsigned char action) {
    ptp_message* msg = msg_allocate();
    if (!msg) {
        return nullptr;
    }
    msg->hwts_kind = HWTS_SOFTWARE;
    unsigned char* d = msg->data;
    const uint8_t transport = m_avb_mode ? TRANSPORT_SPECIFIC_AVB : TRANSPORT_SPECIFIC_DEFAULT;
    d[hdr::TYPE] = transport | MANAGEMENT;
    d[hdr::VERSION] = PTP_VERSION;
    put16(d + hdr::MESSAGE_LENGTH, mgmt::SIZE);
    d[hdr::DOMAIN_NUMBER] = m_ipc_domain;
    put16(d + hdr::SOURCE_PORT_NUMBER, SOURCE_PORT_NUMBER);
    put16(d + hdr::SEQUENCE_ID, g_next_sequence_id++);
    d[hdr::CONTROL_FIELD] = CONTROL_FIELD_MANAGEMENT;
    d[hdr::LOG_MESSAGE_INTERVAL] = LOG_MESSAGE_INTERVAL_MANAGEMENT;
    std::memset(d + mgmt::TARGET_CLOCK_IDENTITY, 0xFF, CLOCK_IDENTITY_SIZE);
    put16(d + mgmt::TARGET_PORT_NUMBER, WILDCARD_PORT_NUMBER);
    // Requests never leave the local ptp4l.
    d[mgmt::STARTING_BOUNDARY_HOPS] = 0;
    d[mgmt::BOUNDARY_HOPS] = 0;
    d[mgmt::ACTION_FIELD] = action & 0x0F;
    return msg;
}

int ptp4lMng::pmc_tlv_datalen(int managementId) {
    switch (managementId) {
        case MID_NULL_MANAGEMENT:
        case MID_PATH_TRACE_LIST:
            return 0;
        case MID_CLOCK_DESCRIPTION:
            return len::CLOCK_DESCRIPTION_MIN;
        case MID_USER_DESCRIPTION:
        case MID_PRIORITY1:
        case MID_PRIORITY2:
        case MID_DOMAIN:
        case MID_SLAVE_ONLY:
        case MID_LOG_ANNOUNCE_INTERVAL:
        case MID_ANNOUNCE_RECEIPT_TIMEOUT:
        case MID_LOG_SYNC_INTERVAL:
        case MID_VERSION_NUMBER:
        case MID_CLOCK_ACCURACY:
        case MID_TRACEABILITY_PROPERTIES:
        case MID_TIMESCALE_PROPERTIES:
        case MID_DELAY_MECHANISM:
        case MID_LOG_MIN_PDELAY_REQ_INTERVAL:
            return 2;
        case MID_DEFAULT_DATA_SET:
            return len::DEFAULT_DATA_SET;
        case MID_CURRENT_DATA_SET:
            return len::CURRENT_DATA_SET;
        case MID_PARENT_DATA_SET:
            return len::PARENT_DATA_SET;
        case MID_TIME_PROPERTIES_DATA_SET:
            return len::TIME_PROPERTIES_DATA_SET;
        case MID_PORT_DATA_SET:
            return len::PORT_DATA_SET;
        case MID_TIME_STATUS_NP:
            return len::TIME_STATUS_NP;
        case MID_GRANDMASTER_SETTINGS_NP:
        case MID_PORT_DATA_SET_NP:
            return len::GRANDMASTER_SETTINGS_NP;
        case TLV_STATS_DATA_SET_NP:
            return len::STATS_DATA_SET_NP;
        default:
            Logger::log(Logger::ERR, "Error unsupported case %d in function %s", managementId,
                        "pmc_tlv_datalen");
            return 0;
    }
}

int ptp4lMng::pmc_send(ptp_message* msg, int length) {
    if (msg_pre_send(msg) < 0) {
        Logger::log(Logger::ERR, "ptp4lMng:: msg pre send error");
        return -1;
    }
    return uds_send(msg->data, static_cast<unsigned int>(length));
}

ptp_message* ptp4lMng::pmc_recv() {
    ptp_message* msg = msg_allocate();
    if (!msg) {
        Logger::log(Logger::ERR, "ptp4lMng:: low memory");
        return nullptr;
    }
    msg->hwts_kind = HWTS_SOFTWARE;
    const int cnt = uds_recv(msg->data, sizeof(msg->data), msg->address, sizeof(msg->address));
    if (cnt < 1) {
        Logger::log(Logger::ERR, "ptp4lMng:: recv message failed");
        msg_put(msg);
        return nullptr;
    }
    const int err = msg_post_recv(msg, cnt);
    switch (err) {
        case 0:
            return msg;
        case -EPROTO:
            Logger::log(Logger::ERR, "ptp4lMng:: ignoring message");
            break;
        case -ETIME:
            Logger::log(Logger::ERR, "ptp4lMng:: received %s without timestamp",
                        msg_type_string(msg->type()));
            break;
        case -EBADMSG:
            Logger::log(Logger::ERR, "ptp4lMng:: bad message");
            break;
        default:
            Logger::log(Logger::ERR, "Error unsupported case %s", "pmc_recv");
            break;
    }
    msg_put(msg);
    return nullptr;
}

int ptp4lMng::send_get_action(int managementId, PortIdentity* target) {
    ptp_message* msg = pmc_message(GET);
    if (!msg) {
        return -1;
    }
    unsigned char* d = msg->data;
    const int dataLength = pmc_tlv_datalen(managementId);
    put16(d + mgmt::TLV_TYPE, TLV_MANAGEMENT);
    put16(d + mgmt::TLV_LENGTH, static_cast<uint16_t>(dataLength + 2));
    put16(d + mgmt::TLV_ID, static_cast<uint16_t>(managementId));
    const int length = mgmt::TLV_DATA + dataLength;
    put16(d + hdr::MESSAGE_LENGTH, static_cast<uint16_t>(length));
    msg->tlv_count = 1;
    if (target) {
        std::memcpy(d + mgmt::TARGET_CLOCK_IDENTITY, target->clockIdentity, CLOCK_IDENTITY_SIZE);
        put16(d + mgmt::TARGET_PORT_NUMBER, target->portNumber);
    }
    if (managementId == MID_CLOCK_DESCRIPTION) {
        // The empty description: every text and address has length 0.
        unsigned char* data = d + mgmt::TLV_DATA;
        tlv_extra& cd = msg->last_tlv;
        cd.clockType = data;
        cd.physicalLayerProtocol = data + 2;
        cd.physicalAddressLength = data + 3;
        cd.protocolAddress = data + 5;
        cd.manufacturerIdentity = data + 9;
        cd.productDescription = data + 13;
        cd.revisionData = data + 14;
        cd.userDescription = data + 15;
        cd.profileIdentity = data + 16;
    }
    // A lost request shows up as a failed receive.
    pmc_send(msg, length);
    msg_put(msg);
    return 0;
}

int ptp4lMng::send_get_action(int managementId) {
    PortIdentity wildcard = portTarget(WILDCARD_PORT_NUMBER);
    return send_get_action(managementId, &wildcard);
}

// ---------------------------------------------------------------------------------------------
// Queries

int ptp4lMng::get_time_status(unsigned char* gmIdentity) {
    ptp_message* reply = exchange(*this, MID_TIME_STATUS_NP, nullptr, TIME_STATUS_TEXTS);
    // A failed exchange counts as an empty answer: no grandmaster known.
    const ReplyCheck check =
        reply ? checkReply(reply, MID_TIME_STATUS_NP, TIME_STATUS_TEXTS) : ReplyCheck::EmptyTlv;
    if (check != ReplyCheck::Ok) {
        // A reply of another kind leaves the identity as it was.
        if (check == ReplyCheck::EmptyTlv && gmIdentity) {
            gmIdentity[0] = 0;
        }
        return -1;
    }
    const unsigned char* data = reply->data + mgmt::TLV_DATA;
    const unsigned char* id = data + field::TIME_STATUS_GM_IDENTITY;
    if (gmIdentity) {
        std::memcpy(gmIdentity, id, CLOCK_IDENTITY_SIZE);
    }
    Logger::log(Logger::DBG, "ptp4lMng:: Get GM ID %2.2X %2.2X %2.2X %2.2X %2.2X %2.2X %2.2X %2.2X",
                id[0], id[1], id[2], id[3], id[4], id[5], id[6], id[7]);
    Logger::log(Logger::DBG, "ptp4lMng:: TimeBaseInd  = %d",
                get16(data + field::TIME_STATUS_GM_TIME_BASE_INDICATOR));
    Logger::log(Logger::DBG, "ptp4lMng:: FreqOffset   = %d",
                static_cast<int32_t>(get32(data + field::TIME_STATUS_SCALED_LAST_GM_PHASE_CHANGE)));
    Logger::log(Logger::DBG, "ptp4lMng:: MasterOffset = %lld",
                static_cast<long long>(getS64(data + field::TIME_STATUS_MASTER_OFFSET)));
    msg_put(reply);
    return 0;
}

int ptp4lMng::get_port_data_set(unsigned short portNumber, unsigned char* clockIdentity,
                                unsigned short* portNumberOut, long long* peerMeanPathDelay,
                                signed char* logSyncInterval, signed char* logAnnounceInterval,
                                signed char* announceReceiptTimeout,
                                signed char* logMinPdelayReqInterval, unsigned char* portState) {
    PortIdentity target = portTarget(portNumber);
    ptp_message* reply = query(*this, MID_PORT_DATA_SET, &target, PORT_DATA_SET_TEXTS);
    if (!reply) {
        return -1;
    }
    portDS ds;
    readPortDS(reply->data + mgmt::TLV_DATA, ds);
    msg_put(reply);
    if (clockIdentity) {
        std::memcpy(clockIdentity, ds.portIdentity.clockIdentity, CLOCK_IDENTITY_SIZE);
    }
    store(portNumberOut, static_cast<unsigned short>(ds.portIdentity.portNumber));
    store(peerMeanPathDelay, static_cast<long long>(ds.peerMeanPathDelay));
    store(logSyncInterval, static_cast<signed char>(ds.logSyncInterval));
    store(logAnnounceInterval, static_cast<signed char>(ds.logAnnounceInterval));
    store(announceReceiptTimeout, static_cast<signed char>(ds.announceReceiptTimeout));
    store(logMinPdelayReqInterval, static_cast<signed char>(ds.logMinPdelayReqInterval));
    store(portState, static_cast<unsigned char>(ds.portState));
    return 0;
}

int ptp4lMng::get_port_data_set(portDS* ds, unsigned short portNumber) {
    if (!ds) {
        return -1;
    }
    PortIdentity target = portTarget(portNumber);
    ptp_message* reply = query(*this, MID_PORT_DATA_SET, &target, PORT_DATA_SET_TEXTS);
    if (!reply) {
        return -1;
    }
    readPortDS(reply->data + mgmt::TLV_DATA, *ds);
    msg_put(reply);
    return 0;
}

int ptp4lMng::get_default_ds(unsigned char* domainNumber, unsigned char* priority1,
                             unsigned char* priority2, unsigned char* clockClass,
                             unsigned char* clockAccuracy,
                             unsigned short* offsetScaledLogVariance) {
    ptp_message* reply = query(*this, MID_DEFAULT_DATA_SET, nullptr, DEFAULT_DS_TEXTS);
    if (!reply) {
        return -1;
    }
    defaultDS ds;
    readDefaultDS(reply->data + mgmt::TLV_DATA, ds);
    msg_put(reply);
    store(domainNumber, static_cast<unsigned char>(ds.domainNumber));
    store(priority1, static_cast<unsigned char>(ds.priority1));
    store(priority2, static_cast<unsigned char>(ds.priority2));
    store(clockClass, static_cast<unsigned char>(ds.clockQuality.clockClass));
    store(clockAccuracy, static_cast<unsigned char>(ds.clockQuality.clockAccuracy));
    store(offsetScaledLogVariance,
          static_cast<unsigned short>(ds.clockQuality.offsetScaledLogVariance));
    return 0;
}

int ptp4lMng::get_default_ds(defaultDS& ds) {
    ptp_message* reply = query(*this, MID_DEFAULT_DATA_SET, nullptr, DEFAULT_DS_TEXTS);
    if (!reply) {
        return -1;
    }
    readDefaultDS(reply->data + mgmt::TLV_DATA, ds);
    msg_put(reply);
    return 0;
}

int ptp4lMng::get_parent_ds(unsigned char* gmPriority1, unsigned char* gmPriority2,
                            unsigned char* gmClockClass, unsigned char* gmClockAccuracy,
                            unsigned short* gmOffsetScaledLogVariance, unsigned char* gmIdentity) {
    ptp_message* reply = query(*this, MID_PARENT_DATA_SET, nullptr, PARENT_DS_TEXTS);
    if (!reply) {
        return -1;
    }
    const unsigned char* data = reply->data + mgmt::TLV_DATA;
    store(gmPriority1, data[field::PARENT_GM_PRIORITY1]);
    store(gmPriority2, data[field::PARENT_GM_PRIORITY2]);
    store(gmClockClass, data[field::PARENT_GM_CLOCK_CLASS]);
    store(gmClockAccuracy, data[field::PARENT_GM_CLOCK_ACCURACY]);
    store(gmOffsetScaledLogVariance,
          static_cast<unsigned short>(get16(data + field::PARENT_GM_OFFSET_SCALED_LOG_VARIANCE)));
    if (gmIdentity) {
        std::memcpy(gmIdentity, data + field::PARENT_GM_IDENTITY, CLOCK_IDENTITY_SIZE);
    }
    msg_put(reply);
    return 0;
}

int ptp4lMng::get_current_ds(unsigned short* stepsRemoved, float* offsetFromMaster,
                             float* meanPathDelay) {
    Logger::log(Logger::VERBOSE, "ptp4lMng::get_current_ds");
    ptp_message* reply = exchange(*this, MID_CURRENT_DATA_SET, nullptr, CURRENT_DS_TEXTS);
    if (!reply) {
        return -1;
    }
    const unsigned char* d = reply->data;
    const unsigned char* data = d + mgmt::TLV_DATA;
    const uint16_t steps = get16(data + field::CURRENT_STEPS_REMOVED);
    const int64_t offset = getS64(data + field::CURRENT_OFFSET_FROM_MASTER);
    const int64_t delay = getS64(data + field::CURRENT_MEAN_PATH_DELAY);
    Logger::log(Logger::VERBOSE,
                "ptp4lMng::get_current_ds got response type=%d l=%d id=%X sr=%d off=%lld (%llX) "
                "meanPd=%lld (%llX)",
                get16(d + mgmt::TLV_TYPE), get16(d + mgmt::TLV_LENGTH), get16(d + mgmt::TLV_ID),
                steps, scaledToNs(offset), static_cast<unsigned long long>(offset),
                scaledToNs(delay), static_cast<unsigned long long>(delay));
    if (checkReply(reply, MID_CURRENT_DATA_SET, CURRENT_DS_TEXTS) != ReplyCheck::Ok) {
        return -1;
    }
    store(stepsRemoved, static_cast<unsigned short>(steps));
    store(offsetFromMaster, scaledToFloatNs(offset));
    store(meanPathDelay, scaledToFloatNs(delay));
    msg_put(reply);
    return 0;
}

int ptp4lMng::get_path_trace(unsigned int* count, unsigned long long* identities,
                             unsigned int maxEntries) {
    ptp_message* reply = query(*this, MID_PATH_TRACE_LIST, nullptr, PATH_TRACE_TEXTS);
    if (!reply) {
        return -1;
    }
    const unsigned char* d = reply->data;
    const unsigned int entries = get16(d + PATH_TRACE_LENGTH_OFFSET) / CLOCK_IDENTITY_SIZE;
    store(count, entries);
    // The list must also lie within the message buffer.
    const unsigned int room =
        (MESSAGE_BUFFER_SIZE - PATH_TRACE_ENTRIES_OFFSET) / CLOCK_IDENTITY_SIZE;
    if (entries > maxEntries || entries > room) {
        Logger::log(Logger::ERR, "ptp4lMng:: Invalid number of path_trace entries");
        msg_put(reply);
        return -1;
    }
    if (identities && entries > 0) {
        std::memcpy(identities, d + PATH_TRACE_ENTRIES_OFFSET, entries * CLOCK_IDENTITY_SIZE);
    }
    msg_put(reply);
    return 0;
}

int ptp4lMng::get_stats_results_ds(statsResultsDS& ds) {
    ptp_message* reply = query(*this, TLV_STATS_DATA_SET_NP, nullptr, STATS_TEXTS);
    if (!reply) {
        return -1;
    }
    // The values arrive in the device's own byte order.
    std::memcpy(&ds, reply->data + mgmt::TLV_DATA, sizeof(ds));
    msg_put(reply);
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Settings

int ptp4lMng::send_set_action(int managementId, char* data, int dataLength, int portNumber) {
    if (dataLength < 0 || mgmt::TLV_DATA + dataLength > MESSAGE_BUFFER_SIZE ||
        (dataLength > 0 && !data)) {
        return -1;
    }
    ptp_message* msg = pmc_message(SET);
    if (!msg) {
        return -1;
    }
    unsigned char* d = msg->data;
    if (portNumber >= 0) {
        put16(d + mgmt::TARGET_PORT_NUMBER, static_cast<uint16_t>(portNumber));
    }
    put16(d + mgmt::TLV_TYPE, TLV_MANAGEMENT);
    put16(d + mgmt::TLV_LENGTH, static_cast<uint16_t>(dataLength + 2));
    put16(d + mgmt::TLV_ID, static_cast<uint16_t>(managementId));
    if (dataLength > 0) {
        std::memcpy(d + mgmt::TLV_DATA, data, static_cast<size_t>(dataLength));
    }
    const int length = mgmt::TLV_DATA + dataLength;
    put16(d + hdr::MESSAGE_LENGTH, static_cast<uint16_t>(length));
    msg->tlv_count = 1;
    pmc_send(msg, length);
    msg_put(msg);
    return 0;
}

int ptp4lMng::set_parameter(unsigned int managementId, unsigned char value, int portNumber) {
    // The one-byte management datum and its reserved pad byte.
    char data[2] = {static_cast<char>(value), 0};
    if (send_set_action(static_cast<int>(managementId), data, sizeof(data), portNumber) < 0) {
        Logger::log(Logger::ERR, "ptp4lMng:: Error sending set tlv %x", managementId);
        return -1;
    }
    Logger::log(Logger::DBG, "ptp4lMng:: Awaiting TLV %x response", managementId);
    ptp_message* reply = pmc_recv();
    if (!reply) {
        Logger::log(Logger::ERR, "ptp4lMng:: Error receiving message %d", managementId);
        return -1;
    }
    Logger::log(Logger::DBG, "ptp4lMng:: Got response");
    // ptp4l echoes the applied value and its pad byte; a refusal (its managementId here) shows
    // up as a mismatch.
    const uint16_t echoed = get16(reply->data + mgmt::TLV_DATA);
    if (echoed != value) {
        Logger::log(Logger::ERR, "ptp4lMng:: Error setting parameter %x %x", echoed, value);
        // Released too: ptp4l refuses some SETs for good, and the reconciliation repeats them
        // every second.
        msg_put(reply);
        return -1;
    }
    msg_put(reply);
    return 0;
}

int ptp4lMng::set_priority1(unsigned char value) {
    return set_parameter(MID_PRIORITY1, value, -1);
}

int ptp4lMng::set_priority2(unsigned char value) {
    return set_parameter(MID_PRIORITY2, value, -1);
}

int ptp4lMng::set_domain(unsigned char value) {
    const int result = set_parameter(MID_DOMAIN, value, -1);
    if (result == 0) {
        // ptp4l ignores messages of any other domain from now on.
        setPtpIpcDomain(value);
    }
    return result;
}

int ptp4lMng::set_announce_interval(int portNumber, unsigned char value) {
    return set_parameter(MID_LOG_ANNOUNCE_INTERVAL, value, portNumber);
}

int ptp4lMng::set_announce_receipt_timeout(int portNumber, unsigned char value) {
    return set_parameter(MID_ANNOUNCE_RECEIPT_TIMEOUT, value, portNumber);
}

int ptp4lMng::set_sync_interval(int portNumber, unsigned char value) {
    return set_parameter(MID_LOG_SYNC_INTERVAL, value, portNumber);
}

int ptp4lMng::register_for_notifications() {
    char data[len::SUBSCRIBE_EVENTS_NP] = {};
    std::memcpy(data, &SUBSCRIPTION_DURATION, sizeof(SUBSCRIPTION_DURATION));
    data[2] = static_cast<char>(EVENTS_PORT_STATE_AND_SYNC);
    static_assert(2 + EVENT_BITMASK_SIZE == len::SUBSCRIBE_EVENTS_NP, "subscription layout");

    Logger::log(Logger::DBG, "ptp4lMng:: Sending TLV_SUBSCRIBE_EVENTS_NP");
    if (send_set_action(MID_SUBSCRIBE_EVENTS_NP, data, sizeof(data), -1) < 0) {
        Logger::log(Logger::ERR, "ptp4lMng:: Error sending set TLV_SUBSCRIBE_EVENTS_NP");
        return -1;
    }
    Logger::log(Logger::DBG, "ptp4lMng:: Awaiting TLV_SUBSCRIBE_EVENTS_NP response");
    ptp_message* reply = pmc_recv();
    if (!reply) {
        Logger::log(Logger::ERR, "ptp4lMng:: %s: Error receiving message",
                    "register_for_notifications");
        return -1;
    }
    Logger::log(Logger::DBG, "ptp4lMng:: Got response");
    const unsigned char* d = reply->data;
    int result = -1;
    // Only an error status carries the managementId here; a MANAGEMENT reply has the echoed
    // duration in this place.
    const uint16_t id = get16(d + mgmt::TLV_DATA);
    if (id != MID_SUBSCRIBE_EVENTS_NP) {
        Logger::log(Logger::ERR, "ptp4lMng:: Unknown TLV ID %d", id);
    } else {
        const uint16_t tlvType = get16(d + mgmt::TLV_TYPE);
        switch (tlvType) {
            case TLV_MANAGEMENT:
                Logger::log(Logger::ERR, "ptp4lMng:: Subscription success reported");
                result = 0;
                break;
            case TLV_MANAGEMENT_ERROR_STATUS:
                Logger::log(Logger::ERR, "ptp4lMng:: Subscription error %d reported",
                            get16(d + mgmt::TLV_ID));
                break;
            default:
                Logger::log(Logger::ERR, "ptp4lMng:: Unknown TLV type %d", tlvType);
                break;
        }
    }
    msg_put(reply);
    return result;
}

// ---------------------------------------------------------------------------------------------
// Labels

int ptp4lMng::getPortRoleString(unsigned char portState, std::string* out) {
    if (!out) {
        return -1;
    }
    static const char* const labels[] = {"--",           "Initializing", "Faulty",      "Disabled",
                                         "Listening",    "Pre Master",   "Master",      "Passive",
                                         "Uncalibrated", "Slave",        "Grand Master"};
    out->clear();
    *out = portState < sizeof(labels) / sizeof(labels[0]) ? labels[portState] : "--";
    return 0;
}

int ptp4lMng::getDelayMechanismString(unsigned char delayMechanism, std::string* out) {
    if (!out) {
        return -1;
    }
    static const char* const labels[] = {"Auto", "E2E", "P2P"};
    out->clear();
    *out = delayMechanism < sizeof(labels) / sizeof(labels[0]) ? labels[delayMechanism] : "--";
    return 0;
}
