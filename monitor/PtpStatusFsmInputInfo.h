#pragma once

#include <cstdint>
#include <string>

#include "PtpCommonInfo.h"
#include "PtpSummaryState.h"

// One step's input of the status state machine, taken from the status just polled.
struct PtpStatusFsmInputInfo {
    // Grandmaster clock identity text.
    std::string gmid;
    uint8_t domain = 0;
    // 0 no port in a master or slave role, 1 master, 2 slave; anything else keeps the state.
    PtpSummaryState summaryState = PTP_SUMMARY_UNDEFINED;
    // Nanoseconds.
    float offsetFromMaster = 0.0f;
    // The whole polled status, sent as the details of a notification.
    PtpCommonInfo commonInfo;
};
