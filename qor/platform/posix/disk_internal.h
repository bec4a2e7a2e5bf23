#pragma once

#include "../file.h"

namespace platform {

/// Opens "\\.\PhysicalDrive<n>" or "\\.\<letter>:" as the operator named them; error 2 for
/// every other name and for one that was not given.
std::unique_ptr<File> openDevice(const char* name, const FileOpen& how);

} // namespace platform
