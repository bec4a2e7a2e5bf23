#pragma once

#include "folder.h"

namespace platform {

/// Whether a file name ends with that extension (without the point), without regard to the
/// case of ASCII letters. An empty extension is that of names without a point.
bool hasExtension(const char* name, const char* extension);

/// Keeps those `maximum` of the names given to it that come first in the order of their
/// bytes. A list that is cut has the same files on every system, and needs memory only for
/// the names that stay, however many a folder has. Throws without memory.
class FirstNames {
public:
	explicit FirstNames(size_t maximum) : mMaximum(maximum) {}
	void add(const char* name, uint64_t size);
	/// In order; nothing can be added any more.
	std::vector<FoundFile> take();

private:
	size_t mMaximum;
	std::vector<FoundFile> mHeap; // the last name of the order on top
};

/// The text to put before the names of a folder's files: the folder as the system takes it,
/// with a separator at its end. @return false, with `lastError()`, for one that cannot be.
bool startOfFolder(const char* folder, std::string* start);

/// Reads the names of one folder: the first `maximum` files with that extension, in order,
/// and, unless `folders` is null, the folders in it, in any order. Throws without memory.
/// @param start as `startOfFolder` gives it
/// @return false, with `lastError()`, when the folder cannot be read to its end.
bool readFolder(const std::string& start, const char* extension, size_t maximum, std::vector<FoundFile>* files,
    std::vector<std::string>* folders);

} // namespace platform
