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

/// Makes a file of `bytes` zeros in writes of at most `piece` bytes. It gets its name only
/// when the medium has all of it, so a file of that name is never a part of one; whatever
/// fails, nothing is left behind.
/// @param flags how the file is opened for the writes.
/// @param written receives how many bytes could be written; may be null.
bool makeZeroedFile(const char* path, long long bytes, uint32_t piece, uint32_t flags, long long* written);

} // namespace storage_parts
