#pragma once

#include "../base/linear_array.h"
#include "../core/object.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "storage_index.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class CmsSession;
class CmsSessionList;
class CmsStorage;

namespace storage_parts {
class BufferWriter;
class SessionListParts;
struct SessionParts;
} // namespace storage_parts

/// A recording: where its frames stand and how many there are. The unit of the session
/// list file; little-endian.
///
/// In memory `mFrameCount` counts the frames fed; in the file it counts only frames whose
/// data and index records are on the disk.
struct emsSTORAGE_SESSION {
	uint32_t mFlags;       // copied into the flags of every index record
	uint32_t mFirstIndex;  // global number of the first frame in the index file
	int64_t mStoragePos;   // byte position of the first frame on the data target
	int64_t mBytesWritten; // bytes of the target that written buffers occupy
	uint32_t mFrameCount;  // frames recorded
	uint8_t mReserved1[8];
	uint32_t mFrameSize;        // bytes
	uint32_t mAlignedFrameSize; // frame size rounded up to a multiple of 4096
	uint8_t mUser[780];         // the application's; zeroed by CalculateSession
	uint32_t mMaxFrameCount;    // frames there is room for
	uint32_t mFirstIndex2;      // the first index again
	uint32_t mLastIndex;        // maximum frame count - 1 + first index
	uint32_t mReserved2;
};
static_assert(sizeof(emsSTORAGE_SESSION) == 840);
static_assert(offsetof(emsSTORAGE_SESSION, mStoragePos) == 8);
static_assert(offsetof(emsSTORAGE_SESSION, mReserved1) == 28);
static_assert(offsetof(emsSTORAGE_SESSION, mUser) == 44);
static_assert(offsetof(emsSTORAGE_SESSION, mMaxFrameCount) == 824);
static_assert(offsetof(emsSTORAGE_SESSION, mReserved2) == 836);

/// Frames and sessions stand at multiples of this on the data target.
inline constexpr uint32_t kFrameAlignment = 4096;
/// The largest frame.
inline constexpr uint32_t kMaximumFrameSize = 0x80000000;

/// How far a transfer has come, in bytes. Read by any thread.
struct emsSTORAGE_PROGRESS {
	std::atomic<long long> mTotal{0};
	std::atomic<long long> mRemaining{0};
};

/// What went wrong while recording; all 0 after a good recording. For a session since
/// `Create`, for the storage since its `Create`.
struct emsSTORAGE_COUNTERS {
	unsigned long long mOverflowFrames;    // refused by Feed: no free buffer
	unsigned long long mRefusedFrames;     // refused by Feed: session or target full, or closed by a failure
	unsigned long long mShortWrites;       // buffers that did not reach the target whole
	unsigned long long mLostFrames;        // frames accepted by Feed and lost by short writes or index failures
	unsigned long long mFailedIndexWrites; // transfers to the index file that failed, retries included
	unsigned long long mFailedListSaves;   // session list files that could not be written
};

/// States of a storage buffer.
enum emsSTORAGE_BUFFER_STATE : uint32_t {
	emsBUFFER_FREE = 0,
	emsBUFFER_FILLING = 1,
	emsBUFFER_QUEUED = 2,
	emsBUFFER_WRITING = 3
};

/// One multi-frame buffer with everything that is needed to write it: frames and their
/// index records. Owned by its session.
///
/// Filling: under the session mutex. Queued and being written: by the storage alone.
struct emsSTORAGE_BUFFER {
	std::atomic<uint32_t> mState{emsBUFFER_FREE};
	CmsSession* mSession = nullptr;
	int mCapacity = 0; // frames
	int mFramesUsed = 0;
	long long mStoragePos = 0;                // of the first frame
	long long mFirstIndex = 0;                // global
	emsSTORAGE_INDEX** mIndexTable = nullptr; // record i stands i x 24 bytes into the index block
	unsigned char** mFrameTable = nullptr;    // slot i stands i x aligned size into the data block
	emsSTORAGE_INDEX* mIndex = nullptr;       // capacity + 2 records
	long long mIndexBytes = 0;                // capacity x 24
	unsigned char* mData = nullptr;           // whole pages, (capacity + 2) x aligned size
	long long mDataBytes = 0;                 // capacity x aligned size
	unsigned int mAlignedFrameSize = 0;
	unsigned int mFrameSize = 0;
	emsSTORAGE_PROGRESS mProgress;
	std::atomic<double> mLastWriteTime{0}; // seconds that the last write took
	std::atomic<double> mLastWriteRate{0}; // MB (2^20 bytes) a second

