#pragma once

#include <string>
#include <vector>

namespace platform {

/// The separator that texts built by the library use: '\' on Windows, '/' on Linux.
extern const char kPathSeparator;

/// Whether `c` separates path parts: '\' and '/' on both systems.
bool isPathSeparator(char c);

/// The text behind the last separator; the whole path when it has none.
const char* fileNamePart(const char* path);

/// Paths (folder, separator, name) of the files with that extension (without the point,
/// compared without regard to case), in the order the system lists them; on Linux sorted by
/// name. A folder's own files stand before those of its subfolders. At most `maximum`.
std::vector<std::string> listFiles(const char* folder, const char* extension, bool recursive, size_t maximum);

/// Makes a folder with all folders above it. @return true also when it was there.
bool makeFolders(const char* folder);

/// The absolute form of a path; empty on failure.
std::string fullPath(const char* path);

} // namespace platform
