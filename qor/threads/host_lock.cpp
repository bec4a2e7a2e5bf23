#include "../platform/machine.h"
#include "../platform/wait.h"
#include "host_lock_internal.h"
#include "light_lock_internal.h"

namespace threads {

namespace {

constexpr uint32_t kGiveUpLookMs = 10;

/// Waits for the mutex of a host. @return as `platform::wait`; a time-out when `giveUp` said so.
uint32_t waitForMutex(platform::WaitHandle mutex, const std::atomic<bool>* giveUp) {
	if (!giveUp) return platform::wait(mutex, platform::kInfinite);
	uint32_t result = platform::kWaitTimeout;
	while (result == platform::kWaitTimeout && !giveUp->load(std::memory_order_acquire))
		result = platform::wait(mutex, kGiveUpLookMs);
	return result;
}

} // namespace

bool HostLock::lock(platform::WaitHandle mutex, const std::atomic<bool>* giveUp) {
	const uint32_t result = waitForMutex(mutex, giveUp);
	if (result != platform::kWaitAcquired && result != platform::kWaitAbandoned) return false;
	const uint32_t self = platform::threadId();
	lockWord(mWord);
	// A mutex left by a thread that ended starts anew, also when its number is in use again.
	if (result == platform::kWaitAbandoned || mHolder.load(std::memory_order_relaxed) != self) mHolderDepth = 0;
	mHolder.store(self, std::memory_order_relaxed);
	++mHolderDepth;
	unlockWord(mWord);
	return true;
}

void HostLock::unlock(platform::WaitHandle mutex) {
	lockWord(mWord);
	if (mHolder.load(std::memory_order_relaxed) == platform::threadId() && --mHolderDepth == 0)
		mHolder.store(0, std::memory_order_relaxed);
	unlockWord(mWord);
	platform::releaseMutex(mutex);
}

bool HostLock::enter(platform::WaitHandle mutex, const std::atomic<bool>* giveUp) {
	lockWord(mWord);
	const uint32_t holder = mHolder.load(std::memory_order_relaxed);
	if (holder == 0 || holder == platform::threadId()) return true;
	unlockWord(mWord);
	const uint32_t result = waitForMutex(mutex, giveUp);
	if (result == platform::kWaitTimeout) return false;
	const bool owns = result != platform::kWaitFailed;
	lockWord(mWord);
	mOperationHasMutex = owns;
	if (owns) mHolder.store(0, std::memory_order_relaxed); // a number still there is of a thread that ended
	return true;
}

void HostLock::leave(platform::WaitHandle mutex) {
	const bool owns = mOperationHasMutex;
	if (owns) mOperationHasMutex = false;
	unlockWord(mWord);
	if (owns) platform::releaseMutex(mutex);
}

} // namespace threads
