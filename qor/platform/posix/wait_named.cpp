#include "wait_named_internal.h"

#include "../machine.h"
#include "../wait.h"
#include "named_state_internal.h"
#include "object_name_internal.h"
#include "thread_identity_internal.h"
#include "thread_state_internal.h"

#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

namespace platform::posix {

namespace {

constexpr uint32_t kInvalidHandle = 6;
constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kBusy = 170;
constexpr uint32_t kAlreadyExists = 183;
constexpr uint32_t kNotOwner = 288;
constexpr uint32_t kTooManyPosts = 298;
constexpr uint32_t kMutexLimit = 587;
constexpr uint32_t kMostRecursion = 0x7FFFFFFF;
// Longer than opening waits for other processes.
constexpr uint32_t kLongestOpeningMs = 15000;

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

} // namespace

/// An object's one mapping in this process, whatever number of handles it has here.
struct NamedObject {
	std::unique_ptr<char[]> name;
	NamedSegment segment;
	SharedTraits traits{};  // read once: what others write there later changes nothing here
	uint32_t recursion = 0; // of a mutex; its owner's alone
	std::atomic<uint32_t> shares{1};
	bool opening = true; // under the list's lock
	NamedObject* next = nullptr;

	SharedState& state() const { return *segment.state(); }
	bool isMutex() const { return traits.kind == Kind::mutex; }
	uint64_t owner() const { return state().word.load(std::memory_order_relaxed); }
};

namespace {

std::mutex gNamedLock; // guards the list and the step of `shares` to 0; never held over a file
NamedObject* gNamed = nullptr;
std::atomic<uint32_t> gOpenings{0}; // changes when an object has been opened, or could not be

/// Leaves no file behind when the process ends with handles open. The memory stays mapped:
/// other threads may still run.
struct AtExit {
	~AtExit() {
		if (!gNamedLock.try_lock()) return;
		for (NamedObject* object = gNamed; object; object = object->next) {
			if (!object->opening) object->segment.removeUnlessShared();
		}
		gNamedLock.unlock();
	}
} gAtExit;

uint64_t knownIdentity() { return currentThread().identity; } // without one it owns nothing

bool ownsMutex(const NamedObject& object) {
	return object.isMutex() && knownIdentity() != 0 && object.owner() == knownIdentity();
}

uint32_t waitMutex(NamedObject& object, const Deadline& deadline) {
	const uint64_t self = ownIdentity();
	if (!self) return kWaitFailed;
	if (ownsMutex(object)) {
		if (object.recursion >= kMostRecursion) return fail(kMutexLimit), kWaitFailed;
		++object.recursion;
		return kWaitAcquired;
	}
	const uint32_t result = waitShared(object.state(), self, deadline);
	if (result == kWaitAcquired || result == kWaitAbandoned) object.recursion = 1;
	return result;
}

void releaseWhole(NamedObject& object, bool abandoned) {
	object.recursion = 0;
	releaseShared(object.state(), abandoned);
}

/// A new object's state, from the request.
void initialise(SharedState& state, const NamedRequest& request) {
	state.kind = static_cast<uint32_t>(request.kind);
	state.maximum = request.maximum;
	state.manualReset = request.manualReset;
	uint64_t word = 0;
	if (request.kind == Kind::mutex) word = request.owned ? knownIdentity() : kFreeMutex;
	if (request.kind == Kind::semaphore) word = static_cast<uint64_t>(request.count);
	if (request.kind == Kind::event) word = sharedEventWord(request.signalled);
	state.word.store(word, std::memory_order_relaxed);
}

bool readTraits(NamedObject& object) {
	const SharedState& state = object.state();
	if (state.kind < static_cast<uint32_t>(Kind::mutex) || state.kind > static_cast<uint32_t>(Kind::event))
		return false;
	object.traits = {static_cast<Kind>(state.kind), state.maximum, state.manualReset != 0};
	return object.traits.kind != Kind::semaphore || object.traits.maximum > 0;
}

std::unique_ptr<NamedObject> makeNamed(const char* name) {
	const size_t length = std::strlen(name) + 1;
	std::unique_ptr<NamedObject> object(new (std::nothrow) NamedObject);
	if (object) object->name.reset(new (std::nothrow) char[length]);
	if (!object || !object->name) return fail(kOutOfMemory), nullptr;
	std::memcpy(object->name.get(), name, length);
	return object;
}

NamedObject* findNamed(const char* name) {
	NamedObject* object = gNamed;
	while (object && std::strcmp(object->name.get(), name) != 0) object = object->next;
	return object;
}

void removeFromList(NamedObject& object) {
	NamedObject** link = &gNamed;
	while (*link != &object) link = &(*link)->next;
	*link = object.next;
}

/// Under the list's lock, which it gives up while another thread opens the object.
/// @return the object with one share more, or null: nobody has it. Throws nothing.
NamedObject* shareListed(const char* name, std::unique_lock<std::mutex>& lock, bool* timedOut) {
	const Deadline end(kLongestOpeningMs);
	for (;;) {
		NamedObject* object = findNamed(name);
		if (!object || !object->opening) {
			if (object) object->shares.fetch_add(1, std::memory_order_relaxed);
			return object;
		}
		const uint32_t openings = gOpenings.load(std::memory_order_relaxed);
		lock.unlock();
		*timedOut = !futexWait(gOpenings, openings, end);
		lock.lock();
		if (*timedOut) return nullptr;
	}
}

/// @return the object with one share more, or null with the last error.
NamedObject* shareNamed(const NamedRequest& request, bool& existed) {
	std::unique_lock lock(gNamedLock);
	bool timedOut = false;
	existed = true;
	if (NamedObject* object = shareListed(request.name, lock, &timedOut)) return object;
	if (timedOut) return fail(kBusy), nullptr;
	std::unique_ptr<NamedObject> object = makeNamed(request.name);
	if (!object) return nullptr;
	object->next = gNamed;
	gNamed = object.get();
	lock.unlock();
	const auto fill = [&request](SharedState& state) { initialise(state, request); };
	bool opened = object->segment.open(request.name, request.mustExist, fill, existed);
	if (opened && !readTraits(*object)) opened = fail(kInvalidHandle);
	if (opened && !existed && request.owned) object->recursion = 1;
	lock.lock();
	object->opening = false;
	if (!opened) removeFromList(*object);
	gOpenings.fetch_add(1, std::memory_order_relaxed);
	lock.unlock();
	futexWake(&gOpenings, INT_MAX);
	return opened ? object.release() : nullptr;
}

/// Under the list's lock. An object whose mutex a thread of this process still owns stays
/// mapped until that thread ends. @return the object when it is to be deleted, without the lock.
NamedObject* takeUnused(NamedObject& object) {
	if (object.opening || object.shares.load(std::memory_order_relaxed) != 0 || object.recursion != 0) return nullptr;
	removeFromList(object);
	return &object;
}

} // namespace

WaitHandle openNamed(NamedRequest request) {
	request.name = objectName(request.name);
	if (!request.name || (request.owned && !ownIdentity())) return nullptr;
	currentThread(); // what a fork needs is arranged with it
	bool existed = false;
	NamedObject* object = shareNamed(request, existed);
	if (!object) return nullptr;
	const bool fits = object->traits.kind == request.kind;
	const WaitHandle handle = fits ? makeSlot(Kind::named, 0, 0, object) : nullptr;
	if (!handle) {
		dropNamed(*object);
		if (!fits) setLastError(kInvalidHandle);
		return nullptr;
	}
	if (!request.mustExist) setLastError(existed ? kAlreadyExists : 0);
	return handle;
}

void dropNamed(NamedObject& object) {
	uint32_t shares = object.shares.load(std::memory_order_relaxed);
	while (shares > 1) {
		if (object.shares.compare_exchange_weak(shares, shares - 1, std::memory_order_acq_rel)) return;
	}
	std::unique_lock lock(gNamedLock);
	object.shares.fetch_sub(1, std::memory_order_acq_rel);
	const std::unique_ptr<NamedObject> unused(takeUnused(object));
	lock.unlock();
}

NamedShare::NamedShare(const Found& found) {
	const SlotGuard guard(*found.slot);
	if (generationOf(found.slot->word.load(std::memory_order_relaxed)) != generationOf(found.word)) return;
	if (!found.slot->named->segment.isOwn()) return; // forked without a way to share it
	mObject = found.slot->named;
	mObject->shares.fetch_add(1, std::memory_order_relaxed); // the handle's own share keeps it alive
}

NamedShare::~NamedShare() {
	if (mObject) dropNamed(*mObject);
}

Kind kindOfNamed(const NamedObject& object) { return object.traits.kind; }

bool manualResetOfNamed(const NamedObject& object) { return object.traits.manualReset; }

uint32_t waitNamed(NamedObject& object, const Deadline& deadline) {
	return object.isMutex() ? waitMutex(object, deadline) : waitShared(object.state(), object.traits, deadline);
}

bool releaseNamedMutex(NamedObject& object, bool abandoned) {
	if (!ownsMutex(object)) return fail(kNotOwner);
	if (object.recursion > 1)
		--object.recursion;
	else
		releaseWhole(object, abandoned);
	return true;
}

bool releaseNamedSemaphore(NamedObject& object, int32_t count, int32_t* previous, bool beyond) {
	const int32_t before = releaseShared(object.state(), count, beyond ? INT32_MAX : object.traits.maximum);
	if (before < 0) return fail(kTooManyPosts);
	if (previous) *previous = before;
	return true;
}

void setNamedEvent(NamedObject& object) { setShared(object.state(), object.traits.manualReset); }

void resetNamedEvent(NamedObject& object) { resetShared(object.state()); }

void pulseNamedEvent(NamedObject& object) { pulseShared(object.state()); }

void abandonNamedMutexes() {
	if (!knownIdentity()) return;
	NamedObject* unused = nullptr;
	{
		const std::lock_guard lock(gNamedLock);
		for (NamedObject* object = gNamed; object;) {
			NamedObject* next = object->next;
			if (!object->opening && ownsMutex(*object)) {
				releaseWhole(*object, true);
				if (NamedObject* taken = takeUnused(*object)) {
					taken->next = unused;
					unused = taken;
				}
			}
			object = next;
		}
	}
	while (unused) {
		const std::unique_ptr<NamedObject> object(unused);
		unused = object->next;
	}
}

void lockNamedForFork() {
	gNamedLock.lock();
	for (NamedObject* object = gNamed; object; object = object->next) {
		if (!object->opening) object->segment.beforeFork();
	}
}

void unlockNamedInParent() {
	for (NamedObject* object = gNamed; object; object = object->next) object->segment.afterForkInParent();
	gNamedLock.unlock();
}

/// What another thread was opening is forgotten; nobody here will end that. Nor does anybody
/// here own a mutex: its owner is a thread of the parent.
void unlockNamedInChild() {
	for (NamedObject** link = &gNamed; *link;) {
		NamedObject& object = **link;
		if (object.opening) {
			*link = object.next;
			continue;
		}
		object.segment.afterForkInChild();
		object.recursion = 0;
		link = &object.next;
	}
	gNamedLock.unlock();
}

} // namespace platform::posix
