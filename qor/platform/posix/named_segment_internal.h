#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <pthread.h>

namespace platform::posix {

/// What the processes share of one named object. Same layout in every process of the
/// machine; `magic` changes with it.
struct SharedState {
	uint32_t magic;
	uint32_t kind;
	/// Robust and recursive. The lock of a mutex object is the mutex itself; otherwise it
	/// guards the fields that are not atomic.
	pthread_mutex_t lock;
	std::atomic<uint32_t> sequence; // changes with every wake-up; slept on
	std::atomic<uint32_t> sleepers; // too many after a process was killed, never too few
	// A mutex's, written by its owner.
	std::atomic<uint32_t> ownerProcess;
	std::atomic<uint32_t> ownerThread;
	uint32_t recursion;
	bool abandoned;
	// A semaphore's.
	int32_t count;
	int32_t maximum;
	// An event's.
	bool manualReset;
	bool signalled;
	uint32_t pulses;
	uint32_t grants; // pulses of an auto-reset event that no wait has taken yet
};
static_assert(std::atomic<uint32_t>::is_always_lock_free);

/// One named object's shared memory.
///
/// Who uses it is known by locks on its file, which the system drops with a process however
/// that ends: byte 0 is held exclusively while an object is opened or closed, byte 1 is
/// shared by all processes that have it open. Whoever can take byte 1 exclusively is
/// alone: on opening, the contents are left over from processes that were killed and are made
/// anew; on closing, the file is removed.
class NamedSegment {
public:
	NamedSegment() = default;
	~NamedSegment();
	NamedSegment(const NamedSegment&) = delete;
	NamedSegment& operator=(const NamedSegment&) = delete;

	/// `fill` sets the kind and the values of a new object. @return false, with the last error,
	/// on failure.
	bool open(const char* name, bool mustExist, const std::function<void(SharedState&)>& fill, bool& existed);

	/// Removes the file when no other process uses it; the memory stays.
	void removeUnlessShared();

	SharedState* state() const { return mState; }

private:
	bool openFile(bool mustExist);
	bool map(bool alone, const std::function<void(SharedState&)>& fill);

	char mPath[48] = {};
	int mFile = -1;
	SharedState* mState = nullptr;
};

} // namespace platform::posix
