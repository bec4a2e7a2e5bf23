#include "storage.h"

#include "../base/status.h"
#include "../core/runtime.h"
#include "../platform/machine.h"
#include "../platform/memory.h"
#include "session_list_internal.h"
#include "storage_internal.h"
#include "target_internal.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <new>

using storage_parts::StorageParts;

namespace {

constexpr char kRawDrivePrefix[] = "\\\\.\\";
constexpr uint32_t kReadWrite = platform::kAccessRead | platform::kAccessWrite;

bool isRawDrive(const char* path) { return std::strncmp(path, kRawDrivePrefix, sizeof(kRawDrivePrefix) - 1) == 0; }

bool isAligned(const void* address) { return reinterpret_cast<uintptr_t>(address) % platform::kTransferAlignment == 0; }

} // namespace

CmsStorage::CmsStorage() : mParts(new (std::nothrow) StorageParts(*this)) {
	settype("CmsStorage");
	mSessionList.Attach(this, &mIndexList);
}

CmsStorage::~CmsStorage() {
	Destroy();
	delete mParts;
}

// ---- create and destroy

/// What is there is read before anything is made: nothing may be written while a list may
/// hold sessions that nobody knows of.
int CmsStorage::Create(const char* sessionListPath, const char* indexPath, const char* dataPath, int sizeMB) {
	using storage_parts::FileState;
	Destroy();
	if (!mParts) return kQorSuccess;
	if (!mParts->mDriveMutex) mParts->mDriveMutex.reset(platform::createMutex(false));
	mDriveList.Detect(0, 1);
	mParts->mOpening = true;
	mSessionList.Open(sessionListPath);
	const FileState index = storage_parts::stateOf(indexPath, kReadWrite);
	if (!mSessionList.IsOpen()) {
		appmsg("[ERROR] SESSION LIST (%s) cannot be read: no data target is opened",
		    sessionListPath ? sessionListPath : "");
	} else if (index == FileState::refused) {
		appmsg("[ERROR] INDEX FILE (%s) cannot be read: no data target is opened", indexPath ? indexPath : "");
	} else {
		const char* path = dataPath ? dataPath : "";
		if (isRawDrive(path)) {
			mParts->openDrive(path);
		} else {
			mParts->openDataFile(path, sizeMB);
		}
		// Without a target there is no right size for a new index file.
		if (mParts->mTotalSize > 0 || index == FileState::usable) {
			mIndexList.Open(indexPath, mParts->mTotalSize / kFrameAlignment);
		}
		if (!mIndexList.IsOpen()) mParts->closeTarget();
	}
	mParts->mOpening = false;
	if (mSessionList.mParts) mSessionList.mParts->judgeSessions();
	if (!mParts->startWorker()) {
		appmsg("[ERROR] CANNOT START storage worker");
		mParts->stopWorker();
	}
	return kQorSuccess;
}

void CmsStorage::Destroy() {
	mSessionList.Close(); // with everything that is still to be written
	if (mParts) mParts->stopWorker();
	mIndexList.Close();
	if (!mParts) return;
	mParts->closeTarget();
	if (mParts->mBounce) platform::releasePages(mParts->mBounce, static_cast<size_t>(mParts->mTransferChunk));
	mParts->mBounce = nullptr;
	mParts->mRateCount = 0;
	mParts->mCounters.clear();
}

int CmsStorage::IsReady() const {
	return mParts && mParts->mDrive && mParts->mDriveMutex && mParts->mWriter && mIndexList.IsOpen() &&
	       mSessionList.IsOpen();
}

// ---- the data target

void CmsStorage::driveLock() {
	if (mParts) platform::wait(mParts->mDriveMutex.get(), platform::kInfinite);
}

void CmsStorage::driveUnlock() {
	if (mParts) platform::releaseMutex(mParts->mDriveMutex.get());
}

long long CmsStorage::driveSeek(long long position) {
	if (!mParts) return 0;
	const base::MutexGuard guard(mParts->mDriveMutex.get());
	int64_t now = 0;
	return mParts->mDrive && mParts->mDrive->seek(position, platform::SeekOrigin::begin, &now) ? now : 0;
}