	// The storage's, while queued or being written.
	emsSTORAGE_BUFFER* mNext = nullptr;
	bool mPosted = false;        // counted as on its way
	bool mIndexWritten = false;  // the index records reached the file
	int mFramesLost = 0;         // at the end of the buffer
	unsigned mFailedFlushes = 0; // how many there had been when the index records were written
};

/// Bits of a session's state word.
inline constexpr uint32_t kSessionRecording = 1;
/// Values of a session's playback state.
inline constexpr uint32_t kPlaybackClosed = 0;
inline constexpr uint32_t kPlaybackOpen = 2;

/// Results of `LoadRawFrameChecked`.
inline constexpr int kFrameNotThere = 0x10000000;   // no such frame, or bad arguments
inline constexpr int kFrameNotWritten = 0x10000001; // fed, and still on its way to the disk
inline constexpr int kFrameLost = 0x10000002;       // fed, and never reached the disk
inline constexpr int kFrameUnreadable = 0x10000003; // counted, and not given by target or index file (or not there)
inline constexpr int kFrameDamaged = 0x10000004;    // its index record cannot be true

/// One recording on a storage.
///
/// A producer calls `Feed` for each frame, which only copies it; one worker of the storage
/// writes full buffers. docs/recording.md shows the way of a frame and the locks.
///
/// Belongs to its session list. `Create`, `AllocResources`, `FreeResources` and `Destroy`
/// must not run beside `Feed`; the other calls may come from any thread.
class QOR_API CmsSession final : public qor {
public:
	CmsSession();
	~CmsSession();

	/// Takes over the 840 bytes and starts with clean counters. @return 0; 0x10000000 for null.
	int Create(const emsSTORAGE_SESSION* record);
	/// Writes what was fed, then frees the buffers and zeroes the record.
	void Destroy();

	/// Makes the buffers, all memory touched so that `Feed` meets no page fault. Former
	/// buffers are written and freed first. From here to the end of `StopRecord` the storage
	/// takes no memory any more, but for the file that a saved list is written to: a save
	/// that is refused is tried again.
	/// @return 0; 0x10000000 when either number is below 2, the record has no frame size, one
	/// above `kMaximumFrameSize` or an aligned size that is not the rounded-up one, or less than two buffers could be
	/// made, or the session list cannot be replaced (then none is left).
	int AllocResources(int bufferCount, int framesPerBuffer);
	/// Writes what was fed and frees the buffers. Returns when the disk has it all.
	void FreeResources();

	/// Makes one more buffer and adds it to the list. @return null without memory or for `frames` below 1.
	emsSTORAGE_BUFFER* CreateBuffer(int frames);
	/// Frees a buffer of this session that is free or filling; one that is on its way to the
	/// disk is waited for. Null and foreign buffers are ignored.
	void DestroyBuffer(emsSTORAGE_BUFFER* buffer);
	/// Claims the first free buffer (it is then filling and empty). @return null when there is none.
	emsSTORAGE_BUFFER* GetFreeBuffer();
	int GetBufferCount() const;
	/// @return null for an index outside the list.
	emsSTORAGE_BUFFER* GetBuffer(int index) const;

	/// Takes one frame of the record's frame size; the only copy on its way to the disk.
	/// Never waits for the disk and never allocates.
	/// @return 0 when it was taken, also when it was ignored because the recording bit is
	/// clear; 0x10000000 for null, without buffers, when all buffers are on their way to the
	/// disk (overflow), at the maximum frame count, where the frame would lie beyond the
	/// target or among another session's, after a failure closed the session, for a session
	/// whose record cannot be believed, or while sessions that were removed still stand in the
	/// saved list. All but the first two are counted.
	int Feed(const void* frame);

