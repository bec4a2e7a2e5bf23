#include "worker_thread_internal.h"

#include "../platform/clock.h"
#include "../platform/machine.h"
#include "../platform/thread.h"
#include "../platform/wait.h"

#include <new>

namespace threads {

namespace {
constexpr int kEntryYields = 100;
} // namespace

namespace {

/// Both sides of a start wait for each other for microseconds; that is no place for one more kernel
/// object that can be refused.
void waitUntilSet(const std::atomic<bool>& word) {
	for (int turn = 0; !word.load(std::memory_order_acquire); ++turn)
		turn < kEntryYields ? platform::yieldThread() : platform::sleepMs(1);
}

} // namespace

bool WorkerThread::start(WorkerThread*& place, Body body, void* owner, int priority) {
	auto* thread = new (std::nothrow) WorkerThread(body, owner);
	place = thread;
	if (!thread) return false;
	thread->mHandle = platform::startThread(entry, thread, priority);
	if (!thread->mHandle) {
		place = nullptr;
		delete thread;
		return false;
	}
	thread->mHasHandle.store(true, std::memory_order_release);
	waitUntilSet(thread->mEntered);
	thread->drop();
	return true;
}

unsigned WorkerThread::entry(void* record) {
	auto* thread = static_cast<WorkerThread*>(record);
	thread->mThreadId.store(platform::threadId(), std::memory_order_relaxed);
	waitUntilSet(thread->mHasHandle);
	const unsigned result = thread->mBody(thread->mOwner, *thread);
	thread->entered(); // a body that had nothing to do must not keep its starter waiting
	thread->drop();
	return result;
}

bool WorkerThread::back() {
	uint32_t place = kAway;
	return mPlace.compare_exchange_strong(place, kInside, std::memory_order_acq_rel, std::memory_order_acquire);
}

bool WorkerThread::leave() {
	uint32_t place = kAway;
	return mPlace.compare_exchange_strong(place, kLeft, std::memory_order_acq_rel, std::memory_order_acquire);
}

bool WorkerThread::isCurrent() const { return mThreadId.load(std::memory_order_relaxed) == platform::threadId(); }

bool WorkerThread::waitForEnd(uint32_t timeoutMs) const {
	if (isCurrent()) return false;
	return platform::wait(mHandle, timeoutMs) == platform::kWaitAcquired;
}

void WorkerThread::part(WorkerThread*& thread, uint32_t timeoutMs) {
	if (!thread) return;
	if (!thread->waitForEnd(timeoutMs))
		while (!thread->leave() && !thread->waitForEnd(1)) {
		}
	platform::closeHandle(thread->mHandle);
	thread->drop();
	thread = nullptr;
}

void WorkerThread::drop() {
	if (mReferences.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

} // namespace threads
