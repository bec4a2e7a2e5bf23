#pragma once

#include "types.h"

#include <cstddef>
#include <cstdint>

namespace platform {

/// The extension of loadable libraries, without the point: "DLL" on Windows, "so" on Linux.
extern const char* const kModuleExtension;

/// Loads a library with its dependencies. @return null on failure, with `lastError()`.
ModuleHandle loadModule(const char* path);
/// @return null when the library itself has no export of that name, whatever its dependencies have.
void* findExport(ModuleHandle module, const char* name);
void unloadModule(ModuleHandle module);

/// Writes the product version of a file, cut to `size` - 1 characters: on Windows that of its
/// version resource, in the resource's first language; on Linux the numbers behind ".so." in
/// the name of the file that the path leads to when links are followed.
/// @return false, with an empty text, for a file without version information. True with an
/// empty text: it has some, but no product version in it, or it cannot be read.
bool productVersion(const char* path, char* out, size_t size);

} // namespace platform
