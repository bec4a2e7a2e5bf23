#include "../wait.h"

#include "../clock.h"
#include "../faults.h"
#include "../machine.h"
#include "thread_state_internal.h"
#include "wait_named_internal.h"

#include <algorithm>
#include <unistd.h>

namespace platform {

using namespace posix;

namespace {

constexpr uint32_t kInvalidHandle = 6;
constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kInvalidParameter = 87;
constexpr uint32_t kTooManyPosts = 298;
constexpr uint32_t kNotOwner = 288;
constexpr uint32_t kMutexLimit = 587;

// How often a wait looks at a semaphore or mutex before it sleeps: more after looks that
// paid, fewer after looks in vain, so a busy hand-over stays awake and an idle worker sleeps.
constexpr uint32_t kFewestSpins = 10;
constexpr uint32_t kMostSpins = 400;
constexpr uint32_t kLongestPause = 32;

enum class Attempt : uint8_t { acquired, abandoned, busy, closed, refused };

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

bool isNamed(const char* name) { return name && *name; }

bool refuse() { return injectFault(FaultPoint::waitObject) && !fail(kOutOfMemory); }

bool severalProcessors() {
	static const bool several = sysconf(_SC_NPROCESSORS_ONLN) > 1;
	return several;
}

/// One try at a mutex: the word after success, or why there is none.
Attempt mutexAttempt(uint64_t word, uint64_t& next) {
	const uint64_t owner = word & kOwnerMask;
	const uint64_t self = currentThread().id;
	if (owner == 0) {
		next = (word & ~kAbandoned) | self | kRecursionOne;
		return word & kAbandoned ? Attempt::abandoned : Attempt::acquired;
	}
	if (owner != self) return Attempt::busy;
	if ((word & kRecursionMask) == kRecursionMask) return Attempt::refused;
	next = word + kRecursionOne;
	return Attempt::acquired;
}

Attempt attempt(uint64_t word, uint64_t& next) {
	next = word;
	switch (kindOf(word)) {
	case Kind::mutex: return mutexAttempt(word, next);
	case Kind::semaphore:
		if ((word & kCountMask) == 0) return Attempt::busy;
		next = word - 1;
		return Attempt::acquired;
	case Kind::event:
		if (!(word & kManualReset)) next = word & ~kSignalled;
		break;
	case Kind::thread: break;
	default: return Attempt::closed;
	}
	return word & kSignalled ? Attempt::acquired : Attempt::busy;
}

/// Tries to acquire what `word` was read from. `queued`: the caller is in the queue, so the
/// object is still the same after its handle was closed.
Attempt tryAcquire(Slot& slot, uint64_t& word, bool queued = false) {
	const uint64_t generation = generationOf(word);
	for (;;) {
		if (!queued && generationOf(word) != generation) return Attempt::closed;
		uint64_t next;
		const Attempt result = attempt(word, next);
		if (result != Attempt::acquired && result != Attempt::abandoned) return result;
		if (next != word && !slot.word.compare_exchange_weak(word, next, std::memory_order_acq_rel)) continue;
		// Counted at the first acquisition only, as releases are at the last.
		if (kindOf(word) == Kind::mutex && (word & kOwnerMask) == 0) ++currentThread().held;
		return result;
	}
}

uint32_t resultOf(Attempt attempt) {
	switch (attempt) {
	case Attempt::acquired: return kWaitAcquired;
	case Attempt::abandoned: return kWaitAbandoned;
	case Attempt::busy: return kWaitTimeout;
	case Attempt::closed: fail(kInvalidHandle); return kWaitFailed;
	default: fail(kMutexLimit); return kWaitFailed;
	}
}

/// Watches the word for a moment before sleeping.
Attempt spin(Slot& slot, uint64_t& word) {
	if (!severalProcessors()) return Attempt::busy;
	const uint32_t budget = std::clamp(slot.spins.load(std::memory_order_relaxed), kFewestSpins, kMostSpins);
	const uint64_t generation = generationOf(word);
	for (uint32_t spent = 0, pause = 1; spent < budget; spent += pause, pause = std::min(pause * 2, kLongestPause)) {
		// Longer and longer, so that the thread at work keeps the word in its cache.
		for (uint32_t i = 0; i < pause; ++i) pauseProcessor();
		word = slot.word.load(std::memory_order_acquire);
		if (generationOf(word) != generation) return Attempt::closed;
		const Attempt result = tryAcquire(slot, word);
		if (result == Attempt::busy) continue;
		slot.spins.store(std::min(budget * 2, kMostSpins), std::memory_order_relaxed);
		return result;
	}
	slot.spins.store(budget - budget / 4, std::memory_order_relaxed);
	return Attempt::busy;
}

/// Acquires under the latch or queues: nothing that signals the object falls in between.
Attempt acquireOrEnqueue(Slot& slot, uint64_t generation, Waiter& waiter) {
	SlotGuard guard(slot);
	uint64_t word = slot.word.load(std::memory_order_acquire);
	if (generationOf(word) != generation) return Attempt::closed;
	for (;;) {
		const Attempt result = tryAcquire(slot, word);
		if (result != Attempt::busy) return result;
		if (word & kSlow || slot.word.compare_exchange_weak(word, word | kSlow, std::memory_order_acq_rel)) break;
		if (generationOf(word) != generation) return Attempt::closed;
	}
	guard.enqueue(waiter);
	return Attempt::busy;
}

/// Waits in the queue for what the signalling thread hands over.
Attempt awaitGrant(Slot& slot, Waiter& waiter, const Deadline& deadline) {
	while (waiter.state.load(std::memory_order_acquire) == 0) {
		if (futexWait(waiter.state, 0, deadline)) continue;
		SlotGuard guard(slot);
		if (!waiter.granted) {
			guard.dequeue(waiter);
			return Attempt::busy;
		}
		break;
	}
	// Taken out but perhaps not told yet: the granting thread still needs this waiter.
	while (waiter.state.load(std::memory_order_acquire) == 0) futexWait(waiter.state, 0, Deadline::never());
	return Attempt::acquired;
}

/// Waits in the queue of a mutex and competes for it whenever it is released.
Attempt awaitMutex(Slot& slot, Waiter& waiter, const Deadline& deadline) {
	for (;;) {
		const bool inTime = waiter.state.load(std::memory_order_acquire) != 0 || futexWait(waiter.state, 0, deadline);
		SlotGuard guard(slot);
		waiter.state.store(0, std::memory_order_relaxed);
		uint64_t word = slot.word.load(std::memory_order_acquire);
		const Attempt result = tryAcquire(slot, word, true);
		if (result == Attempt::busy && inTime) continue;
		guard.dequeue(waiter);
		return result;
	}
}

/// What is not to be had at once. Kept out of line, so that the usual wait stays short.
[[gnu::noinline]] uint32_t waitSlowly(const Found& found, const Deadline& deadline) {
	uint64_t word = found.word;
	const Kind kind = kindOf(word);
	if (kind == Kind::named) {
		const NamedShare share(found);
		return share ? waitNamed(*share, deadline) : resultOf(Attempt::closed);
	}
	Attempt result = Attempt::busy;
	if (kind == Kind::mutex || kind == Kind::semaphore) result = spin(*found.slot, word);
	if (result != Attempt::busy) return resultOf(result);
	Waiter waiter;
	result = acquireOrEnqueue(*found.slot, generationOf(found.word), waiter);
	if (result != Attempt::busy) return resultOf(result);
	if (kind == Kind::mutex) return resultOf(awaitMutex(*found.slot, waiter, deadline));
	return resultOf(awaitGrant(*found.slot, waiter, deadline));
}

/// `deadline()` is asked only when there is something to wait for: it reads the clock.
template <typename MakeDeadline>
uint32_t waitUntil(WaitHandle handle, bool onlyTests, MakeDeadline deadline) {
	const Found found = findSlot(handle);
	if (!found.slot) return resultOf(Attempt::closed);
	if (kindOf(found.word) == Kind::named) return waitSlowly(found, deadline());
	uint64_t word = found.word;
	const Attempt result = tryAcquire(*found.slot, word);
	if (result == Attempt::acquired) return kWaitAcquired;
	if (result != Attempt::busy || onlyTests) return resultOf(result);
	return waitSlowly(found, deadline());
}

uint32_t waitUntil(WaitHandle handle, const Deadline& deadline) {
	return waitUntil(handle, deadline.onlyTests(), [&deadline] { return deadline; });
}

/// Changes the value of a private object. `fast(word)` turns the word into the next one
/// while nobody queues; `slow(guard, slot, word)` does it under the latch while somebody does,
/// which keeps the word from changing otherwise. Both answer whether they could.
template <typename Fast, typename Slow>
bool update(const Found& found, Kind kind, Fast fast, Slow slow) {
	Slot& slot = *found.slot;
	uint64_t word = found.word;
	const uint64_t generation = generationOf(word);
	if (kindOf(word) != kind) return fail(kInvalidHandle);
	for (;;) {
		while (!(word & kSlow)) {
			uint64_t next = word;
			if (!fast(next)) return false;
			if (slot.word.compare_exchange_weak(word, next, std::memory_order_acq_rel)) return true;
			if (generationOf(word) != generation) return fail(kInvalidHandle);
		}
		SlotGuard guard(slot);
		word = slot.word.load(std::memory_order_acquire);
		if (generationOf(word) != generation) return fail(kInvalidHandle);
		if (slot.first) return slow(guard, slot, word);
	}
}

/// `abandoned` gives the mutex back as it was taken: abandoned.
bool releasePrivateMutex(const Found& found, bool abandoned) {
	const uint64_t self = currentThread().id;
	const auto release = [self, abandoned](uint64_t& word) {
		if ((word & kOwnerMask) != self) return fail(kNotOwner);
		word -= kRecursionOne;
		if (word & kRecursionMask) return true;
		word = (word & ~kOwnerMask) | (abandoned ? kAbandoned : 0);
		return true;
	};
	uint64_t after = 0;
	const bool released = update(
	    found, Kind::mutex, [&](uint64_t& word) { return release(word) && ((after = word), true); },
	    [&](SlotGuard& guard, Slot& slot, uint64_t word) {
		    if (!release(word)) return false;
		    slot.word.store(word, std::memory_order_release);
		    if (!(word & kOwnerMask)) guard.nudgeFirst();
		    after = word;
		    return true;
	    });
	if (released && !(after & kOwnerMask)) --currentThread().held;
	return released;
}

/// `beyond` ignores the maximum: a permit goes back that was taken before.
bool releasePrivateSemaphore(const Found& found, int32_t count, int32_t* previous, bool beyond) {
	const uint64_t maximum =
	    beyond ? kCountMask : static_cast<uint64_t>(found.slot->maximum.load(std::memory_order_relaxed));
	const uint64_t added = static_cast<uint64_t>(count);
	uint64_t before = 0;
	const bool released = update(
	    found, Kind::semaphore,
	    [&](uint64_t& word) {
		    before = word & kCountMask;
		    if (before + added > maximum) return fail(kTooManyPosts);
		    word += added;
		    return true;
	    },
	    [&](SlotGuard& guard, Slot& slot, uint64_t) {
		    before = 0; // or nobody would queue
		    if (added > maximum) return fail(kTooManyPosts);
		    uint64_t granted = 0;
		    for (Waiter* waiter = slot.first; waiter && granted < added; waiter = waiter->next) ++granted;
		    slot.word.fetch_add(added - granted, std::memory_order_acq_rel);
		    for (; granted > 0; --granted) guard.grantFirst();
		    return true;
	    });
	if (released && previous) *previous = static_cast<int32_t>(before);
	return released;
}

enum class EventChange : uint8_t { set, reset, pulse };

bool changePrivateEvent(const Found& found, EventChange change) {
	return update(
	    found, Kind::event,
	    [change](uint64_t& word) {
		    word = change == EventChange::set ? word | kSignalled : word & ~kSignalled;
		    return true;
	    },
	    [change](SlotGuard& guard, Slot& slot, uint64_t word) {
		    if (change == EventChange::reset) return true; // it is, or nobody would queue
		    if (!(word & kManualReset)) return guard.grantFirst();
		    if (change == EventChange::set) slot.word.fetch_or(kSignalled, std::memory_order_acq_rel);
		    guard.grantAll();
		    return true;
	    });
}

bool changeEvent(WaitHandle event, EventChange change) {
	const Found found = findSlot(event);
	if (!found.slot) return fail(kInvalidHandle);
	if (kindOf(found.word) != Kind::named) return changePrivateEvent(found, change);
	const NamedShare share(found);
	if (!share || kindOfNamed(*share) != Kind::event) return fail(kInvalidHandle);
	switch (change) {
	case EventChange::set: setNamedEvent(*share); break;
	case EventChange::reset: resetNamedEvent(*share); break;
	case EventChange::pulse: pulseNamedEvent(*share); break;
	}
	return true;
}

bool releaseOwned(WaitHandle mutex, bool abandoned) {
	const Found found = findSlot(mutex);
	if (!found.slot) return fail(kInvalidHandle);
	if (kindOf(found.word) != Kind::named) return releasePrivateMutex(found, abandoned);
	const NamedShare share(found);
	if (!share || kindOfNamed(*share) != Kind::mutex) return fail(kInvalidHandle);
	return releaseNamedMutex(*share, abandoned);
}

bool releasePermits(WaitHandle semaphore, int32_t count, int32_t* previous, bool beyond) {
	const Found found = findSlot(semaphore);
	if (!found.slot) return fail(kInvalidHandle);
	if (count < 1) return fail(kInvalidParameter);
	if (kindOf(found.word) != Kind::named) return releasePrivateSemaphore(found, count, previous, beyond);
	const NamedShare share(found);
	if (!share || kindOfNamed(*share) != Kind::semaphore) return fail(kInvalidHandle);
	return releaseNamedSemaphore(*share, count, previous, beyond);
}

/// Takes an acquisition back.
void undo(WaitHandle handle, uint32_t result) {
	const Found found = findSlot(handle);
	if (!found.slot) return;
	Kind kind = kindOf(found.word);
	bool manualReset = found.word & kManualReset;
	if (kind == Kind::named) {
		const NamedShare share(found);
		if (!share) return;
		kind = kindOfNamed(*share);
		manualReset = manualResetOfNamed(*share);
	}
	if (kind == Kind::mutex) releaseOwned(handle, result == kWaitAbandoned);
	if (kind == Kind::semaphore) releasePermits(handle, 1, nullptr, true);
	if (kind == Kind::event && !manualReset) changeEvent(handle, EventChange::set);
}

/// Tries all but `held`, which is acquired already. @return `count`, or the index of the one
/// that could not be had, with nothing acquired; its result is in `results`.
int tryOthers(const WaitHandle* handles, int count, int held, uint32_t* results) {
	const Deadline test(0);
	for (int i = 0; i < count; ++i) {
		if (i == held) continue;
		results[i] = waitUntil(handles[i], test);
		if (results[i] == kWaitAcquired || results[i] == kWaitAbandoned) continue;
		for (int taken = 0; taken < count; ++taken) {
			if (taken < i || taken == held) undo(handles[taken], results[taken]);
		}
		return i;
	}
	return count;
}

/// Each handle is open and stands there once: twice could never be acquired.
bool mayWaitForAll(const WaitHandle* handles, int count) {
	if (!handles || count < 1 || count > kMaximumWaitObjects) return fail(kInvalidParameter);
	for (int i = 0; i < count; ++i) {
		if (!findSlot(handles[i]).slot) return fail(kInvalidHandle);
		if (std::find(handles, handles + i, handles[i]) != handles + i) return fail(kInvalidParameter);
	}
	return true;
}

} // namespace

WaitHandle createMutex(bool owned, const char* name, _SECURITY_ATTRIBUTES*) {
	if (refuse()) return nullptr;
	if (isNamed(name)) {
		NamedRequest request{Kind::mutex, name};
		request.owned = owned;
		return openNamed(request);
	}
	ThreadState& thread = currentThread();
	const WaitHandle handle = makeSlot(Kind::mutex, owned ? thread.id | kRecursionOne : 0);
	if (handle && owned) ++thread.held;
	return handle;
}

WaitHandle createSemaphore(int32_t initial, int32_t maximum, const char* name) {
	if (refuse()) return nullptr;
	if (initial < 0 || maximum < 1 || initial > maximum) {
		fail(kInvalidParameter);
		return nullptr;
	}
	if (!isNamed(name)) return makeSlot(Kind::semaphore, static_cast<uint64_t>(initial), maximum);
	NamedRequest request{Kind::semaphore, name};
	request.count = initial;
	request.maximum = maximum;
	return openNamed(request);
}

WaitHandle createEvent(bool manualReset, bool signalled, const char* name) {
	if (refuse()) return nullptr;
	if (!isNamed(name)) {
		return makeSlot(Kind::event, (manualReset ? kManualReset : 0) | (signalled ? kSignalled : 0));
	}
	NamedRequest request{Kind::event, name};
	request.manualReset = manualReset;
	request.signalled = signalled;
	return openNamed(request);
}

namespace {

WaitHandle openExisting(Kind kind, const char* name) {
	if (refuse()) return nullptr;
	if (!isNamed(name)) {
		fail(kInvalidParameter);
		return nullptr;
	}
	NamedRequest request{kind, name};
	request.mustExist = true;
	return openNamed(request);
}

} // namespace

WaitHandle openMutex(const char* name) { return openExisting(Kind::mutex, name); }

WaitHandle openSemaphore(const char* name) { return openExisting(Kind::semaphore, name); }

WaitHandle openEvent(const char* name) { return openExisting(Kind::event, name); }

bool releaseMutex(WaitHandle mutex) { return releaseOwned(mutex, false); }

bool releaseSemaphore(WaitHandle semaphore, int32_t count, int32_t* previous) {
	return releasePermits(semaphore, count, previous, false);
}

bool setEvent(WaitHandle event) { return changeEvent(event, EventChange::set); }

bool resetEvent(WaitHandle event) { return changeEvent(event, EventChange::reset); }

bool pulseEvent(WaitHandle event) { return changeEvent(event, EventChange::pulse); }

bool closeHandle(WaitHandle handle) { return closeSlot(handle) || fail(kInvalidHandle); }

uint32_t wait(WaitHandle handle, uint32_t timeoutMs) {
	return waitUntil(handle, timeoutMs == 0, [timeoutMs] { return Deadline(timeoutMs); });
}

/// Waits for one object, then tries the others and, when one of them is not signalled, gives
/// everything back before it waits for that one. Another thread that looks in between finds
/// an object taken for a moment, and a pulse reaches only the object waited for.
uint32_t waitAll(const WaitHandle* handles, int count, uint32_t timeoutMs) {
	if (!mayWaitForAll(handles, count)) return kWaitFailed;
	const Deadline deadline(timeoutMs);
	uint32_t results[kMaximumWaitObjects];
	for (int first = 0;;) {
		results[first] = waitUntil(handles[first], deadline);
		if (results[first] == kWaitTimeout || results[first] == kWaitFailed) return results[first];
		const int missing = tryOthers(handles, count, first, results);
		if (missing == count) break;
		if (results[missing] == kWaitFailed) return kWaitFailed;
		if (deadline.passed()) return kWaitTimeout;
		first = missing;
		yieldThread();
	}
	return *std::max_element(results, results + count); // abandoned above acquired
}

} // namespace platform
