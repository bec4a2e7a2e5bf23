#include "session.h"

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../core/runtime.h"
#include "../platform/clock.h"
#include "../platform/memory.h"
#include "buffer_writer_internal.h"
#include "session_list.h"
#include "storage.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace {

constexpr uint32_t kRecording = 1;
constexpr uint32_t kPlaybackOpen = 2;
/// Lets a producer that has passed the recording bit finish its frame.
constexpr uint32_t kStopPauseMs = 30;
constexpr long long kNoLimit = std::numeric_limits<long long>::max();

} // namespace

CmsSession::CmsSession()
    : mSession(), mStorage(nullptr), mList(nullptr), mIndexList(nullptr), mStartTime(0), mStopTime(0),
      mCurrentBuffer(nullptr), mMutex(platform::createMutex(false)), mState(0), mPreviousState(0), mRunMarker(0),
      mPlayback(0), mUnwritten(0), mFrameLimit(kNoLimit), mClosed(false), mOnTheirWay(0) {
	settype("CmsSession");
}

CmsSession::~CmsSession() {
	Destroy();
	platform::closeHandle(mMutex);
}

int CmsSession::Create(const emsSTORAGE_SESSION* record) {
	if (!record) return kQorFailure;
	const base::MutexGuard guard(mMutex);
	mSession = *record;
	mUnwritten = 0;
	mFrameLimit = kNoLimit;
	mClosed = false;
	for (const Counter which : {&emsSTORAGE_LIVE_COUNTERS::mOverflowFrames, &emsSTORAGE_LIVE_COUNTERS::mRefusedFrames,
	         &emsSTORAGE_LIVE_COUNTERS::mShortWrites, &emsSTORAGE_LIVE_COUNTERS::mLostFrames,
	         &emsSTORAGE_LIVE_COUNTERS::mFailedIndexWrites}) {
		mCounters.*which = 0;
	}
	return kQorSuccess;
}

void CmsSession::Destroy() {
	FreeResources();
	const base::MutexGuard guard(mMutex);
	mSession = emsSTORAGE_SESSION();
	mUnwritten = 0;
}

void CmsSession::Lock() { platform::wait(mMutex, platform::kInfinite); }
void CmsSession::Unlock() { platform::releaseMutex(mMutex); }

// ---- producer

void CmsSession::SetRecording(bool on) {
	if (on) {
		mState |= kRecording;
	} else {
		mState &= ~kRecording;
	}
}

int CmsSession::IsRecording() const { return (mState & kRecording) ? 1 : 0; }

int CmsSession::Feed(const void* frame) {
	const double time = appGetTime();
	base::MutexGuard guard(mMutex);
	if (!frame || !guard.owns()) return kQorFailure;
	if (!mBuffer.Count()) {
		guard.unlock();
		log(3, "PASS1/mBuffer.GetCount()");
		return kQorFailure;
	}
	// The marker tells runs apart when frames are indexed, so it flips on every change of the
	// state word, also while nothing is recorded.
	const uint32_t state = mState;
	if (state != mPreviousState) mRunMarker ^= 1;
	mPreviousState = state;
	if (!(state & kRecording)) return kQorSuccess;

	if (mSession.mFrameCount == 0) mStartTime = time;
	if (!takesFrames()) {
		count(&emsSTORAGE_LIVE_COUNTERS::mRefusedFrames, 1);
		return kQorFailure;
	}
	if (!mCurrentBuffer) mCurrentBuffer = GetFreeBuffer();
	if (!mCurrentBuffer) {
		guard.unlock();
		count(&emsSTORAGE_LIVE_COUNTERS::mOverflowFrames, 1);
		log(3, "OVERFLOW");
		return kQorFailure;
	}
	storeFrame(frame, time);
	++mSession.mFrameCount;
	++mUnwritten;
	if (mCurrentBuffer->mFramesUsed == mCurrentBuffer->mCapacity) queueCurrentBuffer();
	return kQorSuccess;
}

