#include "message_queue.h"

#include "../base/status.h"
#include "../platform/machine.h"
#include "../platform/memory.h"
#include "../platform/wait.h"
#include "light_lock_internal.h"
#include "message_queue_internal.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace {

constexpr int kBitsPerWord = 64;

int mapWords(int capacity) { return (capacity + kBitsPerWord - 1) / kBitsPerWord; }

// A foreign item's byte is written under another queue's lock than its own, so all go through here.
uint8_t state(const eqor_QUEUE_ITEM& item) {
	return std::atomic_ref(const_cast<uint8_t&>(item.mState)).load(std::memory_order_relaxed);
}

void setState(eqor_QUEUE_ITEM& item, int value) {
	std::atomic_ref(item.mState).store(static_cast<uint8_t>(value), std::memory_order_relaxed);
}

/// Counts the items of the process that were freed in a queue that is not their own. Their
/// own queues look at the count before each claim and read the state bytes again when it moved.
std::atomic<uint32_t> foreignFrees{0};

/// How many items ahead of their turn `fetch` is told of them: a line takes longer to come from
/// another processor than the queue spends on an item.
constexpr int kAhead = 3;

/// Brings the lines that most messages use closer.
void fetch(eqor_QUEUE_ITEM& item) {
	threads::fetchLine(&item.mState);
	threads::fetchLine(&item.mPointer1);
}

void fillWords(
    eqor_QUEUE_ITEM& item, unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1, unsigned long i2) {
	item.mWord1 = static_cast<uint32_t>(w1);
	item.mWord2 = static_cast<uint32_t>(w2);
	item.mWord3 = static_cast<uint32_t>(w3);
	item.mIntegers[0] = static_cast<int32_t>(i1);
	item.mIntegers[1] = static_cast<int32_t>(i2);
}

constexpr uint32_t kGiveUpLookMs = 10;

/// Waits for the mutex of a host. @return as `platform::wait`; a time-out when `giveUp` said so.
uint32_t waitForMutex(platform::WaitHandle mutex, const std::atomic<bool>* giveUp) {
	if (!giveUp) return platform::wait(mutex, platform::kInfinite);
	uint32_t result = platform::kWaitTimeout;
	while (result == platform::kWaitTimeout && !giveUp->load(std::memory_order_acquire))
		result = platform::wait(mutex, kGiveUpLookMs);
	return result;
}

} // namespace

namespace threads {

bool HostLock::lock(platform::WaitHandle mutex, const std::atomic<bool>* giveUp) {
	const uint32_t result = waitForMutex(mutex, giveUp);
	if (result != platform::kWaitAcquired && result != platform::kWaitAbandoned) return false;
	const uint32_t self = platform::threadId();
	lockWord(mWord);
	// A mutex left by a thread that ended starts anew, also when its number is in use again.
	if (result == platform::kWaitAbandoned || mHolder.load(std::memory_order_relaxed) != self) mHolderDepth = 0;
	mHolder.store(self, std::memory_order_relaxed);
	++mHolderDepth;
	unlockWord(mWord);
	return true;
}

void HostLock::unlock(platform::WaitHandle mutex) {
	lockWord(mWord);
	if (mHolder.load(std::memory_order_relaxed) == platform::threadId() && --mHolderDepth == 0)
		mHolder.store(0, std::memory_order_relaxed);
	unlockWord(mWord);
	platform::releaseMutex(mutex);
}

bool HostLock::enter(platform::WaitHandle mutex, const std::atomic<bool>* giveUp) {
	lockWord(mWord);
	const uint32_t holder = mHolder.load(std::memory_order_relaxed);
	if (holder == 0 || holder == platform::threadId()) return true;
	unlockWord(mWord);
	const uint32_t result = waitForMutex(mutex, giveUp);
	if (result == platform::kWaitTimeout) return false;
	const bool owns = result != platform::kWaitFailed;
	lockWord(mWord);
	mOperationHasMutex = owns;
	if (owns) mHolder.store(0, std::memory_order_relaxed); // a number still there is of a thread that ended
	return true;
}

void HostLock::leave(platform::WaitHandle mutex) {
	const bool owns = mOperationHasMutex;
	if (owns) mOperationHasMutex = false;
	unlockWord(mWord);
	if (owns) platform::releaseMutex(mutex);
}

} // namespace threads

Cqor_MsgQueue::Cqor_MsgQueue() : mMutex(platform::createMutex(false)) {}

Cqor_MsgQueue::~Cqor_MsgQueue() {
	Destroy();
	platform::closeHandle(mMutex);
}

