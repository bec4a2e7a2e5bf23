#include "target_internal.h"

#include "../platform/machine.h"
#include "../platform/memory.h"

#include <algorithm>
#include <limits>
#include <string>

namespace storage_parts {

namespace {

/// @return bytes written.
long long writeZeros(platform::File& file, long long bytes, uint32_t piece) {
	void* zeros = platform::allocatePages(piece);
	if (!zeros) return 0;
	long long done = 0;
	while (done < bytes) {
		const auto count = static_cast<uint32_t>(std::min<long long>(piece, bytes - done));
		const uint32_t moved = file.write(zeros, count);
		done += moved;
		if (moved != count) break;
	}
	platform::releasePages(zeros, piece);
	return done;
}

} // namespace

std::unique_ptr<platform::File> openRaw(const char* path, uint32_t access) {
	platform::FileOpen how;
	how.disposition = platform::Disposition::openExisting;
	how.access = access;
	how.share = platform::kShareRead | platform::kShareWrite;
	how.flags = platform::kRawTransfer;
	return platform::fileSystem().open(path, how);
}

long long diskSize(const platform::DiskGeometry& geometry) {
	if (geometry.cylinders < 0) return 0;
	constexpr auto kLargest = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
	uint64_t size = static_cast<uint64_t>(geometry.cylinders);
	for (const uint64_t factor : {geometry.tracksPerCylinder, geometry.sectorsPerTrack, geometry.bytesPerSector}) {
		if (factor && size > kLargest / factor) return 0;
		size *= factor;
	}
	return static_cast<long long>(size);
}

void logGeometry(const qor& object, const platform::DiskGeometry& geometry) {
	const long long size = diskSize(geometry);
	object.log("Geometry:");
	object.log("Cylinder count .......... %I64d", static_cast<long long>(geometry.cylinders));
	object.log("Tracks per cylinder ..... %d", static_cast<int>(geometry.tracksPerCylinder));
	object.log("Sectors per track ....... %d", static_cast<int>(geometry.sectorsPerTrack));
	object.log("Bytes per sector ........ %d", static_cast<int>(geometry.bytesPerSector));
	object.log("");
	object.log("Total Byte Size ......... %I64d  %12.2f MB  %12.2f GB", size, static_cast<double>(size) / 1048576.0,
	    static_cast<double>(size) / 1073741824.0);
	object.log("");
}

bool makeZeroedFile(const char* path, long long bytes, uint32_t piece, uint32_t flags, long long* written) {
	const std::string unfinished = std::string(path) + ".creating";
	platform::FileSystem& files = platform::fileSystem();
	platform::FileOpen how;
	how.disposition = platform::Disposition::createAlways;
	how.access = platform::kAccessRead | platform::kAccessWrite;
	how.share = platform::kShareNone;
	how.flags = flags;
	long long done = 0;
	bool good = false;
	uint32_t error = 0;
	if (auto file = files.open(unfinished.c_str(), how)) {
		done = writeZeros(*file, bytes, piece);
		good = done == bytes && file->flush();
		error = platform::lastError();
		file.reset();
		if (good && !files.replace(unfinished.c_str(), path)) {
			good = false;
			error = platform::lastError();
		}
		if (!good) files.remove(unfinished.c_str());
	} else {
		error = platform::lastError();
	}
	if (written) *written = done;
	if (!good) platform::setLastError(error);
	return good;
}

} // namespace storage_parts