bool CmsSession::takesFrames() const {
	return !mClosed && mStorage && mStorage->IsReady() && mSession.mFrameCount < mSession.mMaxFrameCount &&
	       mSession.mFrameCount < mFrameLimit;
}

/// The sizes are the buffer's own: a host that changes the record meanwhile harms nobody.
void CmsSession::storeFrame(const void* frame, double time) {
	emsSTORAGE_BUFFER& buffer = *mCurrentBuffer;
	if (buffer.mFramesUsed == 0) {
		buffer.mFirstIndex = static_cast<long long>(mSession.mFirstIndex) + mSession.mFrameCount;
		buffer.mStoragePos =
		    mSession.mStoragePos + static_cast<long long>(mSession.mFrameCount) * buffer.mAlignedFrameSize;
	}
	const int slot = buffer.mFramesUsed;
	emsSTORAGE_INDEX& index = *buffer.mIndexTable[slot];
	index.mTime = time;
	index.mFrameSize = buffer.mFrameSize;
	index.mFlags = mSession.mFlags | (mRunMarker ? kIndexRunMarker : 0);
	index.mStoragePos = buffer.mStoragePos + static_cast<long long>(slot) * buffer.mAlignedFrameSize;
	std::memcpy(buffer.mFrameTable[slot], frame, buffer.mFrameSize);
	++buffer.mFramesUsed;
}

void CmsSession::queueCurrentBuffer() {
	emsSTORAGE_BUFFER* buffer = mCurrentBuffer;
	mCurrentBuffer = nullptr;
	buffer->mState = emsBUFFER_QUEUED;
	mStorage->mWriter->post(buffer);
}

void CmsSession::flushCurrentBuffer() {
	const base::MutexGuard guard(mMutex);
	if (mCurrentBuffer && mStorage && mStorage->mWriter) queueCurrentBuffer();
}

int CmsSession::PrepareToRecord() {
	if (mStorage) mStorage->WaitUntilWritten();
	const long long limit = mList ? mList->framesThatFit(this) : kNoLimit;
	const base::MutexGuard guard(mMutex);
	mFrameLimit = limit;
	if (mFrameLimit <= mSession.mFrameCount) log(3, "No room: frames of another session stand behind these");
	return kQorSuccess;
}

int CmsSession::StopRecord() {
	{
		const base::MutexGuard guard(mMutex);
		SetRecording(false);
		mStopTime = appGetTime();
	}
	platform::sleepMs(kStopPauseMs);
	flushCurrentBuffer();
	if (mStorage) mStorage->WaitUntilWritten();
	// A list that could not be saved with the last buffer gets another chance.
	if (mList && mList->IsUnsaved()) mList->Save();
	return kQorSuccess;
}

// ---- what the storage tells

void CmsSession::count(Counter which, unsigned long long number) {
	(mCounters.*which).fetch_add(number, std::memory_order_relaxed);
	if (mStorage) (mStorage->mCounters.*which).fetch_add(number, std::memory_order_relaxed);
}

/// The bytes are those the buffer occupies, lost frames included: the next session begins
/// behind everything that may stand on the target.
/// @return whether the frames count as written.
bool CmsSession::bufferWritten(const emsSTORAGE_BUFFER& buffer, bool indexed) {
	const auto frames = static_cast<uint32_t>(buffer.mFramesUsed);
	bool closedNow = false;
	bool closed = false;
	{
		const base::MutexGuard guard(mMutex);
		mSession.mBytesWritten += static_cast<long long>(frames) * buffer.mAlignedFrameSize;
		closedNow = !indexed && !mClosed;
		mClosed = closed = mClosed || !indexed;
		if (!closed) mUnwritten -= std::min(mUnwritten, frames);
	}
	if (closedNow) log(3, "Index records lost at %I64d: the session takes no more frames", buffer.mFirstIndex);
	return !closed;
}

