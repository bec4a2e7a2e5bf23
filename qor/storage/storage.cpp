#include "storage.h"

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../core/runtime.h"
#include "../platform/file.h"
#include "../platform/machine.h"
#include "../platform/memory.h"
#include "buffer_writer_internal.h"
#include "target_internal.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

namespace {

constexpr char kRawDrivePrefix[] = "\\\\.\\";
constexpr uint32_t kReadWrite = platform::kAccessRead | platform::kAccessWrite;
constexpr int kQueueEntries = 10;
constexpr int kWorkerPriority = 0;
constexpr int kWorkerAffinity = 255;

bool isRawDrive(const char* path) { return std::strncmp(path, kRawDrivePrefix, sizeof(kRawDrivePrefix) - 1) == 0; }

bool isAligned(const void* address) { return reinterpret_cast<uintptr_t>(address) % platform::kTransferAlignment == 0; }

} // namespace

CmsStorage::CmsStorage()
    : mDrive(nullptr), mTotalSize(0), mCylinders(0), mTracksPerCylinder(0), mSectorsPerTrack(0), mBytesPerSector(0),
      mDriveMutex(platform::createMutex(false)), mRates(), mRateCount(0), mTransferChunk(kTransferChunk),
      mBounce(nullptr), mTargetBytes(0), mWriter(nullptr) {
	settype("CmsStorage");
	mSessionList.Attach(this, &mIndexList);
	mQueue.mOwner = this;
}

CmsStorage::~CmsStorage() {
	Destroy();
	platform::closeHandle(mDriveMutex);
}

// ---- create and destroy

int CmsStorage::Create(const char* sessionListPath, const char* indexPath, const char* dataPath, int sizeMB) {
	Destroy();
	if (!mDriveMutex) mDriveMutex = platform::createMutex(false);
	mDriveList.Detect(0, 1);
	const char* path = dataPath ? dataPath : "";
	if (isRawDrive(path)) {
		openDrive(path);
	} else {
		openDataFile(path, sizeMB);
	}
	mSessionList.Open(sessionListPath);
	// Without a target there is no right size for a new index file.
	if (mTotalSize > 0 || platform::fileSystem().exists(indexPath))
		mIndexList.Open(indexPath, mTotalSize / kFrameAlignment);
	if (!startWorker()) {
		appmsg("[ERROR] CANNOT START storage worker");
		stopWorker();
	}
	return kQorSuccess;
}

bool CmsStorage::startWorker() {
	mWriter = new (std::nothrow) storage_parts::BufferWriter(*this, mQueue);
	return mWriter && mWriter->start() &&
	       mQueue.Create(&CmsStorage::_MQInst_CB, 1, kQueueEntries, kWorkerPriority, kWorkerAffinity, 0) ==
	           kQorSuccess &&
	       mQueue.StartWorkers() == kQorSuccess;
}

/// The queue worker may be in the last steps of its callback, so it ends before the writer goes.
void CmsStorage::stopWorker() {
	mQueue.Destroy();
	delete mWriter;
	mWriter = nullptr;
}

void CmsStorage::Destroy() {
	mSessionList.Close(); // with everything that is still to be written
	stopWorker();
	mIndexList.Close();
	closeTarget();
	if (mBounce) platform::releasePages(mBounce, static_cast<size_t>(mTransferChunk));
	mBounce = nullptr;
	mRateCount = 0;
	for (auto* counter : {&mCounters.mOverflowFrames, &mCounters.mRefusedFrames, &mCounters.mShortWrites,
	         &mCounters.mLostFrames, &mCounters.mFailedIndexWrites}) {
		*counter = 0;
	}
}

void CmsStorage::closeTarget() {
	delete mDrive;
	mDrive = nullptr;
	mTotalSize = mTargetBytes = mCylinders = 0;
	mTracksPerCylinder = mSectorsPerTrack = mBytesPerSector = 0;
}

int CmsStorage::IsReady() const {
	return mDrive && mDriveMutex && mWriter && mIndexList.IsOpen() && mSessionList.IsOpen();
}

// ---- the data target

