#pragma once

#include <cstdint>

namespace platform {

/// The Windows number of an `errno` value; one without a twin is returned plus 0x20000000.
uint32_t windowsError(int errnoValue);

} // namespace platform
