// What a session does behind its interface: filling buffers, what is there, what is claimed.

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "buffer_writer_internal.h"
#include "session_internal.h"
#include "session_list.h"
#include "session_list_internal.h"
#include "storage.h"
#include "storage_internal.h"
#include "target_internal.h"

#include <algorithm>
#include <cstring>

namespace storage_parts {

void LiveCounters::clear() {
	for (auto* counter : {&mOverflowFrames, &mRefusedFrames, &mShortWrites, &mLostFrames, &mFailedIndexWrites}) {
		*counter = 0;
	}
}

void LiveCounters::copyTo(emsSTORAGE_COUNTERS* out) const {
	out->mOverflowFrames = mOverflowFrames;
	out->mRefusedFrames = mRefusedFrames;
	out->mShortWrites = mShortWrites;
	out->mLostFrames = mLostFrames;
	out->mFailedIndexWrites = mFailedIndexWrites;
}

void SessionParts::startAnew() {
	mUnwritten = 0;
	endReservation();
	mClosed = mLoaded = false;
	mClaim = SessionClaim();
	mCounters.clear();
}

void SessionParts::reserve() {
	if (mOwner.mList && mOwner.mList->mParts) return mOwner.mList->mParts->reserve(&mOwner);
	const base::MutexGuard guard(mOwner.mMutex);
	mFrameLimit = kNoLimit;
	mLimitKnown = true;
}

void SessionParts::endReservation() {
	mFrameLimit = kNoLimit;
	mLimitKnown = false;
	mReserved = false;
}

// ---- taking frames

/// Frames must stand on the target and before those of others, or they would be lost, or
/// overwrite what is there.
bool SessionParts::takesFrames() const {
	const emsSTORAGE_SESSION& record = mOwner.mSession;
	const CmsStorage* storage = mOwner.mStorage;
	if (!mLimitKnown || refusal() || record.mFrameCount >= record.mMaxFrameCount) return false;
	const long long end = placeOfFrame(record, static_cast<long long>(record.mFrameCount) + 1);
	return end <= storage->GetTotalSpace();
}

const char* SessionParts::refusal() const {
	const CmsStorage* storage = mOwner.mStorage;
	if (!storage || !storage->IsReady()) return "the storage is not ready";
	if (mClosed) return "index records of the session were lost";
	if (mLoaded && (mClaim.mFault || mClaim.mFramesThere < mOwner.mSession.mFrameCount - mUnwritten)) {
		return "the session's record cannot be believed";
	}
	if (mLimitKnown && mFrameLimit <= mOwner.mSession.mFrameCount)
		return "frames of another session stand behind these";
	const SessionListParts* list = mOwner.mList ? mOwner.mList->mParts : nullptr;
	if (list && list->owesRemoval()) return "removed sessions still stand in the saved list";
	return nullptr;
}

/// The sizes are the buffer's own: a host that changes the record meanwhile harms nobody.
void SessionParts::storeFrame(const void* frame, double time) {
	emsSTORAGE_BUFFER& buffer = *mOwner.mCurrentBuffer;
	const emsSTORAGE_SESSION& record = mOwner.mSession;
	if (buffer.mFramesUsed == 0) {
		buffer.mFirstIndex = static_cast<long long>(record.mFirstIndex) + record.mFrameCount;
		buffer.mStoragePos = record.mStoragePos + static_cast<long long>(record.mFrameCount) * buffer.mAlignedFrameSize;
	}
	const int slot = buffer.mFramesUsed;
	emsSTORAGE_INDEX& index = *buffer.mIndexTable[slot];
	index.mTime = time;
	index.mFrameSize = buffer.mFrameSize;
	index.mFlags = record.mFlags | (mOwner.mRunMarker ? kIndexRunMarker : 0);
	index.mStoragePos = buffer.mStoragePos + static_cast<long long>(slot) * buffer.mAlignedFrameSize;
	std::memcpy(buffer.mFrameTable[slot], frame, buffer.mFrameSize);
	++buffer.mFramesUsed;
}

void SessionParts::queueCurrentBuffer() {
	emsSTORAGE_BUFFER* buffer = mOwner.mCurrentBuffer;
	mOwner.mCurrentBuffer = nullptr;
	buffer->mState = emsBUFFER_QUEUED;
	StorageParts::writerOf(mOwner.mStorage)->post(buffer);
}

void SessionParts::flushCurrentBuffer() {
	const base::MutexGuard guard(mOwner.mMutex);
	if (mOwner.mCurrentBuffer && StorageParts::writerOf(mOwner.mStorage)) queueCurrentBuffer();
}

bool SessionParts::takeKeptBuffer() {
	BufferWriter* writer = StorageParts::writerOf(mOwner.mStorage);
	return writer && writer->releaseKept(&mOwner);
}

void SessionParts::waitForOwnBuffers() {
	if (BufferWriter* writer = StorageParts::writerOf(mOwner.mStorage)) writer->waitUntilFree(mOnTheirWay);
}

// ---- what the storage tells

void SessionParts::count(Counter which, unsigned long long number) {
	(mCounters.*which).fetch_add(number, std::memory_order_relaxed);
	StorageParts* storage = mOwner.mStorage ? mOwner.mStorage->mParts : nullptr;
	if (storage) (storage->mCounters.*which).fetch_add(number, std::memory_order_relaxed);
}

/// The bytes are those the buffer occupies, lost frames included: the next session begins
/// behind everything that may stand on the target.
bool SessionParts::bufferWritten(const emsSTORAGE_BUFFER& buffer, bool indexed) {
	const auto frames = static_cast<uint32_t>(buffer.mFramesUsed);
	bool closedNow = false;
	bool closed = false;
	{
		const base::MutexGuard guard(mOwner.mMutex);
		mOwner.mSession.mBytesWritten += static_cast<long long>(frames) * buffer.mAlignedFrameSize;
		closedNow = !indexed && !mClosed;
		mClosed = closed = mClosed || !indexed;
		if (!closed) {
			mUnwritten -= std::min(mUnwritten, frames);
			if (mLoaded) mClaim.mFramesThere += frames;
		}
	}
	if (closedNow) mOwner.log(3, "Index records lost at %I64d: the session takes no more frames", buffer.mFirstIndex);
	return !closed;
}

// ---- what is there, and what is claimed

/// What was read comes back as it was read: frames that a record counts and the target does
/// not hold may be found again on another target.
emsSTORAGE_SESSION SessionParts::savedRecord() const {
	const base::MutexGuard guard(mOwner.mMutex);
	emsSTORAGE_SESSION record = mOwner.mSession;
	record.mFrameCount -= std::min(mUnwritten, record.mFrameCount);
	return record;
}

void SessionParts::judge(long long heldBytes, long long targetBytes) {
	const base::MutexGuard guard(mOwner.mMutex);
	mLoaded = true;
	mClaim = claimOf(mOwner.mSession, heldBytes, targetBytes);
}

SessionClaim SessionParts::claim() const {
	const base::MutexGuard guard(mOwner.mMutex);
	const emsSTORAGE_SESSION& record = mOwner.mSession;
	SessionClaim claim = mClaim;
	if (claim.mFault) return claim; // takes no frames, and its own words are no good
	claim.include(std::max<long long>(record.mStoragePos, 0), mOwner.GetEndPosition() - record.mStoragePos);
	const long long first = record.mFirstIndex;
	claim.mFirstIndex = claim.mEndIndex ? std::min(claim.mFirstIndex, first) : first;
	claim.mEndIndex = std::max(claim.mEndIndex, first + record.mFrameCount);
	return claim;
}

unsigned int SessionParts::writtenFrameCount() const {
	const base::MutexGuard guard(mOwner.mMutex);
	const uint32_t saved = savedRecord().mFrameCount;
	return mLoaded ? static_cast<unsigned int>(std::min<long long>(saved, mClaim.mFramesThere)) : saved;
}

// ---- playback

/// Under the drive mutex, so that nobody moves the position between seek and transfer.
int SessionParts::readFrame(
    void* buffer, const emsSTORAGE_SESSION& record, long long frameNumber, unsigned int* frameBytes) {
	CmsStorage& storage = *mOwner.mStorage;
	emsSTORAGE_INDEX index;
	const long long global = static_cast<long long>(record.mFirstIndex) + frameNumber;
	if (mOwner.mIndexList->ReadRecord(global, &index) != kQorSuccess) return kFrameUnreadable;
	const long long size = record.mAlignedFrameSize;
	const long long position = placeOfFrame(record, frameNumber);
	if (index.mStoragePos != position || index.mFrameSize > record.mAlignedFrameSize) return kFrameDamaged;
	if (!index.mFrameSize) return kFrameLost;
	if (storage.driveSeek(position) != position || storage.driveRead(buffer, size) != size) return kFrameUnreadable;
	if (holdsUnwrittenPage(static_cast<const unsigned char*>(buffer), size, position)) return kFrameUnreadable;
	if (frameBytes) *frameBytes = index.mFrameSize;
	return kQorSuccess;
}

} // namespace storage_parts