void CmsStorage::openDrive(const char* path) {
	mDrive = storage_parts::openRaw(path, kReadWrite).release();
	if (!mDrive) {
		appmsg("[ERROR] CANNOT OPEN Drive (%s)", path);
		return;
	}
	appmsg("[OK] Drive (%s) Open and Ready", path);
	platform::DiskGeometry geometry;
	if (!mDrive->geometry(&geometry) || storage_parts::diskSize(geometry) <= 0) {
		log(3, "IOCTL_DISK_GET_DRIVE_GEOMETRY (err=%d)", static_cast<int>(platform::lastError()));
		closeTarget();
		return;
	}
	mCylinders = geometry.cylinders;
	mTracksPerCylinder = geometry.tracksPerCylinder;
	mSectorsPerTrack = geometry.sectorsPerTrack;
	mBytesPerSector = geometry.bytesPerSector;
	mTotalSize = mTargetBytes = storage_parts::diskSize(geometry);
	storage_parts::logGeometry(*this, geometry);
}

bool CmsStorage::createDataFile(const char* path, int sizeMB) {
	constexpr uint32_t kCreateFlags =
	    platform::kAttributeNormal | platform::kFlagUnbuffered | platform::kFlagSequential;
	appmsg("CREATING (%s) ... (%d MB)", path, sizeMB);
	const long long bytes = static_cast<long long>(sizeMB) << 20;
	long long written = 0;
	if (!storage_parts::makeZeroedFile(path, bytes, kTransferChunk, kCreateFlags, &written)) {
		appmsg("[ERROR] CREATING (%s) ... %I64d of %I64d bytes (err=%d)", path, written, bytes,
		    static_cast<int>(platform::lastError()));
		return false;
	}
	appmsg("CREATING (%s) ... DONE", path);
	return true;
}

void CmsStorage::openDataFile(const char* path, int sizeMB) {
	const bool usable = path[0] && sizeMB > 0;
	if (usable && (platform::fileSystem().exists(path) || createDataFile(path, sizeMB))) {
		mDrive = storage_parts::openRaw(path, kReadWrite).release();
	}
	if (mDrive) measureDataFile(path, static_cast<long long>(sizeMB) << 20);
	if (mDrive) {
		appmsg("[OK] Data File (%s) Open and Ready", path);
	} else {
		appmsg("[ERROR] Open DATA FILE");
	}
}

/// A file shorter than asked for is used as far as it goes; the rest of a longer one is left
/// alone, but sessions that already stand there can be played.
void CmsStorage::measureDataFile(const char* path, long long wanted) {
	int64_t bytes = 0;
	if (!mDrive->size(&bytes) || bytes < kFrameAlignment) {
		closeTarget();
		return;
	}
	mTargetBytes = bytes - bytes % kFrameAlignment;
	mTotalSize = std::min(wanted, mTargetBytes);
	if (bytes != wanted) {
		appmsg(
		    "[WARNING] Data File (%s) has %I64d bytes instead of %I64d", path, static_cast<long long>(bytes), wanted);
	}
}

void CmsStorage::driveLock() { platform::wait(mDriveMutex, platform::kInfinite); }
void CmsStorage::driveUnlock() { platform::releaseMutex(mDriveMutex); }

long long CmsStorage::driveSeek(long long position) {
	const base::MutexGuard guard(mDriveMutex);
	int64_t now = 0;
	return mDrive && mDrive->seek(position, platform::SeekOrigin::begin, &now) ? now : 0;
}

/// `transfer` moves one piece and returns the bytes moved.
template <typename Transfer>
long long CmsStorage::moveInPieces(long long size, emsSTORAGE_PROGRESS* progress, Transfer transfer) {
	const base::MutexGuard guard(mDriveMutex);
	const std::lock_guard transferGuard(mIOMutex);
	long long moved = 0;
	if (progress) progress->mTotal = progress->mRemaining = size;
	while (mDrive && moved < size) {
		const auto piece = static_cast<uint32_t>(std::min(mTransferChunk, size - moved));
		const uint32_t now = transfer(moved, piece);
		moved += now;
		if (progress) progress->mRemaining = size - moved;
		if (now != piece) break;
	}
	return moved;
}

/// Under the I/O mutex.
unsigned char* CmsStorage::bouncePages() {
	if (!mBounce) mBounce = static_cast<unsigned char*>(platform::allocatePages(static_cast<size_t>(mTransferChunk)));
	return mBounce;
}

long long CmsStorage::driveWrite(const void* buffer, long long size, emsSTORAGE_PROGRESS* progress) {
	if (!buffer || size <= 0) return 0;
	const auto* data = static_cast<const unsigned char*>(buffer);
	const bool direct = isAligned(buffer);
	return moveInPieces(size, progress, [&](long long offset, uint32_t piece) -> uint32_t {
		if (direct) return mDrive->write(data + offset, piece);
		unsigned char* pages = bouncePages();
		if (!pages) return 0;
		std::memcpy(pages, data + offset, piece);
		return mDrive->write(pages, piece);
	});
}

