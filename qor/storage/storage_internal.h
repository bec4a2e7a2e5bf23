#pragma once

#include "../base/wait_guard.h"
#include "../platform/file.h"
#include "../threads/queue_instance.h"
#include "buffer_writer_internal.h"
#include "session_internal.h"
#include "storage.h"

#include <memory>
#include <mutex>

namespace storage_parts {

/// What a storage does behind its interface. The target is settled by `CmsStorage::Create`
/// and stays until `Destroy`; nothing runs beside these.
struct StorageParts {
	static constexpr int kRates = 8;

	explicit StorageParts(CmsStorage& owner);
	~StorageParts();
	/// The writer of a storage; null without one, or before its `Create`.
	static BufferWriter* writerOf(const CmsStorage* storage) {
		return storage && storage->mParts ? storage->mParts->mWriter.get() : nullptr;
	}

	/// Both handles, or none.
	void openTarget(const char* path);
	void openDrive(const char* path);
	void openDataFile(const char* path, int sizeMB);
	bool createDataFile(const char* path, int sizeMB);
	/// Makes a file that is too short as long as was asked for.
	bool extendDataFile(const char* path, long long from, long long wanted);
	void measureDataFile(const char* path, long long wanted);
	void closeTarget();
	/// Hands what was written to the target to its medium: not every drive does that with
	/// each write, whatever it was opened with. Holds up no transfer.
	bool flushTarget();

	bool startWorker();
	void stopWorker();

	/// `transfer` moves one piece and returns the bytes moved.
	template <typename Transfer>
	long long moveInPieces(long long size, emsSTORAGE_PROGRESS* progress, Transfer transfer);
	/// Pages for unaligned callers. Under the I/O mutex.
	unsigned char* bouncePages();
	void addRate(double rate);

	CmsStorage& mOwner;
	std::unique_ptr<platform::File> mDrive;      // the data target; under the drive mutex
	std::unique_ptr<platform::File> mFlushDrive; // the same, opened once more, for `flushTarget` alone
	std::atomic<bool> mUnflushed{false};
	long long mTotalSize = 0;            // bytes
	long long mTargetBytes = 0;          // at least the total size
	long long mHeldBytes = kUnknownSize; // of these, what was there before Create; frames stand nowhere else
	long long mCylinders = 0;
	unsigned int mTracksPerCylinder = 0;
	unsigned int mSectorsPerTrack = 0;
	unsigned int mBytesPerSector = 0;
	base::OwnedHandle mDriveMutex; // a seek and its transfers
	Cqor_MQInstance mQueue;
	double mRates[kRates] = {};
	mutable std::mutex mRateMutex;     // mRates, mRateCount
	unsigned long long mRateCount = 0; // writes so far; modulo 8 the next place
	long long mTransferChunk = kTransferChunk;
	std::mutex mIOMutex;              // one chunked transfer; mBounce
	unsigned char* mBounce = nullptr; // made when first needed
	std::unique_ptr<BufferWriter> mWriter;
	bool mOpening = false;  // inside Create: the target is not settled yet
	LiveCounters mCounters; // all sessions together
};

} // namespace storage_parts
