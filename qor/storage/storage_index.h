#pragma once

#include "../core/object.h"
#include "../platform/export.h"
#include "../platform/types.h"

#include <cstddef>
#include <cstdint>

class CmsSession;

namespace storage_parts {
struct IndexParts;
}

/// Where a frame stands and when it was fed; one per frame in the index file, at
/// global index x 24. Little-endian. A record whose frame size is 0 belongs to a frame
/// that was fed but never reached the data target, or to no frame at all.
struct emsSTORAGE_INDEX {
	double mTime;        // seconds of the high-resolution clock when the frame was fed
	int64_t mStoragePos; // byte position on the data target
	uint32_t mFrameSize; // bytes
	uint32_t mFlags;     // the session's flags; `kIndexRunMarker` while its run marker is set
};
static_assert(sizeof(emsSTORAGE_INDEX) == 24);
static_assert(offsetof(emsSTORAGE_INDEX, mFlags) == 20);

inline constexpr uint32_t kIndexRunMarker = 0x8000;

/// The index file: one record for each frame of every session, found by the frame's
/// global number.
///
/// Any thread may call; the index-file mutex serialises position and transfer. `Open` and
/// `Close` must not run beside other calls.
class QOR_API CmsStorageIndexList : public qor {
public:
	CmsStorageIndexList();
	~CmsStorageIndexList();

	/// Opens the index file; makes it with `recordCount` zeroed records when it is not there.
	/// It appears under its name only when it is complete. An existing file keeps its size;
	/// one that holds less than `recordCount` records is reported and grows while recording.
	/// Something of that name that cannot be opened and read is left as it is.
	/// @return 0; 0x10000000 when it cannot be made, opened or read (logged), then it is closed.
	int Open(const char* path, long long recordCount);
	void Close();
	/// @return 1 or 0.
	int IsOpen() const;

	/// Reads the index record of a session's frame.
	/// @return 0; 0x10000000 for null arguments, for `frameNumber` outside the session's
	/// frames that are on the disk already, or when the file does not have the record
	/// (`out` is then zeroed).
	int GetIndexFromFile(emsSTORAGE_INDEX* out, const CmsSession* session, long long frameNumber);

	/// Records in the file when it was opened.
	long long GetMaxCount() const;

	/// The index-file mutex, recursive.
	void Lock();
	void Unlock();

	/// Transfers whole records starting at a global index. `WriteRecords` leaves the records
	/// with the system; `Flush` hands all that were written to the medium and does not hold
	/// up the other calls meanwhile.
	/// @return 0; 0x10000000 when not all records were transferred.
	int WriteRecords(long long firstIndex, const emsSTORAGE_INDEX* records, long long count);
	int ReadRecord(long long index, emsSTORAGE_INDEX* out);
	int Flush();

private:
	storage_parts::IndexParts* mParts; // owned; null without memory: every call then fails
};