long long CmsStorage::driveRead(void* buffer, long long size, emsSTORAGE_PROGRESS* progress) {
	if (!buffer || size <= 0) return 0;
	auto* data = static_cast<unsigned char*>(buffer);
	const bool direct = isAligned(buffer);
	return moveInPieces(size, progress, [&](long long offset, uint32_t piece) -> uint32_t {
		if (direct) return mDrive->read(data + offset, piece);
		unsigned char* pages = bouncePages();
		const uint32_t moved = pages ? mDrive->read(pages, piece) : 0;
		if (moved) std::memcpy(data + offset, pages, moved);
		return moved;
	});
}

// ---- the queue worker

int CmsStorage::_MQInst_CB(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int flag) {
	auto* storage = worker && worker->mInstance ? static_cast<CmsStorage*>(worker->mInstance->mOwner) : nullptr;
	return storage ? storage->MQInst_CB(worker, item, flag) : kQorSuccess;
}

int CmsStorage::MQInst_CB(Cqor_MQWorker*, eqor_QUEUE_ITEM* item, int flag) {
	if (flag || !item || item->mWord1 != kStorageMessageWrite || !item->mPointer1 || !mWriter) return kQorSuccess;
	mWriter->write(static_cast<emsSTORAGE_BUFFER*>(item->mPointer1));
	mWriter->postWaiting();
	return kQorSuccess;
}

void CmsStorage::WaitUntilWritten() {
	if (mWriter) mWriter->waitUntilAllFree();
}

void CmsStorage::addRate(double rate) {
	const std::lock_guard guard(mRateMutex);
	mRates[mRateCount % kRates] = rate;
	++mRateCount;
}

double CmsStorage::GetAverageRate() const {
	const std::lock_guard guard(mRateMutex);
	const auto count = static_cast<int>(std::min<unsigned long long>(mRateCount, kRates));
	double sum = 0;
	for (int i = 0; i < count; ++i) sum += mRates[i];
	return count ? sum / count : 0;
}

// ---- space and sessions

int CmsStorage::CalculateSession(emsSTORAGE_SESSION* record, unsigned int frameSize) const {
	constexpr long long kLastIndex = std::numeric_limits<uint32_t>::max();
	if (!record) return kQorFailure;
	*record = emsSTORAGE_SESSION();
	if (frameSize == 0 || frameSize > kMaximumFrameSize) return kQorFailure;
	const long long end = mSessionList.GetMaxStoragePos();
	record->mFrameSize = frameSize;
	record->mAlignedFrameSize = (frameSize + kFrameAlignment - 1) / kFrameAlignment * kFrameAlignment;
	record->mStoragePos = end ? end : kFirstStoragePos;
	record->mFirstIndex = static_cast<uint32_t>(std::min<long long>(mSessionList.GetMaxIndex(), kLastIndex));
	const long long room = std::max(0ll, mTotalSize - record->mStoragePos) / record->mAlignedFrameSize;
	const long long indexes = kLastIndex - record->mFirstIndex;
	record->mMaxFrameCount = static_cast<uint32_t>(std::min(room, indexes));
	record->mFirstIndex2 = record->mFirstIndex;
	record->mLastIndex = record->mMaxFrameCount - 1 + record->mFirstIndex;
	return kQorSuccess;
}

int CmsStorage::ResetAll() {
	log(1, "RESET ALL");
	mSessionList.DeleteAll();
	mSessionList.Save();
	log(2, "RESET ALL");
	return kQorSuccess;
}

long long CmsStorage::GetTotalSpace() const { return mDrive ? mTotalSize : 0; }

long long CmsStorage::GetAvailableSpace() const {
	return mDrive ? std::max(0ll, mTotalSize - mSessionList.GetMaxStoragePos()) : 0;
}

void CmsStorage::GetCounters(emsSTORAGE_COUNTERS* out) const {
	if (!out) return;
	out->mOverflowFrames = mCounters.mOverflowFrames;
	out->mRefusedFrames = mCounters.mRefusedFrames;
	out->mShortWrites = mCounters.mShortWrites;
	out->mLostFrames = mCounters.mLostFrames;
	out->mFailedIndexWrites = mCounters.mFailedIndexWrites;
	out->mFailedListSaves = mSessionList.GetFailedSaves();
}
