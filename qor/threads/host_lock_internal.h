#pragma once

#include "../platform/types.h"

#include <atomic>
#include <cstdint>

namespace threads {

/// The lock of an object that its own operations enter for a few instructions and that a host
/// may hold for long: a light word for the operations, a mutex of the system for the host.
///
/// `lock` and `unlock` have the meaning of the mutex: recursive, owned by a thread, passed on
/// when its owner ends. Operations take the word alone and queue up behind the mutex only while
/// another thread holds it. Order: mutex, then word. The mutex (may be null: hosts then lock
/// nothing) stands beside the lock in its object and is the same in every call.
class HostLock {
public:
	/// @param giveUp may be null; once it is true nobody waits for a holder any more.
	/// @return false without the lock, for a mutex that cannot be had or when `giveUp` said so.
	bool lock(platform::WaitHandle mutex, const std::atomic<bool>* giveUp = nullptr);
	/// Does nothing for a thread that does not hold the lock.
	void unlock(platform::WaitHandle mutex);

	/// Begins an operation. @return false, with nothing to leave, when `giveUp` said so.
	bool enter(platform::WaitHandle mutex, const std::atomic<bool>* giveUp = nullptr);
	void leave(platform::WaitHandle mutex);

private:
	std::atomic<uint32_t> mWord{0};   // the light lock
	std::atomic<uint32_t> mHolder{0}; // the thread between lock and unlock; 0: none
	int mHolderDepth = 0;
	bool mOperationHasMutex = false; // the operation under way came through the mutex
};

} // namespace threads
