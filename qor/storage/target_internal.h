#pragma once

#include "../core/object.h"
#include "../platform/disk.h"
#include "../platform/file.h"

#include <memory>

namespace storage_parts {

/// Opens a raw target as every one is opened: existing, shared for reading and writing,
/// write-through, unbuffered. @return null with `platform::lastError()`.
std::unique_ptr<platform::File> openRaw(const char* path, uint32_t access);

/// cylinders x tracks x sectors x bytes; 0 for a product that no disk can have.
long long diskSize(const platform::DiskGeometry& geometry);

/// Writes the report on a geometry into the object's log.
void logGeometry(const qor& object, const platform::DiskGeometry& geometry);

/// What stands under a file's name.
enum class FileState {
	absent,
	usable,
	refused // something that does not open, or nobody knows: it may hold recordings
};

/// Tries to open the file that way. Null and empty names are refused.
FileState stateOf(const char* path, uint32_t access);

/// What pages hold before something is written to them.
using PageFill = void (*)(unsigned char* pages, long long size, long long position);

/// Marks the pages of a new data file, so that a frame that a list counts and this file never
/// got (the file was cut, or is another one) is not taken for a dark image. The last bytes of
/// each page say so, and name its position.
void fillUnwritten(unsigned char* pages, long long size, long long position);
/// Whether any of the pages read from `position` was never written.
bool holdsUnwrittenPage(const unsigned char* pages, long long size, long long position);

/// Makes a file of `bytes` in writes of at most `piece` bytes, whole pages, zeros without
/// `fill`. It gets its name only when the medium has all of it, so a file of that name is
/// never a part of one; whatever fails, nothing is left behind.
/// @param flags how the file is opened for the writes.
/// @param written receives how many bytes could be written; may be null.
bool makeFilledFile(
    const char* path, long long bytes, uint32_t piece, PageFill fill, uint32_t flags, long long* written);

/// Lengthens a file from `from` to `to` bytes with pages that were never written, all of it on
/// the medium. Where that fails the file gets its former size again, as far as the system can.
/// @param reached receives how long the file could be made.
bool extendWithUnwritten(const char* path, long long from, long long to, uint32_t piece, long long* reached);

} // namespace storage_parts
