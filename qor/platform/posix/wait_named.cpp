#include "wait_named_internal.h"

#include "../machine.h"
#include "../wait.h"
#include "errors.h"
#include "named_segment_internal.h"
#include "object_name_internal.h"
#include "thread_state_internal.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <unistd.h>

namespace platform::posix {

namespace {

constexpr uint32_t kInvalidHandle = 6;
constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kAlreadyExists = 183;
constexpr uint32_t kNotOwner = 288;
constexpr uint32_t kTooManyPosts = 298;

// A process that is killed wakes nobody; those who wait for its mutex look this often.
constexpr uint32_t kOwnerCheckMs = 50;

} // namespace

/// An object's one mapping in this process, whatever number of handles it has here: the
/// system keeps the addresses of robust locks that a thread holds.
struct NamedObject {
	std::unique_ptr<char[]> name;
	NamedSegment segment;
	std::atomic<uint32_t> shares{1};
	NamedObject* next = nullptr;

	SharedState& state() const { return *segment.state(); }
};

namespace {

std::mutex gNamedLock; // guards the list and the step of `shares` to 0
NamedObject* gNamed = nullptr;

/// Leaves no file behind when the process ends with handles open. The memory stays mapped:
/// other threads may still run.
struct AtExit {
	~AtExit() {
		if (!gNamedLock.try_lock()) return;
		for (NamedObject* object = gNamed; object; object = object->next) object->segment.removeUnlessShared();
		gNamedLock.unlock();
	}
} gAtExit;

/// Holds the lock of a shared semaphore or event. A process that died with it left at most
/// one field unwritten, each of which is sensible by itself.
class SharedGuard {
public:
	explicit SharedGuard(SharedState& state) : mState(state) { lock(); }
	~SharedGuard() { unlock(); }
	SharedGuard(const SharedGuard&) = delete;
	SharedGuard& operator=(const SharedGuard&) = delete;

