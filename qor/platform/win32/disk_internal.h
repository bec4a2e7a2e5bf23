#pragma once

#include "../disk.h"

namespace platform {

/// The disk control queries on an open handle; false with `lastError()`.
bool queryGeometry(void* handle, DiskGeometry* out);
bool queryLayout(void* handle, DiskLayout* out);
bool queryDeviceNumber(void* handle, DeviceNumber* out);
/// Bytes of a disk or volume.
bool queryLength(void* handle, int64_t* bytes);

} // namespace platform
