#pragma once

#include "../core/object.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "../threads/queue_instance.h"
#include "disk_utilities.h"
#include "session.h"
#include "session_list.h"
#include "storage_index.h"

#include <atomic>
#include <cstdint>
#include <mutex>

namespace storage_parts {
class BufferWriter;
}

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
	/// complete). Failures are reported in the log.
	/// @return 0 in all cases; `IsReady` tells whether frames can be recorded.
	int Create(const char* sessionListPath, const char* indexPath, const char* dataPath, int sizeMB);
	/// Writes what was fed, ends the worker and closes everything.
	void Destroy();
	/// @return 1 when target, index file, session list and worker are there, else 0.
	int IsReady() const;

	/// Ends all sessions and saves the empty list: the whole target counts as free again. @return 0.
	int ResetAll();

	/// Bytes; 0 when no target is open.
	long long GetTotalSpace() const;
	/// Total size less the list's largest end position, at least 0.
	long long GetAvailableSpace() const;
	/// What the target really holds: less than the total size for a data file that is too short.
	long long GetTargetBytes() const { return mTargetBytes; }

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

	CmsSessionList& GetSessionList() { return mSessionList; }
	CmsStorageIndexList& GetIndexList() { return mIndexList; }
	CqorDiskUtil_DriveList& GetDriveList() { return mDriveList; }

	/// The mean rate of the last writes (8 at most; only those there were), MB (2^20 bytes) a second; 0 before the
	/// first.
	double GetAverageRate() const;
	/// All sessions together, ended ones included.
	void GetCounters(emsSTORAGE_COUNTERS* out) const;

	/// The target's geometry; zeros for a data file.
	long long GetCylinders() const { return mCylinders; }
	unsigned int GetTracksPerCylinder() const { return mTracksPerCylinder; }
	unsigned int GetSectorsPerTrack() const { return mSectorsPerTrack; }
	unsigned int GetBytesPerSector() const { return mBytesPerSector; }

private:
	friend class CmsSession;
	friend class CmsSessionList;
	friend class storage_parts::BufferWriter;
	static constexpr int kRates = 8;

	void openDrive(const char* path);
	void openDataFile(const char* path, int sizeMB);
	bool createDataFile(const char* path, int sizeMB);
	void measureDataFile(const char* path, long long wanted);
	bool startWorker();
	void stopWorker();
	void closeTarget();
	template <typename Transfer>
	long long moveInPieces(long long size, emsSTORAGE_PROGRESS* progress, Transfer transfer);
	unsigned char* bouncePages();
	void addRate(double rate);

	CqorDiskUtil_DriveList mDriveList;
	platform::File* mDrive; // the data target, owned; under the drive mutex
	long long mTotalSize;   // bytes
	long long mCylinders;
	unsigned int mTracksPerCylinder;
	unsigned int mSectorsPerTrack;
	unsigned int mBytesPerSector;
	platform::WaitHandle mDriveMutex; // a seek and its transfers
	CmsSessionList mSessionList;
	CmsStorageIndexList mIndexList; // with the index-file mutex
	Cqor_MQInstance mQueue;
	double mRates[kRates];
	mutable std::mutex mRateMutex; // mRates, mRateCount
	unsigned long long mRateCount; // writes so far; modulo 8 the next place
	long long mTransferChunk;
	std::mutex mIOMutex;    // one chunked transfer; mBounce
	unsigned char* mBounce; // pages for unaligned callers, made when first needed
	long long mTargetBytes;
	storage_parts::BufferWriter* mWriter; // owned; null until Create
	emsSTORAGE_LIVE_COUNTERS mCounters;   // all sessions together
};
