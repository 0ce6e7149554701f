#pragma once

#include <string>

#include "ddt.h"
#include "msg.h"
#include "udsClient.h"

// Management client of the local ptp4l: builds IEEE 1588 MANAGEMENT messages, sends each over
// the Unix-domain socket and reads the single reply. One request is outstanding at a time; the
// next accepted datagram is taken as the reply. Operations return 0, or -1 after logging the
// failure at ERR.
class ptp4lMng : public udsClient {
  public:
    // Turns the scaled nanoseconds of the data sets (ns * 2^16) into nanoseconds.
    static constexpr float PTP4L_DIVISOR_TO_CONVERT_TO_NS = 65536.0f;

    // Towards ptp4l's socket "/var/run/ptp4l"; avbMode sets transportSpecific 1 (gPTP).
    explicit ptp4lMng(bool avbMode);
    // Towards any server path, AVB mode off.
    explicit ptp4lMng(std::string serverPath);
    // A string literal would otherwise pick the bool constructor.
    explicit ptp4lMng(const char* serverPath) : ptp4lMng(std::string(serverPath)) {}
    ~ptp4lMng();

    // domainNumber of every later message.
    int setPtpIpcDomain(unsigned char domain);
    unsigned char ipcDomain() const { return m_ipc_domain; }
    bool avbMode() const { return m_avb_mode; }

    // Building and exchanging.
    ptp_message* pmc_message(unsigned char action);
    int pmc_tlv_datalen(int managementId);
    int pmc_send(ptp_message* msg, int length);
    ptp_message* pmc_recv();
    int send_get_action(int managementId, PortIdentity* target);
    int send_get_action(int managementId);

    // GET queries; outputs are written only on success.
    int get_time_status(unsigned char* gmIdentity);
    int get_port_data_set(unsigned short portNumber, unsigned char* clockIdentity,
                          unsigned short* portNumberOut, long long* peerMeanPathDelay,
                          signed char* logSyncInterval, signed char* logAnnounceInterval,
                          signed char* announceReceiptTimeout, signed char* logMinPdelayReqInterval,
                          unsigned char* portState);
    int get_port_data_set(portDS* ds, unsigned short portNumber);
    int get_default_ds(unsigned char* domainNumber, unsigned char* priority1,
                       unsigned char* priority2, unsigned char* clockClass,
                       unsigned char* clockAccuracy, unsigned short* offsetScaledLogVariance);
    int get_default_ds(defaultDS& ds);
    int get_parent_ds(unsigned char* gmPriority1, unsigned char* gmPriority2,
                      unsigned char* gmClockClass, unsigned char* gmClockAccuracy,
                      unsigned short* gmOffsetScaledLogVariance, unsigned char* gmIdentity);
    int get_current_ds(unsigned short* stepsRemoved, float* offsetFromMaster, float* meanPathDelay);
    int get_path_trace(unsigned int* count, unsigned long long* identities,
                       unsigned int maxEntries);
    int get_stats_results_ds(statsResultsDS& ds);

    // SET requests. portNumber < 0 addresses the whole clock (wildcard port).
    int send_set_action(int managementId, char* data, int dataLength, int portNumber);
    int set_parameter(unsigned int managementId, unsigned char value, int portNumber);
    int set_priority1(unsigned char value);
    int set_priority2(unsigned char value);
    // On success later messages carry the new domain.
    int set_domain(unsigned char value);
    // Log intervals are the signed log2 value in the low byte (-3 is 0xFD).
    int set_announce_interval(int portNumber, unsigned char value);
    int set_announce_receipt_timeout(int portNumber, unsigned char value);
    int set_sync_interval(int portNumber, unsigned char value);

    int register_for_notifications();

    // Labels of the port state (IEEE 1588 portState, 10 for a grandmaster port) and of the
    // delay mechanism; -1 when out is null.
    static int getPortRoleString(unsigned char portState, std::string* out);
    static int getDelayMechanismString(unsigned char delayMechanism, std::string* out);

  private:
    unsigned char m_ipc_domain;
    bool m_avb_mode;
};
