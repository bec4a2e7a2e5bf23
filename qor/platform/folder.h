#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

/// The separator that texts built by the library use: '\' on Windows, '/' on Linux.
extern const char kPathSeparator;

/// Whether `c` separates path parts: '\' and '/' on both systems.
bool isPathSeparator(char c);

/// The text behind the last separator; the whole path when it has none.
const char* fileNamePart(const char* path);

struct FoundFile {
	std::string path; // folder, separator, name
	uint64_t size;    // bytes, from the folder's entry
};

/// Lists the files of a folder with that extension (without the point, compared without
/// regard to case), at most `maximum`: those that come first in the order of the bytes of
/// their names, in this order. A folder's own files stand before those of its subfolders,
/// which follow in the order of their names. A link to a folder is not entered, and a
/// subfolder that cannot be read is passed over.
/// @return false, with `lastError()` and `out` empty, when the folder itself cannot be read
///         or there is no memory. A folder without such files is read: true.
bool listFiles(const char* folder, const char* extension, bool recursive, size_t maximum, std::vector<FoundFile>* out);

/// Makes a folder with all folders above it; on Linux the medium has them when this returns
/// (Windows keeps the order itself). @return true also when it was there.
bool makeFolders(const char* folder);

/// Hands the entries of a file and of all folders above it to the medium, as far as they may
/// be opened: a file of a folder that was just made is gone with the folder when the power
/// goes. Windows keeps folders safe by itself.
void flushFolders(const char* path);

/// The absolute form of a path; empty on failure.
std::string fullPath(const char* path);

} // namespace platform
