#include "wait_slots_internal.h"

#include "../machine.h"
#include "wait_named_internal.h"

#include <mutex>
#include <new>
#include <sys/mman.h>

namespace platform::posix {

namespace {

constexpr uint32_t kSlots = 1u << 20; // 64 MiB of addresses; pages come with their first use
constexpr uint64_t kGenerations = uint64_t{1} << (64 - kGenerationShift);
constexpr uint64_t kTag = 5; // no pointer to an object is odd
constexpr uint32_t kTooManyObjects = 4;

// A slot rests until so many others were returned after it, which keeps the generation of
// an old handle from coming round soon.
constexpr uint32_t kRestingSlots = 256;

std::atomic<Slot*> gSlots{nullptr};
std::atomic<uint32_t> gUsed{0};

std::mutex gTableLock; // guards the queue of free slots and the growth of the table
Slot* gFreeFirst = nullptr;
Slot* gFreeLast = nullptr;
uint32_t gFree = 0;

Slot* mapTable() {
	void* pages = mmap(
	    nullptr, kSlots * sizeof(Slot), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
	if (pages == MAP_FAILED) return nullptr;
	gSlots.store(static_cast<Slot*>(pages), std::memory_order_release);
	return static_cast<Slot*>(pages);
}

Slot* takeSlot() {
	const std::lock_guard lock(gTableLock);
	Slot* slots = gSlots.load(std::memory_order_relaxed);
	if (!slots && !(slots = mapTable())) return nullptr;
	const uint32_t used = gUsed.load(std::memory_order_relaxed);
	if (gFree > kRestingSlots || (used == kSlots && gFree > 0)) {
		Slot* slot = gFreeFirst;
		gFreeFirst = slot->nextFree;
		if (!gFreeFirst) gFreeLast = nullptr;
		--gFree;
		return slot;
	}
	if (used == kSlots) return nullptr;
	Slot* slot = new (slots + used) Slot;
	slot->word.store(uint64_t{1} << kGenerationShift, std::memory_order_relaxed);
	gUsed.store(used + 1, std::memory_order_release);
	return slot;
}

void returnSlot(Slot& slot) {
	const std::lock_guard lock(gTableLock);
	slot.nextFree = nullptr;
	(gFreeLast ? gFreeLast->nextFree : gFreeFirst) = &slot;
	gFreeLast = &slot;
	++gFree;
}

WaitHandle encode(const Slot& slot, uint64_t generation) {
	const uint64_t index = static_cast<uint64_t>(&slot - gSlots.load(std::memory_order_relaxed));
	return reinterpret_cast<WaitHandle>((generation << 24 | index) << 3 | kTag);
}

/// The next generation; 0 is left out, so that small numbers never are handles.
uint64_t nextGeneration(uint64_t generation) {
	const uint64_t next = (generation + 1) % kGenerations;
	return next ? next : 1;
}

} // namespace

WaitHandle makeSlot(Kind kind, uint64_t value, int32_t maximum, NamedObject* named) {
	Slot* slot = takeSlot();
	if (!slot) {
		setLastError(kTooManyObjects);
		return nullptr;
	}
	const SlotGuard guard(*slot);
	const uint64_t generation = generationOf(slot->word.load(std::memory_order_relaxed));
	slot->maximum.store(maximum, std::memory_order_relaxed);
	slot->spins.store(0, std::memory_order_relaxed);
	slot->running = kind == Kind::thread;
	slot->named = named;
	slot->word.store(
	    generation << kGenerationShift | static_cast<uint64_t>(kind) << kKindShift | value, std::memory_order_release);
	return encode(*slot, generation);
}

Found findSlot(WaitHandle handle) {
	const uint64_t number = reinterpret_cast<uint64_t>(handle);
	const uint64_t index = number >> 3 & 0xFFFFFF;
	if ((number & 7) != kTag || index >= gUsed.load(std::memory_order_acquire)) return {nullptr, 0};
	Slot& slot = gSlots.load(std::memory_order_acquire)[index];
	const uint64_t word = slot.word.load(std::memory_order_acquire);
	if (generationOf(word) != number >> 27 || kindOf(word) == Kind::none) return {nullptr, 0};
	return {&slot, word};
}

bool closeSlot(WaitHandle handle) {
	const Found found = findSlot(handle);
	if (!found.slot) return false;
	NamedObject* named = nullptr;
	{
		const SlotGuard guard(*found.slot);
		uint64_t word = found.slot->word.load(std::memory_order_relaxed);
		uint64_t next = 0;
		do {
			// The value stays: those who queue, the owner of a mutex and the thread itself go on.
			if (generationOf(word) != generationOf(found.word)) return false;
			const uint64_t rest = word & ((uint64_t{1} << kGenerationShift) - 1);
			next = nextGeneration(generationOf(word)) << kGenerationShift | rest;
		} while (!found.slot->word.compare_exchange_weak(word, next, std::memory_order_acq_rel));
		found.slot->closed = true;
		named = found.slot->named;
		found.slot->named = nullptr;
	}
	if (named) dropNamed(*named);
	return true;
}

SlotGuard::~SlotGuard() {
	const bool unused = mSlot.closed && !mSlot.first && !mSlot.running;
	if (unused) {
		mSlot.closed = false;
		const uint64_t generation = generationOf(mSlot.word.load(std::memory_order_relaxed));
		mSlot.word.store(generation << kGenerationShift, std::memory_order_relaxed);
	}
	mSlot.latch.unlock();
	if (unused) returnSlot(mSlot);
	for (Waiter* waiter = mGrantedFirst; waiter;) {
		Waiter* next = waiter->next;
		const std::atomic<uint32_t>* state = &waiter->state;
		waiter->state.store(1, std::memory_order_release); // the waiter may be gone from here on
		futexWake(state, 1);
		waiter = next;
	}
	if (mNudged) futexWake(mNudged, 1);
}

void SlotGuard::enqueue(Waiter& waiter) {
	waiter.previous = mSlot.last;
	waiter.next = nullptr;
	(mSlot.last ? mSlot.last->next : mSlot.first) = &waiter;
	mSlot.last = &waiter;
}

void SlotGuard::dequeue(Waiter& waiter) {
	(waiter.previous ? waiter.previous->next : mSlot.first) = waiter.next;
	(waiter.next ? waiter.next->previous : mSlot.last) = waiter.previous;
	if (!mSlot.first) mSlot.word.fetch_and(~kSlow, std::memory_order_relaxed);
}

bool SlotGuard::grantFirst() {
	Waiter* waiter = mSlot.first;
	if (!waiter) return false;
	dequeue(*waiter);
	waiter->granted = true;
	waiter->next = nullptr;
	(mGrantedLast ? mGrantedLast->next : mGrantedFirst) = waiter;
	mGrantedLast = waiter;
	return true;
}

void SlotGuard::nudgeFirst() {
	Waiter* waiter = mSlot.first;
	if (!waiter || waiter->state.load(std::memory_order_relaxed) != 0) return;
	waiter->state.store(1, std::memory_order_release);
	mNudged = &waiter->state;
}

void abandonMutexes(uint32_t owner) {
	Slot* slots = gSlots.load(std::memory_order_acquire);
	const uint32_t used = gUsed.load(std::memory_order_acquire);
	const auto owned = [owner](uint64_t word) { return kindOf(word) == Kind::mutex && (word & kOwnerMask) == owner; };
	for (uint32_t i = 0; i < used; ++i) {
		if (!owned(slots[i].word.load(std::memory_order_relaxed))) continue;
		SlotGuard guard(slots[i]);
		uint64_t word = slots[i].word.load(std::memory_order_relaxed);
		while (owned(word)) {
			const uint64_t next = (word & ~(kOwnerMask | kRecursionMask)) | kAbandoned;
			if (slots[i].word.compare_exchange_weak(word, next, std::memory_order_acq_rel)) guard.nudgeFirst();
		}
	}
}

void passMutexes(uint32_t from, uint32_t to) {
	Slot* slots = gSlots.load(std::memory_order_acquire);
	const uint32_t used = gUsed.load(std::memory_order_acquire);
	for (uint32_t i = 0; i < used; ++i) {
		const uint64_t word = slots[i].word.load(std::memory_order_relaxed);
		if (kindOf(word) != Kind::mutex || (word & kOwnerMask) != from) continue;
		slots[i].word.store((word & ~kOwnerMask) | to, std::memory_order_relaxed);
	}
}

void lockSlots() { gTableLock.lock(); }

void unlockSlots() { gTableLock.unlock(); }

void threadEnded(Slot& slot) {
	SlotGuard guard(slot);
	slot.word.fetch_or(kSignalled, std::memory_order_acq_rel);
	slot.running = false;
	guard.grantAll();
}

} // namespace platform::posix
