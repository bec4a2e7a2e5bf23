#pragma once

#include "capture_state.h"

class CqorSIO_Object;

namespace plugins {

/// Sends an operation and, when it succeeds, changes the state bits. @return the plug-in's status.
int runOperation(CqorSIO_Object& device, StateFlags& state, const char* operation, const char* argument, uint32_t set,
    uint32_t clear);

/// Reads the six texts of a device; what it does not tell is left empty.
void readDeviceStrings(CqorSIO_Object& device, const char* vendorKey, DeviceStrings* out);

/// Seconds of the counter. Not `appGetTime`, whose scale the host may not have set yet or sets
/// by a configuration file: intervals and time limits of a device hold from the first call on.
double counterSeconds();

} // namespace plugins
