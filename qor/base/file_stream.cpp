#include "../platform/memory.h"
#include "../platform/thread.h"

#include "file_back_end_internal.h"
#include "file_stream_internal.h"
#include "host_call_internal.h"

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

/// The file whose callback this writer's thread is in.
thread_local const CstFile* calledFile = nullptr;

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

OpenedFile* OpenedFile::make(CstFileBackEnd backEnd) { return new (std::nothrow) OpenedFile(backEnd); }

unsigned long OpenedFile::open(FileOpenRecord& record) {
	const auto error = mBackEnd(nullptr, kCodeOpen, 0, 0, 0, &record);
	if (error == 0) mHandle = record.handle;
	return error;
}

unsigned long OpenedFile::call(unsigned long code, unsigned long b, void* p) {
	// A single owner is the caller, so nobody else can come meanwhile.
	if (mReferences.load(std::memory_order_acquire) == 1) return mBackEnd(mHandle, code, 0, b, 0, p);
	const std::lock_guard one(mCall);
	return mBackEnd(mHandle, code, 0, b, 0, p);
}

OpenedFile* OpenedFile::share() {
	mReferences.fetch_add(1, std::memory_order_relaxed);
	return this;
}

void OpenedFile::drop() {
	if (mReferences.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
	if (mHandle) mBackEnd(mHandle, kCodeClose, 0, 0, 0, nullptr);
	delete this;
}

FileStream* FileStream::make(CstFile* file, OpenedFile* opened, CstFileCallBack callBack, uint32_t packSize,
    unsigned long bufferKiB, unsigned long count, bool writes) {
	auto* stream = new (std::nothrow) FileStream(file, opened, callBack, packSize);
	if (!stream) return nullptr;
	if (stream->allocate(bufferKiB, count) && (!writes || stream->startWriter())) return stream;
	stream->drop();
	return nullptr;
}

FileStream* FileStream::share() {
	mReferences.fetch_add(1, std::memory_order_relaxed);
	return this;
}

void FileStream::drop() {
	if (mReferences.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

FileStream::~FileStream() {
	for (uint32_t i = 0; i < mBufferCount; ++i) mBuffers[i].~estFILE_STREAM_BUFFER();
	platform::release(mBuffers);
	if (mBlock) platform::releasePages(mBlock, mBlockSize);
	if (mOpened) mOpened->drop();
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
	share(); // the writer's
	mThread.reset(platform::startThread(&FileStream::writerThread, this));
	if (mThread) return true;
	mWriterState = kNone;
	mReferences.fetch_sub(1, std::memory_order_relaxed); // the maker still has its own
	return false;
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
	if (mWriterState.exchange(kEnded) == kAbandoned) {
		mCallBack = nullptr; // the file may be gone
		while (auto* buffer = takeOldest()) flush(*buffer);
	}
	drop();
}

bool FileStream::stopWriter() {
	uint32_t running = kRunning;
	mWriterState.compare_exchange_strong(running, kStopRequested);
	// The writer may have taken the last buffer before it could see the request.
	platform::releaseSemaphore(mSemaphore, 1, nullptr);
	const bool itself = isCallingFor(mFile); // its callback destroys the file: it cannot end meanwhile
	if (!itself && platform::wait(mThread.get(), streamStopBudgetMs) == platform::kWaitAcquired) return true;
	uint32_t requested = kStopRequested;
	return !mWriterState.compare_exchange_strong(requested, kAbandoned);
}

uint64_t FileStream::unwrittenBytes() const {
	uint64_t bytes = 0;
	for (uint32_t i = 0; i < mBufferCount; ++i)
		if (isWriters(mBuffers[i])) bytes += mBuffers[i].mCapacity - freeBytes(mBuffers[i]);
	return bytes;
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
	if (!following || isWriters(*following) || rest > freeBytes(*following)) {
		mLostBytes += rest;
		return 0;
	}
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

/// On the writer's thread.
void FileStream::flush(estFILE_STREAM_BUFFER& buffer) {
	const uint32_t count = bytesToWrite(buffer);
	notify(10, count, buffer);
	notify(11, writeOut(buffer, count), buffer);
}

uint32_t FileStream::bytesToWrite(const estFILE_STREAM_BUFFER& buffer) {
	const uint64_t used = buffer.mCapacity - freeBytes(buffer);
	return static_cast<uint32_t>(std::min<uint64_t>(roundToBlock(used), buffer.mCapacity));
}

uint32_t FileStream::writeOut(estFILE_STREAM_BUFFER& buffer, uint32_t limit) {
	const uint32_t used = buffer.mCapacity - freeBytes(buffer);
	const uint32_t written = writePieces(buffer.mData, std::min(limit, bytesToWrite(buffer)));
	if (written < used) mLostBytes += used - written;
	markFree(buffer);
	return written;
}

uint32_t FileStream::writePieces(const unsigned char* data, uint32_t count) {
	uint32_t done = 0;
	while (done < count) {
		const uint32_t piece = std::min(count - done, mPackSize.load());
		auto* bytes = const_cast<unsigned char*>(data + done); // back ends take one pointer for both directions
		const auto written = mOpened ? mOpened->call(kCodeWrite, piece, bytes) : 0;
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

/// Of the writer. Those on the caller's thread are the file's own.
void FileStream::notify(unsigned long code, unsigned long a, estFILE_STREAM_BUFFER& buffer) {
	const auto callBack = mCallBack.load();
	if (!callBack || mWriterState == kAbandoned) return;
	calledFile = mFile;
	callHost("CstFile", [&] { callBack(mFile, code, 0, a, &buffer); });
	calledFile = nullptr;
}

bool FileStream::isCallingFor(const CstFile* file) { return calledFile == file; }

} // namespace base