int Cqor_MsgQueue::Create(int capacity) {
	Destroy();
	if (capacity < 0) return kQorFailure;
	const size_t places = static_cast<size_t>(capacity);
	auto* items = static_cast<eqor_QUEUE_ITEM*>(platform::allocate(places * sizeof(eqor_QUEUE_ITEM)));
	auto* pending = static_cast<eqor_QUEUE_ITEM**>(platform::allocate(
	    places * sizeof(eqor_QUEUE_ITEM*) + static_cast<size_t>(mapWords(capacity)) * sizeof(uint64_t)));
	if (!items || !pending) {
		platform::release(items);
		platform::release(pending);
		return kQorFailure;
	}
	mItems = items;
	mPending = pending;
	mFreeMap = reinterpret_cast<uint64_t*>(pending + capacity);
	mCapacity = capacity;
	Reset();
	return kQorSuccess;
}

void Cqor_MsgQueue::Destroy() { platform::release(detachItems()); }

/// As `Destroy`, but hands the pool over to the caller.
eqor_QUEUE_ITEM* Cqor_MsgQueue::detachItems() {
	platform::release(mPending);
	mPending = nullptr;
	mFreeMap = nullptr;
	mCapacity = 0;
	mCount.store(0, std::memory_order_relaxed);
	mClaimed.store(0, std::memory_order_relaxed);
	mFirst = 0;
	mFreeHint = 0;
	return std::exchange(mItems, nullptr);
}

void Cqor_MsgQueue::Reset() {
	if (!mItems) return;
	Section section(*this);
	std::memset(mItems, 0, static_cast<size_t>(mCapacity) * sizeof(eqor_QUEUE_ITEM));
	mCount.store(0, std::memory_order_relaxed);
	mFirst = 0;
	rebuildFreeMap();
}

eqor_QUEUE_ITEM* Cqor_MsgQueue::GetFreeItem(int keepLocked) {
	if (keepLocked) Lock();
	eqor_QUEUE_ITEM* item;
	{
		Section section(*this);
		item = claimLocked();
	}
	if (keepLocked && !item) Unlock();
	return item;
}

void Cqor_MsgQueue::FreeItem(eqor_QUEUE_ITEM* item) {
	if (!item) return;
	Section section(*this);
	freeLocked(item);
}

int Cqor_MsgQueue::AddToStack(eqor_QUEUE_ITEM* item) {
	if (!item) return -1;
	Section section(*this);
	return appendLocked(item) ? mCount.load(std::memory_order_relaxed) : -1;
}

eqor_QUEUE_ITEM* Cqor_MsgQueue::Get() {
	Section section(*this);
	return takeLocked();
}

int Cqor_MsgQueue::AddInts(unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1, unsigned long i2,
    unsigned long i3, unsigned long i4, unsigned long i5, unsigned long i6) {
	eqor_QUEUE_ITEM* item = GetFreeItem(0);
	if (!item) return kQorFailure;
	fillWords(*item, w1, w2, w3, i1, i2);
	item->mIntegers[2] = static_cast<int32_t>(i3);
	item->mIntegers[3] = static_cast<int32_t>(i4);
	item->mIntegers[4] = static_cast<int32_t>(i5);
	item->mIntegers[5] = static_cast<int32_t>(i6);
	AddToStack(item);
	return kQorSuccess;
}

int Cqor_MsgQueue::AddIntsAndFP(unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1,
    unsigned long i2, double d1, double d2, double d3, double d4) {
	eqor_QUEUE_ITEM* item = GetFreeItem(0);
	if (!item) return kQorFailure;
	fillWords(*item, w1, w2, w3, i1, i2);
	item->mReals[0] = d1;
	item->mReals[1] = d2;
	item->mReals[2] = d3;
	item->mReals[3] = d4;
	AddToStack(item);
	return kQorSuccess;
}

int Cqor_MsgQueue::AddIntAndPtr(
    unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1, unsigned long i2, void* p1, void* p2) {
	eqor_QUEUE_ITEM* item = GetFreeItem(0);
	if (!item) return kQorFailure;
	fillWords(*item, w1, w2, w3, i1, i2);
	item->mPointer1 = p1;
	item->mPointer2 = p2;
	AddToStack(item);
	return kQorSuccess;
}

int Cqor_MsgQueue::Add(
    unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1, unsigned long i2, void* p1, void* p2) {
	return AddIntAndPtr(w1, w2, w3, i1, i2, p1, p2);
}

void Cqor_MsgQueue::Lock() { mLock.lock(mMutex); }

void Cqor_MsgQueue::Unlock() { mLock.unlock(mMutex); }

eqor_QUEUE_ITEM* Cqor_MsgQueue::claimLocked() {
	adoptForeignFrees();
	const int words = mapWords(mCapacity);
	while (mFreeHint < words && mFreeMap[mFreeHint] == 0) ++mFreeHint;
	if (mFreeHint >= words) return nullptr;
	uint64_t& word = mFreeMap[mFreeHint];
	eqor_QUEUE_ITEM& item = mItems[mFreeHint * kBitsPerWord + std::countr_zero(word)];
	word &= word - 1; // its lowest bit
	uint64_t later = word;
	for (int i = 1; i < kAhead; ++i) later &= later - 1; // stays 0 when it is
	if (later != 0) fetch(mItems[mFreeHint * kBitsPerWord + std::countr_zero(later)]);
	if (state(item) == 0) mClaimed.store(mClaimed.load(std::memory_order_relaxed) + 1, std::memory_order_release);
	setState(item, eqor_QUEUE_ITEM::kInUse);
	return &item;
}