	void lock() {
		if (pthread_mutex_lock(&mState.lock) == EOWNERDEAD) pthread_mutex_consistent(&mState.lock);
	}
	void unlock() { pthread_mutex_unlock(&mState.lock); }

private:
	SharedState& mState;
};

/// Wakes all: one chosen sleeper might be killed before it takes what it was woken for.
void wakeSleepers(SharedState& state) {
	state.sequence.fetch_add(1, std::memory_order_seq_cst);
	if (state.sleepers.load(std::memory_order_seq_cst) > 0) futexWake(&state.sequence, INT_MAX, true);
}

bool ownsMutex(const SharedState& state) {
	return state.ownerProcess.load(std::memory_order_relaxed) == processId() &&
	       state.ownerThread.load(std::memory_order_relaxed) == currentThread().id;
}

uint32_t tryMutex(SharedState& state) {
	const int result = pthread_mutex_trylock(&state.lock);
	if (result == EBUSY) return kWaitTimeout;
	if (result != 0 && result != EOWNERDEAD) {
		setLastError(windowsError(result));
		return kWaitFailed;
	}
	bool abandoned = false;
	if (result == EOWNERDEAD) {
		pthread_mutex_consistent(&state.lock);
		state.recursion = 0;
		abandoned = true;
	}
	if (state.recursion++ == 0) {
		state.ownerProcess.store(processId(), std::memory_order_relaxed);
		state.ownerThread.store(currentThread().id, std::memory_order_relaxed);
		abandoned |= state.abandoned;
		state.abandoned = false;
	}
	return abandoned ? kWaitAbandoned : kWaitAcquired;
}

uint32_t waitMutex(SharedState& state, const Deadline& deadline) {
	uint32_t result = tryMutex(state);
	if (result != kWaitTimeout || deadline.onlyTests()) return result;
	state.sleepers.fetch_add(1, std::memory_order_seq_cst);
	for (;;) {
		const uint32_t sequence = state.sequence.load(std::memory_order_seq_cst);
		result = tryMutex(state);
		if (result != kWaitTimeout || deadline.passed()) break;
		futexWait(state.sequence, sequence, deadline.atMost(kOwnerCheckMs), true);
	}
	state.sleepers.fetch_sub(1, std::memory_order_relaxed);
	return result;
}

void releaseOnce(SharedState& state, bool abandoned) {
	if (--state.recursion > 0) {
		pthread_mutex_unlock(&state.lock);
		return;
	}
	state.abandoned = abandoned;
	state.ownerProcess.store(0, std::memory_order_relaxed);
	state.ownerThread.store(0, std::memory_order_relaxed);
	pthread_mutex_unlock(&state.lock);
	wakeSleepers(state);
}

/// Acquires under the object's lock. `entered` is the number of pulses when the wait began:
/// a pulse since then is for this wait.
bool trySignalled(SharedState& state, uint32_t entered) {
	if (state.kind == static_cast<uint32_t>(Kind::semaphore)) {
		if (state.count == 0) return false;
		--state.count;
		return true;
	}
	if (state.signalled) {
		state.signalled = state.manualReset;
		return true;
	}
	if (state.pulses == entered) return false;
	if (state.manualReset) return true;
	if (state.grants == 0) return false;
	--state.grants;
	return true;
}

uint32_t waitSignalled(SharedState& state, const Deadline& deadline) {
	SharedGuard guard(state);
	const uint32_t entered = state.pulses;
	if (trySignalled(state, entered)) return kWaitAcquired;
	if (deadline.onlyTests()) return kWaitTimeout;
	state.sleepers.fetch_add(1, std::memory_order_relaxed);
	bool acquired = false;
	for (bool inTime = true; inTime && !acquired;) {
		const uint32_t sequence = state.sequence.load(std::memory_order_relaxed);
		guard.unlock();
		inTime = futexWait(state.sequence, sequence, deadline, true);
		guard.lock();
		acquired = trySignalled(state, entered);
	}
	const uint32_t sleepers = state.sleepers.fetch_sub(1, std::memory_order_relaxed) - 1;
	state.grants = std::min(state.grants, sleepers); // nothing is kept for nobody
	return acquired ? kWaitAcquired : kWaitTimeout;
}

/// A new object's state, from the request.
void initialise(SharedState& state, const NamedRequest& request) {
	state.kind = static_cast<uint32_t>(request.kind);
	state.count = request.count;
	state.maximum = request.maximum;
	state.manualReset = request.manualReset;
	state.signalled = request.signalled;
}

NamedObject* findNamed(const char* name) {
	NamedObject* object = gNamed;
	while (object && std::strcmp(object->name.get(), name) != 0) object = object->next;
	return object;
}

/// Under the list's lock. @return the object with one share more, or null with the last error.
NamedObject* shareNamed(const NamedRequest& request, bool& existed) {
	if (NamedObject* object = findNamed(request.name)) {
		object->shares.fetch_add(1, std::memory_order_relaxed);
		existed = true;
		return object;
	}
	const size_t length = std::strlen(request.name) + 1;
	std::unique_ptr<NamedObject> object(new (std::nothrow) NamedObject);
	if (object) object->name.reset(new (std::nothrow) char[length]);
	if (!object || !object->name) {
		setLastError(kOutOfMemory);
		return nullptr;
	}
	std::memcpy(object->name.get(), request.name, length);
	const auto fill = [&request](SharedState& state) { initialise(state, request); };
	if (!object->segment.open(request.name, request.mustExist, fill, existed)) return nullptr;
	object->next = gNamed;
	gNamed = object.get();
	return object.release();
}

/// Under the list's lock: frees what has no share any more. An object whose mutex a thread
/// of this process still owns stays mapped until that thread ends.
void removeUnused(NamedObject& object) {
	if (object.shares.load(std::memory_order_relaxed) != 0) return;
	if (object.state().ownerProcess.load(std::memory_order_relaxed) == processId()) return;
	NamedObject** link = &gNamed;
	while (*link != &object) link = &(*link)->next;
	*link = object.next;
	delete &object;
}

} // namespace

WaitHandle openNamed(NamedRequest request) {
	request.name = objectName(request.name);
	if (!request.name) return nullptr;
	NamedObject* object = nullptr;
	bool existed = false;
	{
		const std::lock_guard lock(gNamedLock);
		object = shareNamed(request, existed);
	}
	if (!object) return nullptr;
	const bool fits = object->state().kind == static_cast<uint32_t>(request.kind);
	const WaitHandle handle = fits ? makeSlot(Kind::named, 0, 0, object) : nullptr;
	if (!handle) {
		dropNamed(*object);
		if (!fits) setLastError(kInvalidHandle);
		return nullptr;
	}
	if (!existed && request.owned) tryMutex(object->state());
	if (!request.mustExist) setLastError(existed ? kAlreadyExists : 0);
	return handle;
}

void dropNamed(NamedObject& object) {
	uint32_t shares = object.shares.load(std::memory_order_relaxed);
	while (shares > 1) {
		if (object.shares.compare_exchange_weak(shares, shares - 1, std::memory_order_acq_rel)) return;
	}
	const std::lock_guard lock(gNamedLock);
	object.shares.fetch_sub(1, std::memory_order_acq_rel);
	removeUnused(object);
}

NamedShare::NamedShare(const Found& found) {
	const SlotGuard guard(*found.slot);
	if (generationOf(found.slot->word.load(std::memory_order_relaxed)) != generationOf(found.word)) return;
	mObject = found.slot->named;
	mObject->shares.fetch_add(1, std::memory_order_relaxed); // the handle's own share keeps it alive
}

NamedShare::~NamedShare() {
	if (mObject) dropNamed(*mObject);
}

Kind kindOfNamed(const NamedObject& object) { return static_cast<Kind>(object.state().kind); }

bool manualResetOfNamed(const NamedObject& object) { return object.state().manualReset; }

uint32_t waitNamed(NamedObject& object, const Deadline& deadline) {
	SharedState& state = object.state();
	return kindOfNamed(object) == Kind::mutex ? waitMutex(state, deadline) : waitSignalled(state, deadline);
}

bool releaseNamedMutex(NamedObject& object, bool abandoned) {
	if (!ownsMutex(object.state())) {
		setLastError(kNotOwner);
		return false;
	}
	releaseOnce(object.state(), abandoned);
	return true;
}

bool releaseNamedSemaphore(NamedObject& object, int32_t count, int32_t* previous, bool beyond) {
	SharedState& state = object.state();
	const SharedGuard guard(state);
	const int32_t maximum = beyond ? INT32_MAX : state.maximum;
	if (count > maximum - state.count) {
		setLastError(kTooManyPosts);
		return false;
	}
	if (previous) *previous = state.count;
	state.count += count;
	wakeSleepers(state);
	return true;
}

void setNamedEvent(NamedObject& object) {
	SharedState& state = object.state();
	const SharedGuard guard(state);
	state.signalled = true;
	if (state.manualReset) ++state.pulses; // who waits now goes on even if a reset comes first
	wakeSleepers(state);
}

void resetNamedEvent(NamedObject& object) {
	const SharedGuard guard(object.state());
	object.state().signalled = false;
}

void pulseNamedEvent(NamedObject& object) {
	SharedState& state = object.state();
	const SharedGuard guard(state);
	state.signalled = false;
	++state.pulses;
	state.grants = std::min(state.grants + 1, state.sleepers.load(std::memory_order_relaxed));
	wakeSleepers(state);
}

void abandonNamedMutexes() {
	const std::lock_guard lock(gNamedLock);
	for (NamedObject* object = gNamed; object;) {
		NamedObject* next = object->next;
		SharedState& state = object->state();
		while (kindOfNamed(*object) == Kind::mutex && ownsMutex(state)) releaseOnce(state, true);
		removeUnused(*object);
		object = next;
	}
}

} // namespace platform::posix
