#pragma once

// The device-wide three-valued summary of the PTP port roles.
enum PtpSummaryState : int {
    PTP_SUMMARY_UNDEFINED = 0,
    PTP_SUMMARY_MASTER = 1,
    PTP_SUMMARY_SLAVE = 2,
};
