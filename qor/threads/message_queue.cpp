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
#include <new>
#include <utility>

using threads::QueueMachinery;

namespace {

constexpr int kBitsPerWord = 64;

int mapWords(int capacity) { return capacity / kBitsPerWord + (capacity % kBitsPerWord != 0); }

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
constexpr uint32_t kAheadAlone = 3;

/// Whether a pool of that many items can be: it is cleared at once, so it must fit into the machine.
bool fitsMachine(int capacity) {
	return static_cast<uint64_t>(capacity) * sizeof(eqor_QUEUE_ITEM) <= platform::memoryStatus().totalPhysical;
}

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

} // namespace

Cqor_MsgQueue::Cqor_MsgQueue() : mMutex(platform::createMutex(false)) {
	static_assert(sizeof(QueueMachinery) <= sizeof mMachinery);
	new (mMachinery) QueueMachinery;
}

Cqor_MsgQueue::~Cqor_MsgQueue() {
	Destroy();
	platform::closeHandle(mMutex);
	QueueMachinery::of(*this).~QueueMachinery();
}

int Cqor_MsgQueue::Create(int capacity) {
	Destroy();
	if (capacity < 0 || !fitsMachine(capacity)) return kQorFailure;
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
	QueueMachinery::of(*this).freeMap = reinterpret_cast<uint64_t*>(pending + capacity);
	mCapacity = capacity;
	Reset();
	return kQorSuccess;
}

void Cqor_MsgQueue::Destroy() { platform::release(detachItems()); }

/// As `Destroy`, but hands the pool over to the caller.
eqor_QUEUE_ITEM* Cqor_MsgQueue::detachItems() {
	platform::release(mPending);
	mPending = nullptr;
	mCapacity = 0;
	QueueMachinery::of(*this).restart();
	return std::exchange(mItems, nullptr);
}

void Cqor_MsgQueue::Reset() {
	if (!mItems) return;
	Section section(*this);
	std::memset(mItems, 0, static_cast<size_t>(mCapacity) * sizeof(eqor_QUEUE_ITEM));
	QueueMachinery::of(*this).emptyList();
	rebuildFreeMap();
}

int Cqor_MsgQueue::GetPendingCount() const { return QueueMachinery::of(*this).pending(); }

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
	return appendLocked(item) ? GetPendingCount() : -1;
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

void Cqor_MsgQueue::Lock() { QueueMachinery::of(*this).lock.lock(mMutex); }

void Cqor_MsgQueue::Unlock() { QueueMachinery::of(*this).lock.unlock(mMutex); }

eqor_QUEUE_ITEM* Cqor_MsgQueue::claimLocked() {
	auto& m = QueueMachinery::of(*this);
	adoptForeignFrees();
	sweepLocked();
	const int words = mapWords(mCapacity);
	while (m.freeHint < words && m.freeMap[m.freeHint] == 0) ++m.freeHint;
	if (m.freeHint >= words) return nullptr;
	uint64_t& word = m.freeMap[m.freeHint];
	eqor_QUEUE_ITEM& item = mItems[m.freeHint * kBitsPerWord + std::countr_zero(word)];
	word &= word - 1; // its lowest bit
	uint64_t later = word;
	for (int i = 1; i < kAhead; ++i) later &= later - 1; // stays 0 when it is
	if (later != 0) fetch(mItems[m.freeHint * kBitsPerWord + std::countr_zero(later)]);
	if (state(item) == 0) m.claimed.store(m.claimed.load(std::memory_order_relaxed) + 1, std::memory_order_release);
	setState(item, eqor_QUEUE_ITEM::kInUse);
	return &item;
}

uint32_t Cqor_MsgQueue::nextPlace(uint32_t place) const {
	return ++place == static_cast<uint32_t>(mCapacity) ? 0 : place;
}

bool Cqor_MsgQueue::appendLocked(eqor_QUEUE_ITEM* item) {
	auto& m = QueueMachinery::of(*this);
	const uint32_t appended = m.appended.load(std::memory_order_relaxed);
	if (appended - m.swept.load(std::memory_order_relaxed) >= static_cast<uint32_t>(mCapacity)) return false;
	mPending[m.lastPlace] = item;
	m.lastPlace = nextPlace(m.lastPlace);
	m.appended.store(appended + 1, std::memory_order_release);
	return true;
}

/// Takes the entry at the front of the ring, which is there. Needs the lock, or to be alone (see
/// `takeAlone`).
eqor_QUEUE_ITEM* Cqor_MsgQueue::oldestPending() {
	auto& m = QueueMachinery::of(*this);
	eqor_QUEUE_ITEM* item = mPending[m.firstPlace];
	m.firstPlace = nextPlace(m.firstPlace);
	const uint32_t taken = m.taken.load(std::memory_order_relaxed) + 1;
	m.taken.store(taken, std::memory_order_release);
	return item;
}

eqor_QUEUE_ITEM* Cqor_MsgQueue::takeLocked() {
	auto& m = QueueMachinery::of(*this);
	const int count = m.pending();
	if (count == 0) return nullptr;
	eqor_QUEUE_ITEM* item = oldestPending();
	if (count > kAhead) fetch(*mPending[(m.firstPlace + kAhead - 1) % static_cast<uint32_t>(mCapacity)]);
	m.swept.store(m.taken.load(std::memory_order_relaxed), std::memory_order_relaxed);
	m.finished.store(m.taken.load(std::memory_order_relaxed), std::memory_order_relaxed);
	const uint8_t former = state(*item);
	setState(*item, former | eqor_QUEUE_ITEM::kTaken);
	if (former == 0 && indexOf(item) >= 0) // pending without a claim
		m.claimed.store(m.claimed.load(std::memory_order_relaxed) + 1, std::memory_order_release);
	return item;
}

