// The parts of a storage that come and go with its target.

#include "../base/status.h"
#include "../core/runtime.h"
#include "../platform/machine.h"
#include "storage_internal.h"
#include "target_internal.h"

#include <new>

namespace storage_parts {

namespace {

constexpr uint32_t kReadWrite = platform::kAccessRead | platform::kAccessWrite;
constexpr int kQueueEntries = 10;
constexpr int kWorkerPriority = 0;
constexpr int kWorkerAffinity = 255;

} // namespace

StorageParts::StorageParts(CmsStorage& owner) : mOwner(owner), mDriveMutex(platform::createMutex(false)) {
	mQueue.mOwner = &owner;
}

StorageParts::~StorageParts() { closeTarget(); }

// ---- worker

bool StorageParts::startWorker() {
	mWriter.reset(new (std::nothrow) BufferWriter(mOwner, mQueue));
	return mWriter && mWriter->start() &&
	       mQueue.Create(&CmsStorage::_MQInst_CB, 1, kQueueEntries, kWorkerPriority, kWorkerAffinity, 0) ==
	           kQorSuccess &&
	       mQueue.StartWorkers() == kQorSuccess;
}

/// The queue worker may be in the last steps of its callback, so it ends before the writer goes.
void StorageParts::stopWorker() {
	mQueue.Destroy();
	mWriter.reset();
}

// ---- target

void StorageParts::closeTarget() {
	mDrive.reset();
	mFlushDrive.reset();
	mUnflushed = false;
	mTotalSize = mTargetBytes = mCylinders = 0;
	mHeldBytes = kUnknownSize;
	mTracksPerCylinder = mSectorsPerTrack = mBytesPerSector = 0;
}

void StorageParts::openTarget(const char* path) {
	mDrive = openRaw(path, kReadWrite);
	if (mDrive) mFlushDrive = openRaw(path, kReadWrite);
	if (!mFlushDrive) mDrive.reset();
}

bool StorageParts::flushTarget() {
	if (!mFlushDrive || !mUnflushed.exchange(false)) return true;
	if (mFlushDrive->flush()) return true;
	mUnflushed = true;
	return false;
}

void StorageParts::openDrive(const char* path) {
	openTarget(path);
	if (!mDrive) {
		appmsg("[ERROR] CANNOT OPEN Drive (%s)", path);
		return;
	}
	appmsg("[OK] Drive (%s) Open and Ready", path);
	platform::DiskGeometry geometry;
	if (!mDrive->geometry(&geometry) || diskSize(geometry) <= 0) {
		mOwner.log(3, "IOCTL_DISK_GET_DRIVE_GEOMETRY (err=%d)", static_cast<int>(platform::lastError()));
		closeTarget();
		return;
	}
	mCylinders = geometry.cylinders;
	mTracksPerCylinder = geometry.tracksPerCylinder;
	mSectorsPerTrack = geometry.sectorsPerTrack;
	mBytesPerSector = geometry.bytesPerSector;
	mTotalSize = mTargetBytes = mHeldBytes = diskSize(geometry);
	logGeometry(mOwner, geometry);
}

bool StorageParts::createDataFile(const char* path, int sizeMB) {
	constexpr uint32_t kCreateFlags =
	    platform::kAttributeNormal | platform::kFlagUnbuffered | platform::kFlagSequential;
	appmsg("CREATING (%s) ... (%d MB)", path, sizeMB);
	const long long bytes = static_cast<long long>(sizeMB) << 20;
	long long written = 0;
	if (!makeFilledFile(path, bytes, kTransferChunk, fillUnwritten, kCreateFlags, &written)) {
		appmsg("[ERROR] CREATING (%s) ... %I64d of %I64d bytes (err=%d)", path, written, bytes,
		    static_cast<int>(platform::lastError()));
		return false;
	}
	appmsg("CREATING (%s) ... DONE", path);
	return true;
}

void StorageParts::openDataFile(const char* path, int sizeMB) {
	if (path[0] && sizeMB > 0) {
		const bool absent = stateOf(path, kReadWrite) == FileState::absent;
		if (!absent || createDataFile(path, sizeMB)) openTarget(path);
	}
	if (mDrive) measureDataFile(path, static_cast<long long>(sizeMB) << 20);
	if (mDrive) {
		appmsg("[OK] Data File (%s) Open and Ready", path);
	} else {
		appmsg("[ERROR] Open DATA FILE");
	}
}

void StorageParts::measureDataFile(const char* path, long long wanted) {
	int64_t bytes = 0;
	bool good = mDrive->size(&bytes);
	const long long held = bytes;
	if (good && bytes < wanted) good = extendDataFile(path, bytes, wanted) && mDrive->size(&bytes) && bytes >= wanted;
	if (!good) {
		closeTarget();
		return;
	}
	mTargetBytes = bytes - bytes % kFrameAlignment;
	mHeldBytes = held < wanted ? held : mTargetBytes;
	mTotalSize = wanted;
	if (bytes > wanted) {
		appmsg("[WARNING] Data File (%s) has %I64d bytes instead of %I64d: the rest is left alone", path,
		    static_cast<long long>(bytes), wanted);
	}
}

bool StorageParts::extendDataFile(const char* path, long long from, long long wanted) {
	appmsg("[WARNING] Data File (%s) has %I64d bytes instead of %I64d: EXTENDING ...", path, from, wanted);
	long long reached = from;
	if (!extendWithUnwritten(path, from, wanted, kTransferChunk, &reached)) {
		appmsg("[ERROR] EXTENDING (%s) ... %I64d of %I64d bytes (err=%d)", path, reached, wanted,
		    static_cast<int>(platform::lastError()));
		return false;
	}
	appmsg("EXTENDING (%s) ... DONE", path);
	return true;
}

} // namespace storage_parts
