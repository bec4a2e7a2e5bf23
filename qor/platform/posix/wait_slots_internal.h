#pragma once

#include "../types.h"
#include "futex_internal.h"

#include <atomic>
#include <cstdint>

/// Where private wait objects live, and what a handle is.
///
///   handle  generation (22 bits) | index of the slot (24) | tag (3)
///   word    generation (22) | kind (3) | slow (1) | value (38)
///
/// An object is a slot of one table that is never unmapped, so any handle, however old or
/// foreign, can be looked at safely. Every change of an object's state is one
/// compare-and-swap of its word, which holds the generation too: an operation through a
/// closed handle cannot touch the slot's next object, and the usual wait and release need no
/// reference count. What cannot end at once takes the slot's latch: queueing, granting
/// to those who queue, closing. The slow bit, set while anyone queues, sends releases there.
///
/// A slot returns to the table when its handle is closed, nobody queues and no running
/// thread is tied to it; until then those who wait are not disturbed by the close.
///
/// Semaphores, events and threads are handed to the longest waiting thread by whoever
/// signals them, so a release or a pulse reaches a thread that waited before it. Mutexes
/// are not: a woken waiter competes for one, since handing over would force a change of
/// threads for every contended release.
namespace platform::posix {

struct NamedObject;

enum class Kind : uint8_t { none, mutex, semaphore, event, thread, named };

inline constexpr int kKindShift = 39;
inline constexpr int kGenerationShift = 42;
inline constexpr uint64_t kSlow = uint64_t{1} << 38;

// Value of a mutex: owner (22 bits, a thread number) | recursion (15) | abandoned (1).
inline constexpr uint64_t kOwnerMask = (uint64_t{1} << 22) - 1;
inline constexpr uint64_t kRecursionOne = uint64_t{1} << 22;
inline constexpr uint64_t kRecursionMask = ((uint64_t{1} << 15) - 1) << 22;
inline constexpr uint64_t kAbandoned = uint64_t{1} << 37;
// Value of a semaphore: the permits.
inline constexpr uint64_t kCountMask = 0x7FFFFFFF;
// Value of an event or a thread.
inline constexpr uint64_t kSignalled = 1;
inline constexpr uint64_t kManualReset = 2;

constexpr Kind kindOf(uint64_t word) { return static_cast<Kind>(word >> kKindShift & 7); }
constexpr uint64_t generationOf(uint64_t word) { return word >> kGenerationShift; }

/// One thread in the queue of a slot, on that thread's stack.
struct Waiter {
	std::atomic<uint32_t> state{0}; // 1: granted or, for a mutex, told to try again
	bool granted = false;           // taken out of the queue; under the latch
	Waiter* previous = nullptr;
	Waiter* next = nullptr;
};

struct alignas(64) Slot {
	std::atomic<uint64_t> word{0};
	std::atomic<int32_t> maximum{0}; // of a semaphore
	std::atomic<uint32_t> spins{0};  // how long a wait watches the word before it sleeps
	Latch latch;                     // guards the fields below
	bool closed = false;             // the handle is gone, the slot not yet returned
	bool running = false;            // the slot's thread has not ended
	Waiter* first = nullptr;
	Waiter* last = nullptr;
	NamedObject* named = nullptr;
	Slot* nextFree = nullptr; // under the table's lock
};
static_assert(sizeof(Slot) == 64);

/// Makes an object. @return null, with the last error, when the table is full.
WaitHandle makeSlot(Kind kind, uint64_t value, int32_t maximum = 0, NamedObject* named = nullptr);

/// A slot and its word at the look-up; `slot` is null for a handle that is not open.
struct Found {
	Slot* slot;
	uint64_t word;
};
Found findSlot(WaitHandle handle);

/// Holds a slot's latch. Its end returns the slot when nothing needs it any more, and only
/// then, without the latch, wakes those who were granted something meanwhile.
class SlotGuard {
public:
	explicit SlotGuard(Slot& slot) : mSlot(slot) { mSlot.latch.lock(); }
	~SlotGuard();
	SlotGuard(const SlotGuard&) = delete;
	SlotGuard& operator=(const SlotGuard&) = delete;

	void enqueue(Waiter& waiter);
	void dequeue(Waiter& waiter);
	/// Takes the longest waiting thread out; its wait ends with success. @return false without one.
	bool grantFirst();
	void grantAll() {
		while (grantFirst()) {
		}
	}
	/// Lets the longest waiting thread try again (mutexes).
	void nudgeFirst();

private:
	Slot& mSlot;
	Waiter* mGrantedFirst = nullptr; // linked by `next`
	Waiter* mGrantedLast = nullptr;
	const std::atomic<uint32_t>* mNudged = nullptr;
};

/// Leaves every private mutex that the calling thread owns abandoned.
void abandonMutexes(uint32_t owner);

/// Gives every private mutex of one thread to another; only where no other thread runs.
void passMutexes(uint32_t from, uint32_t to);

/// The table's lock, held around a fork.
void lockSlots();
void unlockSlots();

/// The thread of this slot has ended.
void threadEnded(Slot& slot);

/// Ends the handle. @return false when it is not open.
bool closeSlot(WaitHandle handle);

} // namespace platform::posix
