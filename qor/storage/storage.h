#pragma once

#include "../core/object.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "../threads/queue_instance.h"
#include "disk_utilities.h"
#include "session.h"
#include "session_list.h"
#include "storage_index.h"

namespace storage_parts {
class SessionListParts;
struct StorageParts;
} // namespace storage_parts

/// The message of the storage queue: pointer 1 is a full `emsSTORAGE_BUFFER`.
inline constexpr unsigned long kStorageMessageWrite = 256;
/// The largest single transfer to or from the data target.
inline constexpr long long kTransferChunk = 4194304;
/// The first session starts here on the data target.
inline constexpr long long kFirstStoragePos = 4194304;

/// Records frames of fixed size onto one large raw target and plays them back.
///
///     producer            session                    storage queue worker       list thread
///     Feed -- copy -->  [buffer 0 filling ]
///                       [buffer 1 queued  ] --256-->  index records, then
///                       [buffer 2 writing ]           frames, unbuffered  -->  index file to the medium,
///                       [buffer 3 free    ] <------------------------------   session list saved
///
/// A buffer is free again only when the saved session list counts its frames; the list is
/// saved while the worker writes the next buffer. A crash loses at most the buffers that
/// are not free.
///
/// Locks, in the order in which they may be taken inside one another: list file, list,
/// session, post | drive, index file, I/O. The worker takes the index-file mutex, then the
/// drive mutex with the I/O mutex inside, then the session mutex, each released before the
/// next but the I/O mutex. Nobody holds the session mutex while the disk works.
///
/// `Create` and `Destroy` must not run beside other calls.
class QOR_API CmsStorage : public qor {
public:
	CmsStorage();
	~CmsStorage();

	/// Opens (or first makes) the data target, the session list and the index file and
	/// starts the worker. A storage that is in use is destroyed first.
	///
	/// A data path beginning with "\\.\" is a raw drive; any other is a data file, made of
	/// `sizeMB` x 2^20 bytes when it is not there (it appears under its name only when it is
	/// complete). A data file that is shorter keeps its bytes and is made as long; the rest of
	/// a longer one is left alone. As long as a session list or an index file is there that
	/// cannot be read, nothing is made, opened or written. Failures are reported in the log.
	/// @return 0 in all cases; `IsReady` tells whether frames can be recorded.
	int Create(const char* sessionListPath, const char* indexPath, const char* dataPath, int sizeMB);
	/// Writes what was fed, ends the worker and closes everything.
	void Destroy();
	/// @return 1 when target, index file, session list and worker are there, else 0.
	int IsReady() const;

	/// Ends all sessions and saves the empty list: the whole target counts as free again.
	/// @return 0; 0x10000000 when the empty list could not be saved: the space of the sessions
	/// that the saved list still has stays occupied.
	int ResetAll();

	/// Bytes; 0 when no target is open.
	long long GetTotalSpace() const;
	/// Total size less the end of what the session list claims, at least 0. Where a record
	/// claims more than the target has, or the list lost records, that is 0; the log says why.
	long long GetAvailableSpace() const;
	/// What the target really holds, in bytes: the total size, or more for a longer data file,
	/// whose sessions beyond the total size can still be played. 0 when no target is open.
	long long GetTargetBytes() const;

	/// Fills a record for a new session behind all others.
	/// @return 0; 0x10000000 for null, and for a frame size of 0 or above 2^31 (the record is then zeroed).
	int CalculateSession(emsSTORAGE_SESSION* record, unsigned int frameSize) const;

	/// The drive mutex, recursive: one holds it over a seek and the transfers that follow.
	void driveLock();
	void driveUnlock();
	/// @return the new position; 0 on failure.
	long long driveSeek(long long position);
	/// Move `size` bytes in pieces of at most `kTransferChunk`, stopping at the first that
	/// fails. `size` is a multiple of the target's sector size; any buffer address will do,
	/// multiples of 4096 save a copy. `progress` may be null.
	/// @return bytes moved.
	long long driveWrite(const void* buffer, long long size, emsSTORAGE_PROGRESS* progress = nullptr);
	long long driveRead(void* buffer, long long size, emsSTORAGE_PROGRESS* progress = nullptr);

	/// What the queue worker runs. Items with a non-zero flag or an id other than 256 are ignored. @return 0.
	int MQInst_CB(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int flag);
	static int _MQInst_CB(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int flag);

	/// Waits until every queued buffer is written and counted by the saved session list.
	void WaitUntilWritten();

	CmsSessionList& GetSessionList();
	CmsStorageIndexList& GetIndexList();
	CqorDiskUtil_DriveList& GetDriveList();

	/// The mean rate of the last writes (8 at most; only those there were), MB (2^20 bytes) a second; 0 before the
	/// first.
	double GetAverageRate() const;
	/// All sessions together, ended ones included.
	void GetCounters(emsSTORAGE_COUNTERS* out) const;

	/// The target's geometry; zeros for a data file.
	long long GetCylinders() const;
	unsigned int GetTracksPerCylinder() const;
	unsigned int GetSectorsPerTrack() const;
	unsigned int GetBytesPerSector() const;

private:
	friend class storage_parts::BufferWriter;
	friend class storage_parts::SessionListParts;
	friend struct storage_parts::SessionParts;
	friend struct storage_parts::StorageParts;

	CqorDiskUtil_DriveList mDriveList;
	CmsSessionList mSessionList;
	CmsStorageIndexList mIndexList;      // with the index-file mutex
	storage_parts::StorageParts* mParts; // owned; null without memory: every call then fails
};
