#pragma once

#include <cstdint>

// Wire vocabulary of IEEE 1588-2008 management messages as exchanged with ptp4l: message
// types, offsets of the fields the codec touches, TLV types and management ids, and the
// data-set records the management client hands out.

namespace ptp {

// Low nibble of byte 0.
enum MessageType : uint8_t {
    SYNC = 0x0,
    DELAY_REQ = 0x1,
    PDELAY_REQ = 0x2,
    PDELAY_RESP = 0x3,
    FOLLOW_UP = 0x8,
    DELAY_RESP = 0x9,
    PDELAY_RESP_FOLLOW_UP = 0xA,
    ANNOUNCE = 0xB,
    SIGNALING = 0xC,
    MANAGEMENT = 0xD,
};

// actionField of a MANAGEMENT message (low nibble of byte 46).
enum ManagementAction : uint8_t {
    GET = 0,
    SET = 1,
    RESPONSE = 2,
    COMMAND = 3,
    ACKNOWLEDGE = 4,
};

constexpr int PTP_VERSION = 2;
constexpr int MESSAGE_BUFFER_SIZE = 1500;

// Common header, offsets from the start of the message.
namespace hdr {
constexpr int TYPE = 0;  // transportSpecific (high nibble), messageType (low nibble)
constexpr int VERSION = 1;
constexpr int MESSAGE_LENGTH = 2;
constexpr int DOMAIN_NUMBER = 4;
constexpr int FLAG_FIELD = 6;
constexpr int CORRECTION = 8;
constexpr int SOURCE_CLOCK_IDENTITY = 20;
constexpr int SOURCE_PORT_NUMBER = 28;
constexpr int SEQUENCE_ID = 30;
constexpr int CONTROL_FIELD = 32;
constexpr int LOG_MESSAGE_INTERVAL = 33;
constexpr int SIZE = 34;
}  // namespace hdr

// Bodies of the other message types.
namespace body {
constexpr int TIMESTAMP_SECONDS_MSB = 34;
constexpr int TIMESTAMP_SECONDS_LSB = 36;
constexpr int TIMESTAMP_NANOSECONDS = 40;
constexpr int REQUESTING_PORT_NUMBER = 52;
constexpr int ANNOUNCE_CURRENT_UTC_OFFSET = 44;
constexpr int ANNOUNCE_OFFSET_SCALED_LOG_VARIANCE = 50;
constexpr int ANNOUNCE_STEPS_REMOVED = 61;
}  // namespace body

// MANAGEMENT body and the first TLV that follows it.
namespace mgmt {
constexpr int TARGET_CLOCK_IDENTITY = 34;
constexpr int TARGET_PORT_NUMBER = 42;
constexpr int STARTING_BOUNDARY_HOPS = 44;
constexpr int BOUNDARY_HOPS = 45;
constexpr int ACTION_FIELD = 46;
constexpr int SIZE = 48;
// First TLV of a management message.
constexpr int TLV_TYPE = 48;
constexpr int TLV_LENGTH = 50;
constexpr int TLV_ID = 52;  // managementId, or managementErrorId in an error status
constexpr int TLV_DATA = 54;
}  // namespace mgmt

// Every TLV starts with tlvType and lengthField; lengthField counts what follows them.
constexpr int TLV_HEAD_SIZE = 4;

enum TlvType : uint16_t {
    TLV_MANAGEMENT = 0x0001,
    TLV_MANAGEMENT_ERROR_STATUS = 0x0002,
    TLV_ORGANIZATION_EXTENSION = 0x0003,
    TLV_PATH_TRACE = 0x0008,
};

// A PATH_TRACE list longer than this many clock identities is cut to it.
constexpr int PATH_TRACE_MAX_ENTRIES = 179;

enum ManagementId : uint16_t {
    MID_NULL_MANAGEMENT = 0x0000,
    MID_CLOCK_DESCRIPTION = 0x0001,
    MID_USER_DESCRIPTION = 0x0002,
    MID_SAVE_IN_NON_VOLATILE_STORAGE = 0x0003,
    MID_RESET_NON_VOLATILE_STORAGE = 0x0004,
    MID_INITIALIZE = 0x0005,
    MID_FAULT_LOG = 0x0006,
    MID_FAULT_LOG_RESET = 0x0007,
    MID_DEFAULT_DATA_SET = 0x2000,
    MID_CURRENT_DATA_SET = 0x2001,
    MID_PARENT_DATA_SET = 0x2002,
    MID_TIME_PROPERTIES_DATA_SET = 0x2003,
    MID_PORT_DATA_SET = 0x2004,
    MID_PRIORITY1 = 0x2005,
    MID_PRIORITY2 = 0x2006,
    MID_DOMAIN = 0x2007,
    MID_SLAVE_ONLY = 0x2008,
    MID_LOG_ANNOUNCE_INTERVAL = 0x2009,
    MID_ANNOUNCE_RECEIPT_TIMEOUT = 0x200A,
    MID_LOG_SYNC_INTERVAL = 0x200B,
    MID_VERSION_NUMBER = 0x200C,
    MID_ENABLE_PORT = 0x200D,
    MID_DISABLE_PORT = 0x200E,
    MID_TIME = 0x200F,
    MID_CLOCK_ACCURACY = 0x2010,
    MID_UTC_PROPERTIES = 0x2011,
    MID_TRACEABILITY_PROPERTIES = 0x2012,
    MID_TIMESCALE_PROPERTIES = 0x2013,
    MID_UNICAST_NEGOTIATION_ENABLE = 0x2014,
    MID_PATH_TRACE_LIST = 0x2015,
    MID_PATH_TRACE_ENABLE = 0x2016,
    MID_DELAY_MECHANISM = 0x6000,
    MID_LOG_MIN_PDELAY_REQ_INTERVAL = 0x6001,
    // ptp4l's own management ids.
    MID_TIME_STATUS_NP = 0xC000,
    MID_GRANDMASTER_SETTINGS_NP = 0xC001,
    MID_PORT_DATA_SET_NP = 0xC002,
    MID_SUBSCRIBE_EVENTS_NP = 0xC003,
    MID_PORT_PROPERTIES_NP = 0xC004,
    MID_0xC005 = 0xC005,
    // Statistics answered by the ptp4l build on the device.
    TLV_STATS_DATA_SET_NP = 0xC006,
};

// Data lengths of the fixed-size management data fields.
namespace len {
constexpr int DEFAULT_DATA_SET = 20;
constexpr int CURRENT_DATA_SET = 18;
constexpr int PARENT_DATA_SET = 32;
constexpr int TIME_PROPERTIES_DATA_SET = 4;
constexpr int PORT_DATA_SET = 26;
constexpr int TIME_STATUS_NP = 50;
constexpr int GRANDMASTER_SETTINGS_NP = 8;
constexpr int PORT_DATA_SET_NP = 8;
constexpr int SUBSCRIBE_EVENTS_NP = 66;
constexpr int PORT_PROPERTIES_NP_MIN = 13;
constexpr int STATS_DATA_SET_NP = 48;
constexpr int CLOCK_DESCRIPTION_MIN = 22;
}  // namespace len

}  // namespace ptp

