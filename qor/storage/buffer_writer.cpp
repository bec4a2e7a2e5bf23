#include "buffer_writer_internal.h"

#include "../base/status.h"
#include "../core/runtime.h"
#include "../platform/machine.h"
#include "../platform/thread.h"
#include "../platform/wait.h"
#include "session_internal.h"
#include "session_list.h"
#include "storage_internal.h"

#include <utility>

namespace storage_parts {

namespace {

constexpr double kMB = 1048576.0;

} // namespace

void BufferChain::append(emsSTORAGE_BUFFER* buffer) {
	buffer->mNext = nullptr;
	if (mLast) {
		mLast->mNext = buffer;
	} else {
		mFirst = buffer;
	}
	mLast = buffer;
}

emsSTORAGE_BUFFER* BufferChain::takeFirst() {
	emsSTORAGE_BUFFER* buffer = mFirst;
	if (!buffer) return nullptr;
	mFirst = buffer->mNext;
	if (!mFirst) mLast = nullptr;
	buffer->mNext = nullptr;
	return buffer;
}

// ---- start and end

bool BufferWriter::start() {
	mStopping = false;
	mThread.reset(platform::startThread(&BufferWriter::listThread, this));
	return static_cast<bool>(mThread);
}

void BufferWriter::stop() {
	if (!mThread) return;
	waitUntilWritten();
	{
		const std::lock_guard guard(mWrittenMutex);
		mStopping = true;
	}
	mWorkChanged.notify_all();
	platform::wait(mThread.get(), platform::kInfinite);
	mThread.reset();
}

/// `condition` is looked at under the written mutex. Kept buffers are not waited for in vain:
/// the list thread is told that somebody waits.
template <typename Condition>
void BufferWriter::waitFor(Condition condition) {
	std::unique_lock guard(mWrittenMutex);
	++mWaiters;
	mWorkChanged.notify_all();
	mReleasedChanged.wait(guard, condition);
	--mWaiters;
}

void BufferWriter::waitUntilWritten() {
	const unsigned long long posted = mPosted;
	waitFor([this, posted] { return mReleased >= posted; });
}

void BufferWriter::waitUntilFree(const std::atomic<int>& onTheirWay) {
	waitFor([&onTheirWay] { return onTheirWay.load() == 0; });
}

// ---- into the queue

void BufferWriter::post(emsSTORAGE_BUFFER* buffer) {
	buffer->mPosted = true;
	++buffer->mSession->mParts->mOnTheirWay;
	{
		const std::lock_guard guard(mWaitingMutex);
		mWaiting.append(buffer);
		++mPosted;
	}
	postWaiting();
}

/// A full queue has at least one item that no callback has seen, so this is called again
/// after a place has become free.
void BufferWriter::postWaiting() {
	const std::lock_guard guard(mWaitingMutex);
	while (emsSTORAGE_BUFFER* buffer = mWaiting.mFirst) {
		// Once in the queue the buffer may be with the worker: take it off the chain before.
		mWaiting.takeFirst();
		if (mQueue.Add(kStorageMessageWrite, 0, 0, buffer, nullptr)) continue;
		buffer->mNext = mWaiting.mFirst;
		mWaiting.mFirst = buffer;
		if (!mWaiting.mLast) mWaiting.mLast = buffer;
		return;
	}
}

// ---- on the queue worker

void BufferWriter::write(emsSTORAGE_BUFFER* buffer) {
	buffer->mState = emsBUFFER_WRITING;
	buffer->mFramesLost = 0;
	if (buffer->mFramesUsed > 0) {
		buffer->mIndexWritten = writeIndexRecords(*buffer);
		const long long moved = writeFrames(*buffer);
		markLostFrames(*buffer, moved);
	}
	{
		const std::lock_guard guard(mWrittenMutex);
		mWritten.append(buffer);
	}
	mWorkChanged.notify_one();
}

bool BufferWriter::writeIndexRecords(emsSTORAGE_BUFFER& buffer) {
	buffer.mFailedFlushes = mFailedFlushes;
	if (mStorage.mIndexList.WriteRecords(buffer.mFirstIndex, buffer.mIndex, buffer.mFramesUsed) == kQorSuccess)
		return true;
	reportIndexFailure(buffer);
	return false;
}

void BufferWriter::reportIndexFailure(const emsSTORAGE_BUFFER& buffer) {
	buffer.mSession->log(
	    3, "Index records at %I64d not written (err=%d)", buffer.mFirstIndex, static_cast<int>(platform::lastError()));
	buffer.mSession->mParts->count(&LiveCounters::mFailedIndexWrites, 1);
}

/// @return bytes that reached the target.
long long BufferWriter::writeFrames(emsSTORAGE_BUFFER& buffer) {
	const long long bytes = static_cast<long long>(buffer.mFramesUsed) * buffer.mAlignedFrameSize;
	const double start = appGetTime();
	const long long moved = moveToTarget(buffer, bytes);
	const double seconds = appGetTime() - start;
	const double megabytes = static_cast<double>(moved) / kMB;
	const double rate = seconds > 0 ? megabytes / seconds : 0;
	buffer.mLastWriteTime = seconds;
	buffer.mLastWriteRate = rate;
	mStorage.mParts->addRate(rate);
	if (moved < bytes) {
		buffer.mSession->mParts->count(&LiveCounters::mShortWrites, 1);
		appmsg("[ERROR] Write (%I64d of %I64d)", moved, bytes);
	}
	appmsg("WRITING> %12.2f MB/sec (AVG=%12.2f MB/sec)    %12.2f MB  (%12.2f sec)", rate, mStorage.GetAverageRate(),
	    megabytes, seconds);
	return moved;
}

/// A place outside the target is refused here: on a data file such a write would succeed,
/// somewhere nobody looks.
long long BufferWriter::moveToTarget(emsSTORAGE_BUFFER& buffer, long long bytes) {
	long long moved = 0;
	mStorage.driveLock();
	const bool inside = buffer.mStoragePos >= 0 && bytes <= mStorage.GetTargetBytes() - buffer.mStoragePos;
	if (inside && mStorage.driveSeek(buffer.mStoragePos) == buffer.mStoragePos) {
		moved = mStorage.driveWrite(buffer.mData, bytes, &buffer.mProgress);
	}
	mStorage.driveUnlock();
	return moved;
}

/// Frames that did not reach the target keep their number and their place; a frame size of 0
/// in their index records says that they are not there.
void BufferWriter::markLostFrames(emsSTORAGE_BUFFER& buffer, long long bytesMoved) {
	const int whole = static_cast<int>(bytesMoved / buffer.mAlignedFrameSize);
	if (whole >= buffer.mFramesUsed) return;
	buffer.mFramesLost = buffer.mFramesUsed - whole;
	buffer.mSession->mParts->count(&LiveCounters::mLostFrames, static_cast<unsigned long long>(buffer.mFramesLost));
	for (int i = whole; i < buffer.mFramesUsed; ++i) buffer.mIndex[i].mFrameSize = 0;
	buffer.mIndexWritten = writeIndexRecords(buffer);
}

// ---- on the list thread

unsigned BufferWriter::listThread(void* writer) {
	static_cast<BufferWriter*>(writer)->commitUntilStopped();
	return 0;
}

void BufferWriter::commitUntilStopped() {
	std::unique_lock guard(mWrittenMutex);
	for (;;) {
		mWorkChanged.wait(guard, [this] { return mWritten.mFirst || mStopping || (mWaiters > 0 && mKept.mFirst); });
		const BufferChain batch = std::exchange(mWritten, BufferChain());
		if (!batch.mFirst && !mKept.mFirst) return;
		guard.unlock();
		commit(batch);
		guard.lock();
	}
}

void BufferWriter::commit(BufferChain batch) {
	const bool stored = storeIndexRecords(batch);
	bool anyFrames = !batch.mFirst; // without a batch it is about the kept ones
	for (emsSTORAGE_BUFFER* buffer = batch.mFirst; buffer; buffer = buffer->mNext) {
		if (buffer->mFramesUsed == 0) continue;
		anyFrames = true;
		if (buffer->mSession->mParts->bufferWritten(*buffer, stored && buffer->mIndexWritten)) continue;
		const auto more = static_cast<unsigned long long>(buffer->mFramesUsed - buffer->mFramesLost);
		buffer->mSession->mParts->count(&LiveCounters::mLostFrames, more);
	}
	if (anyFrames) {
		settle(batch, mStorage.mSessionList.Save() == kQorSuccess);
		return;
	}
	const std::lock_guard guard(mWrittenMutex);
	while (emsSTORAGE_BUFFER* buffer = batch.takeFirst()) release(buffer);
}

/// Hands the index records to the medium, with one second chance for what failed.
bool BufferWriter::storeIndexRecords(const BufferChain& batch) {
	if (!batch.mFirst) return true;
	bool flushed = false;
	for (int attempt = 0; attempt < 2 && !flushed; ++attempt) {
		for (emsSTORAGE_BUFFER* buffer = batch.mFirst; buffer; buffer = buffer->mNext) {
			const bool lost = !buffer->mIndexWritten || buffer->mFailedFlushes != mFailedFlushes;
			if (buffer->mFramesUsed > 0 && lost) buffer->mIndexWritten = writeIndexRecords(*buffer);
		}
		flushed = mStorage.mIndexList.Flush() == kQorSuccess;
		if (flushed) break;
		++mFailedFlushes;
		reportIndexFailure(*batch.mFirst);
	}
	return flushed;
}

/// Frees the batch and what was kept, or keeps both while nobody needs them.
void BufferWriter::settle(BufferChain batch, bool saved) {
	const std::lock_guard guard(mWrittenMutex);
	while (emsSTORAGE_BUFFER* buffer = batch.takeFirst()) mKept.append(buffer);
	if (!saved && mWaiters == 0 && !mStopping) return;
	while (emsSTORAGE_BUFFER* buffer = mKept.takeFirst()) release(buffer);
}

bool BufferWriter::releaseKept(const CmsSession* session) {
	const std::lock_guard guard(mWrittenMutex);
	BufferChain others;
	emsSTORAGE_BUFFER* found = nullptr;
	while (emsSTORAGE_BUFFER* buffer = mKept.takeFirst()) {
		if (!found && buffer->mSession == session) {
			found = buffer;
		} else {
			others.append(buffer);
		}
	}
	mKept = others;
	if (found) release(found);
	return found != nullptr;
}

/// Under the written mutex. The session may be gone as soon as its last buffer is free and the
/// mutex is left, and with it the buffer.
void BufferWriter::release(emsSTORAGE_BUFFER* buffer) {
	CmsSession* session = buffer->mSession;
	const bool posted = std::exchange(buffer->mPosted, false);
	buffer->mFramesUsed = 0;
	buffer->mState = emsBUFFER_FREE;
	if (!posted) return; // came past the queue, from a caller of the callback
	--session->mParts->mOnTheirWay;
	++mReleased;
	mReleasedChanged.notify_all();
}

} // namespace storage_parts
