#pragma once

#include "file_internal.h"

#include <atomic>
#include <cstdint>
#include <functional>

namespace platform::posix {

/// What the processes share of one named object. Same layout in every process; `magic` changes
/// with it. There is no lock in it and no address: every change is one step of `word`, so a
/// process that is killed leaves nothing half done, and nothing that another one writes here
/// leads anywhere. What never changes is read once, on opening.
struct SharedState {
	std::atomic<uint32_t> magic;
	uint32_t kind;
	int32_t maximum;      // of a semaphore
	uint32_t manualReset; // of an event
	std::atomic<uint64_t> word;
	std::atomic<uint32_t> sequence; // changes with every wake-up; slept on
	std::atomic<uint32_t> sleepers; // too many after a process was killed
};
static_assert(sizeof(SharedState) == 32 && std::atomic<uint64_t>::is_always_lock_free);

/// One named object's shared memory: a file for this user and this process numbering alone.
///
/// Who uses it is known by locks on its file, which the system drops with a process however
/// that ends: byte 0 is held exclusively while an object is opened or closed, byte 1 is
/// shared by all processes that have it open. Whoever can take byte 1 exclusively is
/// alone: on opening, the contents are left over from processes that were killed and are made
/// anew; on closing, the file is removed. No lock is waited for without end.
///
/// Locks belong to an open file, which a fork would share: the child gets one of its own,
/// opened and locked before the fork, so that nobody is alone in between. A child that was
/// made without the C library's `fork` neither locks nor removes anything.
class NamedSegment {
public:
	NamedSegment() = default;
	~NamedSegment();
	NamedSegment(const NamedSegment&) = delete;
	NamedSegment& operator=(const NamedSegment&) = delete;

	/// `fill` sets the values of a new object. @return false, with the last error, on failure.
	bool open(const char* name, bool mustExist, const std::function<void(SharedState&)>& fill, bool& existed);

	/// Removes the file when no other process uses it; the memory stays.
	void removeUnlessShared();

	SharedState* state() const { return mState; }
	/// Whether this process may use it: it opened it, or inherited it with locks of its own.
	bool isOwn() const;

	void beforeFork();
	void afterForkInParent();
	void afterForkInChild();

private:
	bool openFile(bool mustExist);
	bool map(bool alone, const std::function<void(SharedState&)>& fill);

	char mPath[80] = {};
	Descriptor mFile;
	Descriptor mForChild; // only during a fork
	uint64_t mInode = 0;
	uint32_t mProcess = 0;
	SharedState* mState = nullptr;
};

} // namespace platform::posix