// Data-set records, in host byte order: the fields of their wire form in the same order, with
// natural alignment so that every field can be used (and referenced) freely.
struct ClockQuality {
    uint8_t clockClass;
    uint8_t clockAccuracy;
    uint16_t offsetScaledLogVariance;
};

struct PortIdentity {
    uint8_t clockIdentity[8];
    uint16_t portNumber;
};

// IEEE 1588-2008 15.5.3.3.1 (20 bytes on the wire).
struct defaultDS {
    uint8_t flags;  // bit 0 twoStepFlag, bit 1 slaveOnly
    uint8_t reserved1;
    uint16_t numberPorts;
    uint8_t priority1;
    ClockQuality clockQuality;
    uint8_t priority2;
    uint8_t clockIdentity[8];
    uint8_t domainNumber;
    uint8_t reserved2;
};

// IEEE 1588-2008 15.5.3.7.1 (26 bytes on the wire); peerMeanPathDelay as handed out by
// ptp4lMng is in nanoseconds.
struct portDS {
    PortIdentity portIdentity;
    uint8_t portState;
    int8_t logMinDelayReqInterval;
    int64_t peerMeanPathDelay;
    int8_t logAnnounceInterval;
    uint8_t announceReceiptTimeout;
    int8_t logSyncInterval;
    uint8_t delayMechanism;
    int8_t logMinPdelayReqInterval;
    uint8_t versionNumber;
};

// The statistics data set, six doubles in the device's own byte order, exactly as on the wire.
struct statsResultsDS {
    double masterOffsetRMS;
    double masterOffsetMaxAbs;
    double freqDeviationMean;
    double freqDeviationStdDev;
    double pathDelayMean;
    double pathDelayStdDev;
};

static_assert(sizeof(statsResultsDS) == ptp::len::STATS_DATA_SET_NP, "statistics wire size");
