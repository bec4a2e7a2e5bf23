#pragma once

#include "types.h"

#include <cstdint>

namespace platform {

/// The extension of loadable libraries, without the point: "DLL" on Windows, "so" on Linux.
extern const char* const kModuleExtension;

/// Loads a library with its dependencies. @return null on failure, with `lastError()`.
ModuleHandle loadModule(const char* path);
/// @return null when there is no export of that name.
void* findExport(ModuleHandle module, const char* name);
void unloadModule(ModuleHandle module);

} // namespace platform