emsSTORAGE_SESSION CmsSession::savedRecord() const {
	const base::MutexGuard guard(mMutex);
	emsSTORAGE_SESSION record = mSession;
	record.mFrameCount -= std::min(mUnwritten, record.mFrameCount);
	return record;
}

/// For a record from a file: frames counted beyond the bytes written are not on the disk.
void CmsSession::limitToWritten() {
	const long long there = mSession.mAlignedFrameSize ? mSession.mBytesWritten / mSession.mAlignedFrameSize : 0;
	if (there < mSession.mFrameCount) mUnwritten = mSession.mFrameCount - static_cast<uint32_t>(there);
}

emsSTORAGE_SESSION CmsSession::GetRecord() const {
	const base::MutexGuard guard(mMutex);
	return mSession;
}

long long CmsSession::GetEndPosition() const {
	const base::MutexGuard guard(mMutex);
	long long bytes = mSession.mBytesWritten;
	if (mOnTheirWay > 0 || mCurrentBuffer) {
		bytes = std::max(bytes, static_cast<long long>(mSession.mFrameCount) * mSession.mAlignedFrameSize);
	}
	return mSession.mStoragePos + bytes;
}

unsigned int CmsSession::GetWrittenFrameCount() const { return savedRecord().mFrameCount; }

void CmsSession::GetCounters(emsSTORAGE_COUNTERS* out) const {
	if (!out) return;
	out->mOverflowFrames = mCounters.mOverflowFrames;
	out->mRefusedFrames = mCounters.mRefusedFrames;
	out->mShortWrites = mCounters.mShortWrites;
	out->mLostFrames = mCounters.mLostFrames;
	out->mFailedIndexWrites = mCounters.mFailedIndexWrites;
	out->mFailedListSaves = mList ? mList->GetFailedSaves() : 0;
}

// ---- playback

int CmsSession::OpenForPlayback() {
	mPlayback = kPlaybackOpen;
	return kQorSuccess;
}

int CmsSession::ClosePlayback() {
	mPlayback = 0;
	return kQorSuccess;
}

int CmsSession::LoadRawFrame(void* buffer, long long frameNumber) {
	LoadRawFrameChecked(buffer, frameNumber, nullptr);
	return kQorSuccess;
}

int CmsSession::LoadRawFrameChecked(void* buffer, long long frameNumber, unsigned int* frameBytes) {
	if (frameBytes) *frameBytes = 0;
	const emsSTORAGE_SESSION record = GetRecord();
	if (!buffer || !mStorage || !mIndexList || frameNumber < 0 || frameNumber >= record.mFrameCount) {
		return kFrameNotThere;
	}
	if (frameNumber >= GetWrittenFrameCount()) return kFrameNotWritten;
	mStorage->driveLock();
	const int result = readFrame(buffer, record, frameNumber, frameBytes);
	mStorage->driveUnlock();
	return result;
}

/// Under the drive mutex, so that nobody moves the position between seek and transfer.
int CmsSession::readFrame(
    void* buffer, const emsSTORAGE_SESSION& record, long long frameNumber, unsigned int* frameBytes) {
	emsSTORAGE_INDEX index;
	if (mIndexList->ReadRecord(static_cast<long long>(record.mFirstIndex) + frameNumber, &index) != kQorSuccess) {
		return kFrameUnreadable;
	}
	const long long size = record.mAlignedFrameSize;
	const long long position = record.mStoragePos + frameNumber * size;
	if (index.mStoragePos != position || index.mFrameSize > record.mAlignedFrameSize) return kFrameDamaged;
	if (!index.mFrameSize) return kFrameLost;
	if (mStorage->driveSeek(position) != position || mStorage->driveRead(buffer, size) != size) return kFrameUnreadable;
	if (frameBytes) *frameBytes = index.mFrameSize;
	return kQorSuccess;
}
