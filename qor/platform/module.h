#pragma once

#include "types.h"

#include <cstddef>
#include <cstdint>

namespace platform {

/// The extension of loadable libraries, without the point: "DLL" on Windows, "so" on Linux.
extern const char* const kModuleExtension;

/// Loads the library in the file that this path opens, with its dependencies: a relative path is
/// one from the current folder, whatever the system would look for under that name. On Windows
/// dependencies come from the library's own folder, the program's and the system's, and from no
/// other, the current folder least of all; on Linux from where the library itself and the system
/// say (its run path, LD_LIBRARY_PATH, the system's folders).
/// @return null, with `lastError()`, on failure and for what is not a regular file.
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