template <typename Transfer>
long long StorageParts::moveInPieces(long long size, emsSTORAGE_PROGRESS* progress, Transfer transfer) {
	const base::MutexGuard guard(mDriveMutex.get());
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

unsigned char* StorageParts::bouncePages() {
	if (!mBounce) mBounce = static_cast<unsigned char*>(platform::allocatePages(static_cast<size_t>(mTransferChunk)));
	return mBounce;
}

long long CmsStorage::driveWrite(const void* buffer, long long size, emsSTORAGE_PROGRESS* progress) {
	if (!buffer || size <= 0 || !mParts) return 0;
	const auto* data = static_cast<const unsigned char*>(buffer);
	const bool direct = isAligned(buffer);
	const long long moved = mParts->moveInPieces(size, progress, [&](long long offset, uint32_t piece) -> uint32_t {
		if (direct) return mParts->mDrive->write(data + offset, piece);
		unsigned char* pages = mParts->bouncePages();
		if (!pages) return 0;
		std::memcpy(pages, data + offset, piece);
		return mParts->mDrive->write(pages, piece);
	});
	mParts->mUnflushed = true; // only now: a flush that ran beside the write may have missed it
	return moved;
}

long long CmsStorage::driveRead(void* buffer, long long size, emsSTORAGE_PROGRESS* progress) {
	if (!buffer || size <= 0 || !mParts) return 0;
	auto* data = static_cast<unsigned char*>(buffer);
	const bool direct = isAligned(buffer);
	return mParts->moveInPieces(size, progress, [&](long long offset, uint32_t piece) -> uint32_t {
		if (direct) return mParts->mDrive->read(data + offset, piece);
		unsigned char* pages = mParts->bouncePages();
		const uint32_t moved = pages ? mParts->mDrive->read(pages, piece) : 0;
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
	if (flag || !item || item->mWord1 != kStorageMessageWrite || !item->mPointer1) return kQorSuccess;
	if (storage_parts::BufferWriter* writer = StorageParts::writerOf(this)) {
		writer->write(static_cast<emsSTORAGE_BUFFER*>(item->mPointer1));
		writer->postWaiting();
	}
	return kQorSuccess;
}

void CmsStorage::WaitUntilWritten() {
	if (auto* writer = StorageParts::writerOf(this)) writer->waitUntilWritten();
}

void StorageParts::addRate(double rate) {
	const std::lock_guard guard(mRateMutex);
	mRates[mRateCount % kRates] = rate;
	++mRateCount;
}

double CmsStorage::GetAverageRate() const {
	if (!mParts) return 0;
	const std::lock_guard guard(mParts->mRateMutex);
	const auto count = static_cast<int>(std::min<unsigned long long>(mParts->mRateCount, StorageParts::kRates));
	double sum = 0;
	for (int i = 0; i < count; ++i) sum += mParts->mRates[i];
	return count ? sum / count : 0;
}

// ---- space and sessions

int CmsStorage::CalculateSession(emsSTORAGE_SESSION* record, unsigned int frameSize) const {
	constexpr long long kLastIndex = std::numeric_limits<uint32_t>::max();
	if (!record) return kQorFailure;
	*record = emsSTORAGE_SESSION();
	if (frameSize == 0 || frameSize > kMaximumFrameSize) return kQorFailure;
	if (!mParts || !mSessionList.mParts) return kQorFailure;
	const long long total = mParts->mTotalSize;
	const long long claimed = mSessionList.mParts->claimedEnd();
	const long long end =
	    claimed == storage_parts::kUnknownEnd ? std::max(total, mSessionList.GetMaxStoragePos()) : claimed;
	record->mFrameSize = frameSize;
	record->mAlignedFrameSize = (frameSize + kFrameAlignment - 1) / kFrameAlignment * kFrameAlignment;
	// Behind a damaged record the end may stand anywhere; frames do not.
	const long long odd = end % kFrameAlignment;
	record->mStoragePos = end ? storage_parts::saturatedSum(end, odd ? kFrameAlignment - odd : 0) : kFirstStoragePos;
	record->mFirstIndex = static_cast<uint32_t>(std::min<long long>(mSessionList.mParts->claimedIndex(), kLastIndex));
	const long long room = std::max(0ll, total - record->mStoragePos) / record->mAlignedFrameSize;
	const long long indexes = kLastIndex - record->mFirstIndex;
	record->mMaxFrameCount = static_cast<uint32_t>(std::min(room, indexes));
	record->mFirstIndex2 = record->mFirstIndex;
	record->mLastIndex = record->mMaxFrameCount - 1 + record->mFirstIndex;
	return kQorSuccess;
}

int CmsStorage::ResetAll() {
	log(1, "RESET ALL");
	mSessionList.DeleteAll();
	const int saved = mSessionList.Save();
	log(2, "RESET ALL");
	return saved;
}

long long CmsStorage::GetTotalSpace() const { return mParts && mParts->mDrive ? mParts->mTotalSize : 0; }

long long CmsStorage::GetAvailableSpace() const {
	if (!mSessionList.mParts) return 0;
	return std::max(0ll, GetTotalSpace() - mSessionList.mParts->claimedEnd());
}

long long CmsStorage::GetTargetBytes() const { return mParts ? mParts->mTargetBytes : 0; }

CmsSessionList& CmsStorage::GetSessionList() { return mSessionList; }
CmsStorageIndexList& CmsStorage::GetIndexList() { return mIndexList; }
CqorDiskUtil_DriveList& CmsStorage::GetDriveList() { return mDriveList; }
long long CmsStorage::GetCylinders() const { return mParts ? mParts->mCylinders : 0; }
unsigned int CmsStorage::GetTracksPerCylinder() const { return mParts ? mParts->mTracksPerCylinder : 0; }
unsigned int CmsStorage::GetSectorsPerTrack() const { return mParts ? mParts->mSectorsPerTrack : 0; }
unsigned int CmsStorage::GetBytesPerSector() const { return mParts ? mParts->mBytesPerSector : 0; }

void CmsStorage::GetCounters(emsSTORAGE_COUNTERS* out) const {
	if (!out) return;
	*out = emsSTORAGE_COUNTERS();
	if (mParts) mParts->mCounters.copyTo(out);
	out->mFailedListSaves = mSessionList.GetFailedSaves();
}
