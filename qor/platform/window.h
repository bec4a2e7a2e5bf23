#pragma once

#include "types.h"

#include <cstdint>

namespace platform {

/// Whether the window still exists. On Linux no window does.
bool windowExists(HWND window);

/// Posts a message without waiting for the receiver. @return false when it was not queued.
bool postToWindow(HWND window, uint32_t message, void* first, void* second);

/// Stores a pair of numbers in the system's record. `out` is not null.
void storeSize(SIZE* out, int cx, int cy);

} // namespace platform
