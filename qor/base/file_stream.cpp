#include "../platform/memory.h"
#include "../platform/thread.h"

#include "file_back_end_internal.h"
#include "file_stream_internal.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <new>

namespace base {

uint32_t streamStopBudgetMs = 30 + 100 * 100;

namespace {

constexpr uint32_t kBlockSize = 4096;   // bytes; what streams write is a multiple of it
constexpr uint32_t kRingWaitMs = 1000;  // bound of a wait for the ring's mutex
constexpr int32_t kMostWakeUps = 10000; // of the semaphore, unless there are more buffers

uint64_t roundToBlock(uint64_t bytes) { return (bytes + kBlockSize - 1) / kBlockSize * kBlockSize; }

/// Hosts can reach the record, so its free bytes are never trusted beyond the buffer.
uint32_t freeBytes(const estFILE_STREAM_BUFFER& buffer) { return std::min(buffer.mFree.load(), buffer.mCapacity); }

/// Copies to the start of the free bytes; the caller has checked that `n` fit.
void put(estFILE_STREAM_BUFFER& buffer, const unsigned char* data, uint32_t n) {
	const uint32_t room = freeBytes(buffer);
	auto* place = buffer.mData + (buffer.mCapacity - room);
	if (n > 0 && data) std::memcpy(place, data, n);
	if (n > 0 && !data) std::memset(place, 0, n);
	buffer.mFree = room - n;
}

} // namespace

FileStream::~FileStream() {
	for (uint32_t i = 0; i < mBufferCount; ++i) mBuffers[i].~estFILE_STREAM_BUFFER();
	platform::release(mBuffers);
	if (mBlock) platform::releasePages(mBlock, mBlockSize);
}

bool FileStream::allocate(unsigned long bufferKiB, unsigned long count) {
	if (bufferKiB == 0 || bufferKiB > UINT32_MAX / 1024 || count == 0 || count >= INT_MAX) return false;
	const uint64_t capacity = roundToBlock(static_cast<uint64_t>(bufferKiB) * 1024);
	if (capacity > UINT32_MAX || capacity > SIZE_MAX / 2 / count) return false;

	void* records = platform::allocate(count * sizeof(estFILE_STREAM_BUFFER));
	if (!records) return false;
	mBuffers = static_cast<estFILE_STREAM_BUFFER*>(records);
	mBlockSize = static_cast<size_t>(capacity * count);
	mBlock = static_cast<unsigned char*>(platform::allocatePages(mBlockSize));
	if (!mBlock) return false;
	for (mBufferCount = 0; mBufferCount < count; ++mBufferCount) {
		auto* buffer = new (mBuffers + mBufferCount) estFILE_STREAM_BUFFER;
		buffer->mCapacity = static_cast<uint32_t>(capacity);
		buffer->mData = mBlock + mBufferCount * capacity;
		buffer->mIndex = mBufferCount;
		buffer->mFree = buffer->mCapacity;
	}
	return true;
}

bool FileStream::startWriter() {
	const auto count = static_cast<int32_t>(mBufferCount);
	mOwnedMutex.reset(platform::createMutex(false));
	// One more than there can be queued buffers: the wake-up that ends the writer.
	mOwnedSemaphore.reset(platform::createSemaphore(0, std::max(kMostWakeUps, count + 1)));
	if (!mOwnedMutex || !mOwnedSemaphore || !mPending.laAdd(count, 1)) return false;
	mMutex = mOwnedMutex.get();
	mSemaphore = mOwnedSemaphore.get();
	mCurrent = mBuffers;
	mCurrentIndex = 0;
	mWriterState = kRunning;
	mThread.reset(platform::startThread(&FileStream::writerThread, this));
	if (!mThread) mWriterState = kNone;
	return static_cast<bool>(mThread);
}

unsigned FileStream::writerThread(void* stream) {
	static_cast<FileStream*>(stream)->runWriter();
	return 0;
}

void FileStream::runWriter() {
	bool awake = true;
	do {
		awake = platform::wait(mSemaphore, platform::kInfinite) == platform::kWaitAcquired;
		if (auto* buffer = takeOldest()) flush(*buffer);
	} while (awake && mWriterState == kRunning);
	// The last touch of this object, unless nobody else has it any more.
	if (mWriterState.exchange(kEnded) != kAbandoned) return;
	mCallBack = nullptr; // the file may be gone
	writePending();
	mBackEnd(mHandle, kCodeClose, 0, 0, 0, nullptr);
	delete this;
}

bool FileStream::stopWriter() {
	uint32_t running = kRunning;
	mWriterState.compare_exchange_strong(running, kStopRequested);
	// The writer may have taken the last buffer before it could see the request.
	platform::releaseSemaphore(mSemaphore, 1, nullptr);
	if (platform::wait(mThread.get(), streamStopBudgetMs) == platform::kWaitAcquired) return true;
	uint32_t requested = kStopRequested;
	return !mWriterState.compare_exchange_strong(requested, kAbandoned);
}

void FileStream::writePending() {
	while (auto* buffer = takeOldest()) flush(*buffer);
}

unsigned long FileStream::write(const void* data, unsigned long n) {
	if (!mCurrent || isWriters(*mCurrent)) return 0;
	const auto* bytes = static_cast<const unsigned char*>(data);
	const uint32_t room = freeBytes(*mCurrent);
	if (n < room) {
		put(*mCurrent, bytes, static_cast<uint32_t>(n));
		return n;
	}
	put(*mCurrent, bytes, room);
	// Callers count on the result of a crossing write: what went to the next buffer.
	const unsigned long rest = n - room;
	auto* following = next();
	if (!following || isWriters(*following) || rest > freeBytes(*following)) return 0;
	put(*following, bytes ? bytes + room : nullptr, static_cast<uint32_t>(rest));
	return rest;
}

estFILE_STREAM_BUFFER* FileStream::next() {
	if (!mSemaphore) return nullptr; // read streaming has no writer
	MutexGuard ring(mMutex, kRingWaitMs);
	const uint64_t queued = mQueuedTotal;
	if (queued - mTaken >= mBufferCount) return nullptr;
	auto** places = static_cast<estFILE_STREAM_BUFFER**>(mPending.mvGetData());
	places[queued % mBufferCount] = mCurrent;
	++mCurrent->mQueued;
	mQueuedTotal = queued + 1;
	mCurrentIndex = (mCurrentIndex + 1) % mBufferCount;
	mCurrent = mBuffers + mCurrentIndex;
	const bool busy = mCurrent->mBusy != 0;
	ring.unlock();
	// Also when the next buffer is busy: without its wake-up a queued buffer would stay behind.
	platform::releaseSemaphore(mSemaphore, 1, nullptr);
	return busy ? nullptr : mCurrent;
}

estFILE_STREAM_BUFFER* FileStream::takeOldest() {
	MutexGuard ring(mMutex, kRingWaitMs);
	const uint64_t taken = mTaken;
	if (taken == mQueuedTotal) return nullptr;
	auto* buffer = static_cast<estFILE_STREAM_BUFFER**>(mPending.mvGetData())[taken % mBufferCount];
	buffer->mBusy = 1; // before it leaves the list: it is the writer's without a gap
	--buffer->mQueued;
	mTaken = taken + 1;
	return buffer;
}

bool FileStream::flush(estFILE_STREAM_BUFFER& buffer) {
	const std::lock_guard transfer(mTransfer);
	const uint64_t used = buffer.mCapacity - freeBytes(buffer);
	const auto count = static_cast<uint32_t>(std::min<uint64_t>(roundToBlock(used), buffer.mCapacity));
	notify(10, count, buffer);
	const uint32_t written = writePieces(buffer.mData, count);
	mLostBytes += count - written;
	markFree(buffer);
	notify(11, written, buffer);
	return written == count;
}

uint32_t FileStream::writePieces(const unsigned char* data, uint32_t count) {
	uint32_t done = 0;
	while (done < count) {
		const uint32_t piece = std::min(count - done, mPackSize.load());
		auto* bytes = const_cast<unsigned char*>(data + done); // back ends take one pointer for both directions
		const auto written = mHandle ? mBackEnd(mHandle, kCodeWrite, 0, piece, 0, bytes) : 0;
		done += static_cast<uint32_t>(written);
		if (written < piece) break;
	}
	return done;
}

void FileStream::markFree(estFILE_STREAM_BUFFER& buffer) {
	MutexGuard ring(mMutex, kRingWaitMs);
	buffer.mFree = buffer.mCapacity;
	buffer.mBusy = 0;
}

bool FileStream::owns(const estFILE_STREAM_BUFFER* buffer) const {
	for (uint32_t i = 0; i < mBufferCount; ++i) {
		if (buffer == mBuffers + i) return true;
	}
	return false;
}

bool FileStream::isWriters(const estFILE_STREAM_BUFFER& buffer) {
	return buffer.mQueued != 0 || buffer.mBusy != 0; // in this order: busy is set before it leaves the list
}

unsigned long FileStream::callBackEnd(unsigned long code, unsigned long b, void* p) {
	const std::lock_guard transfer(mTransfer);
	return mBackEnd(mHandle, code, 0, b, 0, p);
}

void FileStream::notify(unsigned long code, unsigned long a, estFILE_STREAM_BUFFER& buffer) {
	const auto callBack = mCallBack.load();
	if (callBack && mWriterState != kAbandoned) callBack(mFile, code, 0, a, &buffer);
}

} // namespace base
