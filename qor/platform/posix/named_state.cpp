#include "named_state_internal.h"

#include "../wait.h"
#include "thread_identity_internal.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace platform::posix {

namespace {

// How often those who wait look whether the owner of a mutex was killed, and whether somebody
// was killed who was about to wake them.
constexpr uint32_t kOwnerCheckMs = 50;
constexpr uint32_t kLookAgainMs = 200;

/// Wakes all: one chosen sleeper might be killed before it takes what it was woken for.
void wakeSleepers(SharedState& state) {
	state.sequence.fetch_add(1, std::memory_order_seq_cst);
	if (state.sleepers.load(std::memory_order_seq_cst) > 0) futexWake(&state.sequence, INT_MAX, true);
}

/// Sleeps between tries until one of them has an answer or the deadline has passed; the last
/// answer counts. `tryOnce(quiet)`: nobody woke this thread for as long as it sleeps at most.
template <class Try>
uint32_t sleepUntil(SharedState& state, const Deadline& deadline, uint32_t lookAgainMs, Try tryOnce) {
	state.sleepers.fetch_add(1, std::memory_order_seq_cst);
	uint32_t result;
	for (bool quiet = false;;) {
		const uint32_t sequence = state.sequence.load(std::memory_order_seq_cst);
		result = tryOnce(quiet);
		if (result != kWaitTimeout || deadline.passed()) break;
		quiet = !futexWait(state.sequence, sequence, deadline.atMost(lookAgainMs), true);
	}
	state.sleepers.fetch_sub(1, std::memory_order_relaxed);
	return result;
}

uint32_t trySemaphore(SharedState& state) {
	uint64_t permits = state.word.load(std::memory_order_acquire);
	do {
		if (permits == 0) return kWaitTimeout;
	} while (!state.word.compare_exchange_weak(permits, permits - 1, std::memory_order_acq_rel));
	return kWaitAcquired;
}

/// The word of an event. A pulse is for those who waited before it: they compare the number of
/// pulses with what it was when they came, and of an automatic event one grant is theirs.
struct EventWord {
	uint32_t pulses;
	uint32_t sleepers;
	uint32_t grants;
	bool signalled;

	static constexpr uint32_t kMost = 0x7FFF;
	explicit EventWord(uint64_t word)
	    : pulses(static_cast<uint32_t>(word >> 32)), sleepers(word >> 16 & kMost), grants(word >> 1 & kMost),
	      signalled((word & 1) != 0) {}
	uint64_t packed() const {
		return uint64_t{pulses} << 32 | uint64_t{sleepers} << 16 | grants << 1 | (signalled ? 1 : 0);
	}
};

/// One step from an event's state to the next. `change(event)` may answer false: nothing to change.
template <class Change>
EventWord changeEvent(SharedState& state, Change change) {
	uint64_t word = state.word.load(std::memory_order_seq_cst);
	for (;;) {
		EventWord event(word);
		if (!change(event)) return event;
		if (state.word.compare_exchange_weak(word, event.packed(), std::memory_order_seq_cst)) return event;
	}
}

bool takeSignal(EventWord& event, bool manualReset, uint32_t entered) {
	if (event.signalled) {
		event.signalled = manualReset;
		return true;
	}
	if (event.pulses == entered) return false;
	if (manualReset) return true;
	if (event.grants == 0) return false;
	--event.grants;
	return true;
}

uint32_t tryEvent(SharedState& state, bool manualReset, uint32_t entered) {
	bool taken = false;
	changeEvent(state, [&](EventWord& event) { return taken = takeSignal(event, manualReset, entered); });
	return taken ? kWaitAcquired : kWaitTimeout;
}

uint32_t waitEvent(SharedState& state, bool manualReset, const Deadline& deadline) {
	bool taken = false;
	const EventWord entered = changeEvent(state, [&](EventWord& event) {
		taken = takeSignal(event, manualReset, event.pulses);
		if (!taken && deadline.onlyTests()) return false;
		if (!taken) event.sleepers = std::min(event.sleepers + 1, EventWord::kMost);
		return true;
	});
	if (taken || deadline.onlyTests()) return taken ? kWaitAcquired : kWaitTimeout;
	const uint32_t result =
	    sleepUntil(state, deadline, kLookAgainMs, [&](bool) { return tryEvent(state, manualReset, entered.pulses); });
	changeEvent(state, [](EventWord& event) {
		event.sleepers -= event.sleepers > 0;
		event.grants = std::min(event.grants, event.sleepers); // nothing is kept for nobody
		return true;
	});
	return result;
}

/// Asking for the owner costs the system much more than the rest, so it is not asked for while
/// the mutex goes from hand to hand.
uint32_t tryShared(SharedState& mutex, uint64_t self, bool askForOwner) {
	uint64_t owner = mutex.word.load(std::memory_order_acquire);
	for (;;) {
		const bool free = owner == kFreeMutex || owner == kAbandonedMutex;
		if (!free && (!askForOwner || !hasEnded(owner))) return kWaitTimeout;
		if (mutex.word.compare_exchange_strong(owner, self, std::memory_order_acq_rel)) {
			return owner == kFreeMutex ? kWaitAcquired : kWaitAbandoned;
		}
	}
}

} // namespace

uint32_t waitShared(SharedState& mutex, uint64_t self, const Deadline& deadline) {
	const uint32_t result = tryShared(mutex, self, deadline.onlyTests());
	if (result != kWaitTimeout || deadline.onlyTests()) return result;
	return sleepUntil(mutex, deadline, kOwnerCheckMs, [&](bool quiet) { return tryShared(mutex, self, quiet); });
}

void releaseShared(SharedState& mutex, bool abandoned) {
	mutex.word.store(abandoned ? kAbandonedMutex : kFreeMutex, std::memory_order_release);
	wakeSleepers(mutex);
}

uint32_t waitShared(SharedState& state, const SharedTraits& traits, const Deadline& deadline) {
	if (traits.kind == Kind::event) return waitEvent(state, traits.manualReset, deadline);
	const uint32_t result = trySemaphore(state);
	if (result != kWaitTimeout || deadline.onlyTests()) return result;
	return sleepUntil(state, deadline, kLookAgainMs, [&](bool) { return trySemaphore(state); });
}

int32_t releaseShared(SharedState& semaphore, int32_t count, int32_t maximum) {
	uint64_t permits = semaphore.word.load(std::memory_order_acquire);
	uint64_t next;
	do {
		if (permits > static_cast<uint64_t>(maximum)) return -1;
		next = permits + static_cast<uint64_t>(count);
		if (next > static_cast<uint64_t>(maximum)) return -1;
	} while (!semaphore.word.compare_exchange_weak(permits, next, std::memory_order_acq_rel));
	wakeSleepers(semaphore);
	return static_cast<int32_t>(permits);
}

void setShared(SharedState& event, bool manualReset) {
	changeEvent(event, [&](EventWord& word) {
		word.signalled = true;
		word.pulses += manualReset; // who waits now goes on even if a reset comes first
		return true;
	});
	wakeSleepers(event);
}

void resetShared(SharedState& event) {
	changeEvent(event, [](EventWord& word) { return std::exchange(word.signalled, false); });
}

void pulseShared(SharedState& event) {
	changeEvent(event, [](EventWord& word) {
		word.signalled = false;
		++word.pulses;
		word.grants = std::min(word.grants + 1, word.sleepers);
		return true;
	});
	wakeSleepers(event);
}

} // namespace platform::posix
