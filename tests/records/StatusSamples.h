#pragma once

#include <cstdint>

#include "PtpBaseInfo.h"
#include "PtpBasePortInfo.h"
#include "PtpCommonInfo.h"

// Status records filled with values that differ from the defaults in every field, and
// field-by-field comparisons for the record tests.
namespace status_samples {

PtpBaseInfo makeClock(const char* id, uint8_t clockClass, uint8_t accuracy, bool slaveOnly);
PtpBasePortInfo makePort(uint16_t portId, const char* role, uint8_t roleId);
// GPTP profile, two clocks, two ports.
PtpCommonInfo makeStatus();

void expectSameClock(const PtpBaseInfo& expected, const PtpBaseInfo& actual);
void expectSamePort(const PtpBasePortInfo& expected, const PtpBasePortInfo& actual);
void expectSameStatus(const PtpCommonInfo& expected, const PtpCommonInfo& actual);

}  // namespace status_samples