/// Where the pending item stands that `offset` others are ahead of.
size_t Cqor_MsgQueue::ringPlace(int offset) const {
	const size_t place = static_cast<size_t>(mFirst) + static_cast<size_t>(offset);
	return place < static_cast<size_t>(mCapacity) ? place : place - static_cast<size_t>(mCapacity);
}

bool Cqor_MsgQueue::appendLocked(eqor_QUEUE_ITEM* item) {
	const int count = mCount.load(std::memory_order_relaxed);
	if (count >= mCapacity) return false;
	mPending[ringPlace(count)] = item;
	mCount.store(count + 1, std::memory_order_release);
	return true;
}

eqor_QUEUE_ITEM* Cqor_MsgQueue::takeLocked() {
	const int count = mCount.load(std::memory_order_relaxed);
	if (count == 0) return nullptr;
	eqor_QUEUE_ITEM* item = mPending[mFirst];
	if (++mFirst == mCapacity) mFirst = 0;
	if (count > kAhead) fetch(*mPending[ringPlace(kAhead - 1)]);
	mCount.store(count - 1, std::memory_order_release);
	const uint8_t former = state(*item);
	setState(*item, former | eqor_QUEUE_ITEM::kTaken);
	if (former == 0 && indexOf(item) >= 0) // pending without a claim
		mClaimed.store(mClaimed.load(std::memory_order_relaxed) + 1, std::memory_order_release);
	return item;
}

void Cqor_MsgQueue::freeLocked(eqor_QUEUE_ITEM* item) {
	const int index = indexOf(item);
	const uint8_t former = state(*item);
	setState(*item, 0);
	if (index < 0) {
		foreignFrees.fetch_add(1, std::memory_order_release);
		return;
	}
	if (former != 0) mClaimed.store(mClaimed.load(std::memory_order_relaxed) - 1, std::memory_order_release);
	mFreeMap[index / kBitsPerWord] |= uint64_t{1} << (index % kBitsPerWord);
	mFreeHint = std::min(mFreeHint, index / kBitsPerWord);
}

/// @return -1 for an item that is not of this pool.
int Cqor_MsgQueue::indexOf(const eqor_QUEUE_ITEM* item) const {
	const uintptr_t offset = reinterpret_cast<uintptr_t>(item) - reinterpret_cast<uintptr_t>(mItems);
	const uintptr_t index = offset / sizeof(eqor_QUEUE_ITEM);
	if (!mItems || index >= static_cast<uintptr_t>(mCapacity)) return -1;
	return offset % sizeof(eqor_QUEUE_ITEM) == 0 ? static_cast<int>(index) : -1;
}

/// Items that went through another queue were freed there: their state says so, the map not yet.
void Cqor_MsgQueue::adoptForeignFrees() {
	if (foreignFrees.load(std::memory_order_acquire) != mForeignFrees.load(std::memory_order_relaxed)) rebuildFreeMap();
}

void Cqor_MsgQueue::rebuildFreeMap() {
	mForeignFrees.store(foreignFrees.load(std::memory_order_acquire), std::memory_order_relaxed);
	std::fill_n(mFreeMap, mapWords(mCapacity), 0);
	int claimed = 0;
	for (int i = 0; i < mCapacity; ++i) {
		const uint8_t bits = state(mItems[i]);
		if (bits != 0) ++claimed;
		if (!(bits & eqor_QUEUE_ITEM::kInUse)) mFreeMap[i / kBitsPerWord] |= uint64_t{1} << (i % kBitsPerWord);
	}
	mFreeHint = 0;
	mClaimed.store(claimed, std::memory_order_release);
}

/// Whether every item was in use a moment ago; asked without the lock.
bool Cqor_MsgQueue::isFull() const {
	return mClaimed.load(std::memory_order_relaxed) >= mCapacity &&
	       foreignFrees.load(std::memory_order_relaxed) == mForeignFrees.load(std::memory_order_relaxed);
}

/// Whether nothing is claimed, pending or with a consumer.
bool Cqor_MsgQueue::isIdle() {
	if (mCount.load(std::memory_order_acquire) != 0) return false;
	if (mClaimed.load(std::memory_order_acquire) == 0) return true;
	if (foreignFrees.load(std::memory_order_acquire) == mForeignFrees.load(std::memory_order_relaxed)) return false;
	Section section(*this);
	adoptForeignFrees();
	return mCount.load(std::memory_order_relaxed) == 0 && mClaimed.load(std::memory_order_relaxed) == 0;
}