	/// Sets or clears the recording bit of the state word.
	void SetRecording(bool on);
	/// @return 1 or 0.
	int IsRecording() const;
	/// Waits until the storage has written all queued buffers of every session, and finds out how
	/// far the session can go on the target and in the index file before it meets another one's
	/// frames; it takes only the frames that fit. (Without this call the first `Feed` of a recording
	/// finds it out.) Of two sessions that record at once, the one in front ends where the other
	/// begins, and of two at one place the first one prepared has it: give the first a smaller maximum
	/// and the second the place behind. Why a session takes none is logged. @return 0.
	int PrepareToRecord();
	/// Clears the recording bit, queues the frames left in the current buffer and waits until
	/// the storage has written all that was queued until then, session list included; other
	/// sessions may go on meanwhile. @return 0.
	int StopRecord();

	/// @return 0.
	int OpenForPlayback();
	int ClosePlayback();

	/// Reads frame `frameNumber` (from 0) into `buffer`, which has room for the aligned frame
	/// size. Any address will do; multiples of 4096 save a copy.
	/// @return 0 in all cases: hosts take it as "request served". A frame that cannot be read
	/// leaves the buffer as it is, or partly filled after a read error.
	int LoadRawFrame(void* buffer, long long frameNumber);
	/// The same with a result. `frameBytes` (may be null) receives the frame's size, 0 on failure.
	/// @return 0 or one of the results above.
	int LoadRawFrameChecked(void* buffer, long long frameNumber, unsigned int* frameBytes);

	/// The session mutex, recursive. `Feed` needs it; hold it briefly.
	void Lock();
	void Unlock();

	/// A copy of the record as it stands now. Its frame count is what the record says; what can
	/// be played is `GetWrittenFrameCount`.
	emsSTORAGE_SESSION GetRecord() const;
	/// Changes what belongs to the host: the flags that go into the index records fed from now
	/// on, and the application's span (`size` bytes from its start, at most 780; the rest stays).
	/// The session list saves both. @return 0; 0x10000000 for null or a larger size.
	int SetFlags(uint32_t flags);
	int SetUserData(const void* data, int size);
	/// Frames that are on the disk with their index records. For a session from a list file:
	/// those that the target really holds.
	unsigned int GetWrittenFrameCount() const;
	/// Where the session ends on the target: behind its written buffers, and behind the frames
	/// that are still on their way.
	long long GetEndPosition() const;
	/// Seconds of the high-resolution clock; 0 before the first frame, and before `StopRecord`.
	double GetStartTime() const;
	double GetStopTime() const;
	/// 1 or 0: what the next frame's index record is marked with, see `kIndexRunMarker`.
	int GetRunMarker() const;
	/// @return 1 between `OpenForPlayback` and `ClosePlayback`, else 0.
	int IsPlaybackOpen() const;
	void GetCounters(emsSTORAGE_COUNTERS* out) const;

	// The state. Other threads change it while a session records, so a host that reads or
	// writes a field directly holds `Lock` meanwhile; the calls above do so themselves. Fields
	// that say "any thread" need no lock.

	emsSTORAGE_SESSION mSession; // until recording starts it is the host's to change
	CmsStorage* mStorage;        // null for a session without storage
	CmsSessionList* mList;
	CmsStorageIndexList* mIndexList;
	double mStartTime;                     // seconds, of the first frame
	double mStopTime;                      // seconds, of StopRecord
	CstmArray<emsSTORAGE_BUFFER*> mBuffer; // owned
	emsSTORAGE_BUFFER* mCurrentBuffer;     // being filled; null: take a free one
	platform::WaitHandle mMutex;           // session mutex
	std::atomic<uint32_t> mState;          // bit 0: recording; any thread
	uint32_t mPreviousState;               // the state word that the last Feed saw
	uint32_t mRunMarker;                   // 1 or 0; flips when Feed finds the state word changed
	std::atomic<uint32_t> mPlayback;       // 2 open, 0 closed; any thread

private:
	friend class CmsSessionList;
	friend class CmsStorage;
	friend class storage_parts::BufferWriter;
	friend class storage_parts::SessionListParts;
	friend struct storage_parts::SessionParts;

	storage_parts::SessionParts* mParts; // owned; null without memory: every call then fails
};
