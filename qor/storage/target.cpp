#include "target_internal.h"

#include "../platform/draft.h"
#include "../platform/folder.h"
#include "../platform/machine.h"
#include "../platform/memory.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace storage_parts {

namespace {

constexpr long long kPage = platform::kTransferAlignment;

/// Stands at the end of a page that was never written.
struct UnwrittenMark {
	char mText[16];
	int64_t mPosition; // of the page

	explicit UnwrittenMark(long long position) : mPosition(position) {
		std::memcpy(mText, "qor: not written", sizeof(mText));
	}
};
static_assert(sizeof(UnwrittenMark) == 24);

/// Writes [from, to) at the file's position. The pages begin where `from`'s page does.
/// @return bytes written.
long long writeFilled(platform::File& file, long long from, long long to, uint32_t piece, PageFill fill) {
	auto* pages = static_cast<unsigned char*>(platform::allocatePages(piece));
	if (!pages) return 0;
	long long at = from;
	while (at < to) {
		const long long inPage = at % kPage;
		const auto count = static_cast<uint32_t>(std::min(piece - inPage, to - at));
		if (fill) fill(pages, piece, at - inPage);
		const uint32_t moved = file.write(pages + inPage, count);
		at += moved;
		if (moved != count) break;
	}
	platform::releasePages(pages, piece);
	return at - from;
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

FileState stateOf(const char* path, uint32_t access) {
	constexpr uint32_t kFileNotFound = 2;
	if (!path || !path[0]) return FileState::refused;
	platform::FileOpen how;
	how.access = access;
	if (platform::fileSystem().open(path, how)) return FileState::usable;
	const uint32_t error = platform::lastError();
	// A link that leads nowhere, or a folder that hides its files, is not an absent file.
	const bool absent = error == kFileNotFound && !platform::fileSystem().exists(path);
	platform::setLastError(error);
	return absent ? FileState::absent : FileState::refused;
}

void fillUnwritten(unsigned char* pages, long long size, long long position) {
	for (long long at = kPage; at <= size; at += kPage) {
		const UnwrittenMark mark(position + at - kPage);
		std::memcpy(pages + at - sizeof(mark), &mark, sizeof(mark));
	}
}

bool holdsUnwrittenPage(const unsigned char* pages, long long size, long long position) {
	for (long long at = kPage; at <= size; at += kPage) {
		const UnwrittenMark mark(position + at - kPage);
		if (std::memcmp(pages + at - sizeof(mark), &mark, sizeof(mark)) == 0) return true;
	}
	return false;
}

bool makeFilledFile(
    const char* path, long long bytes, uint32_t piece, PageFill fill, uint32_t flags, long long* written) {
	platform::Draft draft;
	const bool open = draft.open(path, flags);
	const long long done = open ? writeFilled(draft.file(), 0, bytes, piece, fill) : 0;
	if (written) *written = done;
	if (!open || done != bytes || !draft.commit()) return false;
	platform::flushFolders(path);
	return true;
}

bool extendWithUnwritten(const char* path, long long from, long long to, uint32_t piece, long long* reached) {
	platform::FileOpen how;
	how.access = platform::kAccessRead | platform::kAccessWrite;
	how.flags = platform::kAttributeNormal | platform::kFlagSequential;
	const auto file = platform::fileSystem().open(path, how);
	int64_t position = 0;
	*reached = from;
	if (!file || !file->seek(from, platform::SeekOrigin::begin, &position)) return false;
	*reached += writeFilled(*file, from, to, piece, fillUnwritten);
	if (*reached == to && file->flush()) return true;
	const uint32_t error = platform::lastError();
	file->setSize(from);
	platform::setLastError(error);
	return false;
}

} // namespace storage_parts