/// Takes the oldest item that is signalled, for the thread that is the only one to take: without the
/// lock, so that it and the producers do not hand a line to and fro for every item.
eqor_QUEUE_ITEM* Cqor_MsgQueue::takeAlone() {
	auto& m = QueueMachinery::of(*this);
	const uint32_t taken = m.taken.load(std::memory_order_relaxed);
	if (taken == m.seenSignals) {
		m.seenSignals = m.signals.load(std::memory_order_acquire);
		if (taken == m.seenSignals) return nullptr;
	}
	eqor_QUEUE_ITEM* item = oldestPending();
	const uint32_t ahead = m.firstPlace + kAheadAlone;
	if (m.seenSignals - taken > kAheadAlone + 1)
		fetch(*mPending[ahead < static_cast<uint32_t>(mCapacity) ? ahead : ahead - static_cast<uint32_t>(mCapacity)]);
	setState(*item, state(*item) | eqor_QUEUE_ITEM::kTaken);
	return item;
}

/// Gives an item back that `takeAlone` gave. Its state is free at once; the next producer (or the
/// worker itself, before it looks or sleeps) takes note of all such items in one go.
void Cqor_MsgQueue::finishAlone(eqor_QUEUE_ITEM* item) {
	auto& m = QueueMachinery::of(*this);
	setState(*item, 0);
	m.finished.store(m.finished.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

/// Takes note of finished items. They stand in the ring, behind the ones that were taken.
void Cqor_MsgQueue::sweepLocked() {
	auto& m = QueueMachinery::of(*this);
	uint32_t swept = m.swept.load(std::memory_order_relaxed);
	const uint32_t finished = m.finished.load(std::memory_order_acquire);
	if (swept == finished) return;
	int freed = 0;
	for (; swept != finished; ++swept) {
		const eqor_QUEUE_ITEM* item = mPending[m.sweptPlace];
		m.sweptPlace = nextPlace(m.sweptPlace);
		const int index = indexOf(item);
		if (index < 0 || state(*item) != 0) continue; // a host had it freed elsewhere, and it is in use again
		uint64_t& word = m.freeMap[index / kBitsPerWord];
		const uint64_t bit = uint64_t{1} << (index % kBitsPerWord);
		if (!(word & bit)) ++freed;
		word |= bit;
		m.freeHint = std::min(m.freeHint, index / kBitsPerWord);
	}
	m.swept.store(swept, std::memory_order_relaxed);
	m.claimed.store(m.claimed.load(std::memory_order_relaxed) - freed, std::memory_order_release);
}

void Cqor_MsgQueue::freeLocked(eqor_QUEUE_ITEM* item) {
	auto& m = QueueMachinery::of(*this);
	const int index = indexOf(item);
	const uint8_t former = state(*item);
	setState(*item, 0);
	if (index < 0) {
		foreignFrees.fetch_add(1, std::memory_order_release);
		return;
	}
	if (former != 0) m.claimed.store(m.claimed.load(std::memory_order_relaxed) - 1, std::memory_order_release);
	m.freeMap[index / kBitsPerWord] |= uint64_t{1} << (index % kBitsPerWord);
	m.freeHint = std::min(m.freeHint, index / kBitsPerWord);
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
	if (foreignFrees.load(std::memory_order_acquire) !=
	    QueueMachinery::of(*this).foreignFrees.load(std::memory_order_relaxed))
		rebuildFreeMap();
}

void Cqor_MsgQueue::rebuildFreeMap() {
	auto& m = QueueMachinery::of(*this);
	m.foreignFrees.store(foreignFrees.load(std::memory_order_acquire), std::memory_order_relaxed);
	std::fill_n(m.freeMap, mapWords(mCapacity), 0);
	int claimed = 0;
	for (int i = 0; i < mCapacity; ++i) {
		const uint8_t bits = state(mItems[i]);
		if (bits != 0) ++claimed;
		if (!(bits & eqor_QUEUE_ITEM::kInUse)) m.freeMap[i / kBitsPerWord] |= uint64_t{1} << (i % kBitsPerWord);
	}
	m.freeHint = 0;
	m.claimed.store(claimed, std::memory_order_release);
}

/// Whether every item was in use a moment ago; asked without the lock.
bool Cqor_MsgQueue::isFull() const {
	const auto& m = QueueMachinery::of(*this);
	return m.claimed.load(std::memory_order_relaxed) >= mCapacity &&
	       m.finished.load(std::memory_order_relaxed) == m.swept.load(std::memory_order_relaxed) &&
	       foreignFrees.load(std::memory_order_relaxed) == m.foreignFrees.load(std::memory_order_relaxed);
}

/// Whether nothing is claimed, pending or with a consumer.
bool Cqor_MsgQueue::isIdle() {
	const auto& m = QueueMachinery::of(*this);
	if (m.pending() != 0) return false;
	if (m.claimed.load(std::memory_order_acquire) == 0) return true;
	if (m.finished.load(std::memory_order_acquire) == m.swept.load(std::memory_order_relaxed) &&
	    foreignFrees.load(std::memory_order_acquire) == m.foreignFrees.load(std::memory_order_relaxed))
		return false;
	Section section(*this);
	adoptForeignFrees();
	sweepLocked();
	return m.pending() == 0 && m.claimed.load(std::memory_order_relaxed) == 0;
}
