// The buffers of a session: made once before recording, freed when everything is written.

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../platform/machine.h"
#include "../platform/memory.h"
#include "session.h"
#include "session_internal.h"
#include "session_list_internal.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace {

/// Room behind the last slot and the last record.
constexpr long long kSpareFrames = 2;

long long dataBlockBytes(const emsSTORAGE_BUFFER& buffer) {
	return (buffer.mCapacity + kSpareFrames) * buffer.mAlignedFrameSize;
}

struct FreeBuffer {
	void operator()(emsSTORAGE_BUFFER* buffer) const {
		platform::release(buffer->mIndexTable);
		platform::release(buffer->mFrameTable);
		platform::release(buffer->mIndex);
		if (buffer->mData) platform::releasePages(buffer->mData, static_cast<size_t>(dataBlockBytes(*buffer)));
		delete buffer;
	}
};
using OwnedBuffer = std::unique_ptr<emsSTORAGE_BUFFER, FreeBuffer>;

bool allocateBlocks(emsSTORAGE_BUFFER& buffer) {
	const auto frames = static_cast<size_t>(buffer.mCapacity);
	const auto bytes = static_cast<size_t>(dataBlockBytes(buffer));
	buffer.mIndexTable = static_cast<emsSTORAGE_INDEX**>(platform::allocate(frames * sizeof(emsSTORAGE_INDEX*)));
	buffer.mFrameTable = static_cast<unsigned char**>(platform::allocate(frames * sizeof(unsigned char*)));
	buffer.mIndex =
	    static_cast<emsSTORAGE_INDEX*>(platform::allocateZeroed((frames + kSpareFrames) * sizeof(emsSTORAGE_INDEX)));
	if (!buffer.mIndexTable || !buffer.mFrameTable || !buffer.mIndex) return false;
	buffer.mData = static_cast<unsigned char*>(platform::allocatePages(bytes));
	if (!buffer.mData) return false;
	std::memset(buffer.mData, 0, bytes); // every page is there before the first frame comes
	return true;
}

void fillTables(emsSTORAGE_BUFFER& buffer) {
	for (int i = 0; i < buffer.mCapacity; ++i) {
		buffer.mIndexTable[i] = buffer.mIndex + i;
		buffer.mFrameTable[i] = buffer.mData + static_cast<long long>(i) * buffer.mAlignedFrameSize;
	}
}

/// More than the machine has free would be granted by some systems, and end the process when
/// touched. Former buffers are touched already, so what is free now is what counts.
bool fitsIntoMemory(const emsSTORAGE_BUFFER& buffer) {
	return dataBlockBytes(buffer) <= static_cast<long long>(platform::memoryStatus().availablePhysical);
}

} // namespace

int CmsSession::AllocResources(int bufferCount, int framesPerBuffer) {
	constexpr int kFewest = 2; // one is filled while another is written
	if (bufferCount < kFewest || framesPerBuffer < kFewest) return kQorFailure;
	FreeResources();
	for (int i = 0; i < bufferCount; ++i) {
		if (!CreateBuffer(framesPerBuffer)) break;
	}
	const auto list = mList ? mList->mParts : nullptr;
	if (mBuffer.Count() >= kFewest && (!list || list->prepareToSave())) return kQorSuccess;
	FreeResources();
	return kQorFailure;
}

emsSTORAGE_BUFFER* CmsSession::CreateBuffer(int frames) {
	const base::MutexGuard guard(mMutex);
	if (!guard.owns() || !mParts || frames < 1 || !mSession.mFrameSize || !storage_parts::hasUsableSizes(mSession))
		return nullptr;
	OwnedBuffer buffer(new (std::nothrow) emsSTORAGE_BUFFER);
	if (!buffer) return nullptr;
	buffer->mSession = this;
	buffer->mCapacity = frames;
	buffer->mFrameSize = mSession.mFrameSize;
	buffer->mAlignedFrameSize = mSession.mAlignedFrameSize;
	buffer->mIndexBytes = frames * static_cast<long long>(sizeof(emsSTORAGE_INDEX));
	buffer->mDataBytes = static_cast<long long>(frames) * buffer->mAlignedFrameSize;
	if (!fitsIntoMemory(*buffer) || !allocateBlocks(*buffer) || !mBuffer.Add(buffer.get())) return nullptr;
	fillTables(*buffer);
	return buffer.release();
}

void CmsSession::FreeResources() {
	SetRecording(false);
	if (mParts) {
		mParts->flushCurrentBuffer();
		mParts->waitForOwnBuffers();
	}
	const base::MutexGuard guard(mMutex);
	mCurrentBuffer = nullptr;
	if (mParts) mParts->endReservation();
	for (emsSTORAGE_BUFFER* buffer : mBuffer) FreeBuffer()(buffer);
	mBuffer.Delete(0, mBuffer.Count());
}

void CmsSession::DestroyBuffer(emsSTORAGE_BUFFER* buffer) {
	{
		const base::MutexGuard guard(mMutex);
		if (std::find(mBuffer.begin(), mBuffer.end(), buffer) == mBuffer.end()) return;
		if (buffer == mCurrentBuffer) mParts->flushCurrentBuffer();
	}
	if (buffer->mState == emsBUFFER_QUEUED || buffer->mState == emsBUFFER_WRITING) mParts->waitForOwnBuffers();
	const base::MutexGuard guard(mMutex);
	mBuffer.Delete(static_cast<int>(std::find(mBuffer.begin(), mBuffer.end(), buffer) - mBuffer.begin()));
	FreeBuffer()(buffer);
}

emsSTORAGE_BUFFER* CmsSession::GetFreeBuffer() {
	const base::MutexGuard guard(mMutex);
	for (emsSTORAGE_BUFFER* buffer : mBuffer) {
		uint32_t expected = emsBUFFER_FREE;
		if (!buffer->mState.compare_exchange_strong(expected, emsBUFFER_FILLING)) continue;
		buffer->mFramesUsed = 0;
		return buffer;
	}
	return nullptr;
}

int CmsSession::GetBufferCount() const {
	const base::MutexGuard guard(mMutex);
	return mBuffer.Count();
}

emsSTORAGE_BUFFER* CmsSession::GetBuffer(int index) const {
	const base::MutexGuard guard(mMutex);
	auto* place = mBuffer.Get(index);
	return place ? *place : nullptr;
}
