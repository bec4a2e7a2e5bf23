#include "session.h"

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../core/runtime.h"
#include "../platform/clock.h"
#include "session_internal.h"
#include "session_list.h"
#include "session_list_internal.h"
#include "storage.h"
#include "storage_internal.h"

#include <algorithm>
#include <cstring>
#include <new>

using storage_parts::LiveCounters;
using storage_parts::SessionParts;

namespace {

/// Lets a producer that has passed the recording bit finish its frame.
constexpr uint32_t kStopPauseMs = 30;

} // namespace

CmsSession::CmsSession()
    : mSession(), mStorage(nullptr), mList(nullptr), mIndexList(nullptr), mStartTime(0), mStopTime(0),
      mCurrentBuffer(nullptr), mMutex(platform::createMutex(false)), mState(0), mPreviousState(0), mRunMarker(0),
      mPlayback(kPlaybackClosed), mParts(new (std::nothrow) SessionParts(*this)) {
	settype("CmsSession");
}

CmsSession::~CmsSession() {
	Destroy();
	platform::closeHandle(mMutex);
	delete mParts;
}

int CmsSession::Create(const emsSTORAGE_SESSION* record) {
	if (!record || !mParts) return kQorFailure;
	const base::MutexGuard guard(mMutex);
	mSession = *record;
	mParts->startAnew();
	return kQorSuccess;
}

void CmsSession::Destroy() {
	FreeResources();
	const base::MutexGuard guard(mMutex);
	mSession = emsSTORAGE_SESSION();
	if (mParts) mParts->startAnew();
}

void CmsSession::Lock() { platform::wait(mMutex, platform::kInfinite); }
void CmsSession::Unlock() { platform::releaseMutex(mMutex); }

// ---- producer

void CmsSession::SetRecording(bool on) {
	if (on) {
		mState |= kSessionRecording;
	} else {
		mState &= ~kSessionRecording;
	}
}

int CmsSession::IsRecording() const { return (mState & kSessionRecording) ? 1 : 0; }

int CmsSession::Feed(const void* frame) {
	const double time = appGetTime();
	// The list's mutex comes before the session's.
	if ((mState & kSessionRecording) && mParts && !mParts->mLimitKnown) mParts->reserve();
	base::MutexGuard guard(mMutex);
	if (!frame || !guard.owns() || !mParts) return kQorFailure;
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
	if (!(state & kSessionRecording)) return kQorSuccess;

	if (mSession.mFrameCount == 0) mStartTime = time;
	if (!mParts->takesFrames()) {
		mParts->count(&LiveCounters::mRefusedFrames, 1);
		return kQorFailure;
	}
	if (!mCurrentBuffer) mCurrentBuffer = GetFreeBuffer();
	if (!mCurrentBuffer && mParts->takeKeptBuffer()) mCurrentBuffer = GetFreeBuffer();
	if (!mCurrentBuffer) {
		guard.unlock();
		mParts->count(&LiveCounters::mOverflowFrames, 1);
		log(3, "OVERFLOW");
		return kQorFailure;
	}
	mParts->storeFrame(frame, time);
	++mSession.mFrameCount;
	++mParts->mUnwritten;
	if (mCurrentBuffer->mFramesUsed == mCurrentBuffer->mCapacity) mParts->queueCurrentBuffer();
	return kQorSuccess;
}

int CmsSession::PrepareToRecord() {
	if (mStorage) mStorage->WaitUntilWritten();
	if (!mParts) return kQorSuccess;
	mParts->reserve();
	const base::MutexGuard guard(mMutex);
	if (const char* refusal = mParts->refusal()) log(3, "No frames can be taken: %s", refusal);
	return kQorSuccess;
}

int CmsSession::StopRecord() {
	{
		const base::MutexGuard guard(mMutex);
		SetRecording(false);
		mStopTime = appGetTime();
	}
	platform::sleepMs(kStopPauseMs);
	if (mParts) mParts->flushCurrentBuffer();
	if (mStorage) mStorage->WaitUntilWritten();
	if (mParts) {
		mParts->waitForOwnBuffers();
		const base::MutexGuard guard(mMutex);
		mParts->endReservation();
	}
	// A list that could not be saved with the last buffer gets another chance.
	if (mList && mList->IsUnsaved()) mList->Save();
	return kQorSuccess;
}

// ---- what the host reads and sets

emsSTORAGE_SESSION CmsSession::GetRecord() const {
	const base::MutexGuard guard(mMutex);
	return mSession;
}

int CmsSession::SetFlags(uint32_t flags) {
	const base::MutexGuard guard(mMutex);
	mSession.mFlags = flags;
	return kQorSuccess;
}

int CmsSession::SetUserData(const void* data, int size) {
	if (!data || size < 0 || static_cast<size_t>(size) > sizeof(mSession.mUser)) return kQorFailure;
	const base::MutexGuard guard(mMutex);
	std::memcpy(mSession.mUser, data, static_cast<size_t>(size));
	return kQorSuccess;
}

long long CmsSession::GetEndPosition() const {
	const base::MutexGuard guard(mMutex);
	long long bytes = std::max<long long>(mSession.mBytesWritten, 0);
	if ((mParts && mParts->mOnTheirWay > 0) || mCurrentBuffer) {
		const long long fed = storage_parts::saturatedProduct(mSession.mFrameCount, mSession.mAlignedFrameSize);
		bytes = std::max(bytes, fed);
	}
	return storage_parts::saturatedSum(mSession.mStoragePos, bytes);
}

unsigned int CmsSession::GetWrittenFrameCount() const { return mParts ? mParts->writtenFrameCount() : 0; }

double CmsSession::GetStartTime() const {
	const base::MutexGuard guard(mMutex);
	return mStartTime;
}

double CmsSession::GetStopTime() const {
	const base::MutexGuard guard(mMutex);
	return mStopTime;
}

int CmsSession::GetRunMarker() const {
	const base::MutexGuard guard(mMutex);
	return static_cast<int>(mRunMarker);
}

int CmsSession::IsPlaybackOpen() const { return mPlayback == kPlaybackOpen ? 1 : 0; }

void CmsSession::GetCounters(emsSTORAGE_COUNTERS* out) const {
	if (!out) return;
	*out = emsSTORAGE_COUNTERS();
	if (mParts) mParts->mCounters.copyTo(out);
	out->mFailedListSaves = mList ? mList->GetFailedSaves() : 0;
}

// ---- playback

int CmsSession::OpenForPlayback() {
	mPlayback = kPlaybackOpen;
	return kQorSuccess;
}

int CmsSession::ClosePlayback() {
	mPlayback = kPlaybackClosed;
	return kQorSuccess;
}

int CmsSession::LoadRawFrame(void* buffer, long long frameNumber) {
	LoadRawFrameChecked(buffer, frameNumber, nullptr);
	return kQorSuccess;
}

int CmsSession::LoadRawFrameChecked(void* buffer, long long frameNumber, unsigned int* frameBytes) {
	if (frameBytes) *frameBytes = 0;
	const emsSTORAGE_SESSION record = GetRecord();
	if (!buffer || !mParts || !mStorage || !mIndexList || frameNumber < 0 || frameNumber >= record.mFrameCount) {
		return kFrameNotThere;
	}
	if (frameNumber >= mParts->savedRecord().mFrameCount) return kFrameNotWritten;
	if (frameNumber >= GetWrittenFrameCount()) return kFrameUnreadable;
	mStorage->driveLock();
	const int result = mParts->readFrame(buffer, record, frameNumber, frameBytes);
	mStorage->driveUnlock();
	return result;
}
