#include "semaphore_worker.h"

#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../core/runtime.h"
#include "../platform/clock.h"
#include "../platform/wait.h"
#include "worker_thread_internal.h"

using threads::WorkerThread;

namespace {

constexpr int kStopLooks = 1000;
constexpr uint32_t kStopLookMs = 50;

} // namespace

CstxSemaphore::CstxSemaphore() = default;

CstxSemaphore::~CstxSemaphore() {
	StopWorker();
	WorkerThread::part(mThread, threads::kEndWaitMs);
}

int CstxSemaphore::StartWorker(CallBackFunction callback, int waitTimeoutMs, int /*ignored*/) {
	if (StopWorker() != kQorSuccess) return kQorFailure;
	// The former worker may still be in its last call; it must be gone, or be left, before
	// another one writes the state.
	WorkerThread::part(mThread, threads::kEndWaitMs);
	mState.store(kNoWorker, std::memory_order_release);
	mCallback.store(callback, std::memory_order_relaxed);
	mWaitTimeoutMs.store(static_cast<uint32_t>(waitTimeoutMs), std::memory_order_relaxed);
	return WorkerThread::start(mThread, workerEntry, this, 0) ? kQorSuccess : kQorFailure;
}

int CstxSemaphore::StopWorker() {
	int budget = mThread && mThread->isCurrent() ? 0 : kStopLooks;
	uint32_t running =
	    static_cast<uint32_t>(kRunning); // exchanged, so that a worker ending by itself is not asked again
	if (mHandle && mState.compare_exchange_strong(running, kStopRequested, std::memory_order_acq_rel))
		Release(1, nullptr);
	while (mState.load(std::memory_order_acquire) == kStopRequested && budget > 0) {
		platform::sleepMs(kStopLookMs);
		--budget;
		appmsg("     WAIT> CstxSemaphore::StopWorker() st=%d tm=%d",
		    static_cast<int>(mState.load(std::memory_order_relaxed)), budget);
		Release(1, nullptr);
	}
	if (mState.load(std::memory_order_acquire) == kStopRequested) return kQorFailure;
	mState.store(kNoWorker, std::memory_order_release);
	return kQorSuccess;
}

unsigned CstxSemaphore::workerEntry(void* sender, WorkerThread& thread) {
	if (!sender) return 1;
	return static_cast<CstxSemaphore*>(sender)->Worker(thread);
}

unsigned CstxSemaphore::Worker(WorkerThread& thread) {
	mState.store(kRunning, std::memory_order_release);
	mSignalCount.store(0, std::memory_order_relaxed);
	thread.entered();
	if (!CallBack(thread, kCallBackStarted, 0, nullptr)) return 0;
	bool goOn = true;
	while (goOn && mState.load(std::memory_order_acquire) == kRunning) {
		const platform::WaitHandle semaphore = mHandle;
		const uint32_t timeoutMs = mWaitTimeoutMs.load(std::memory_order_relaxed);
		thread.away();
		const uint32_t result = platform::wait(semaphore, timeoutMs);
		if (!thread.back() || !handleWait(thread, result, &goOn)) return 0;
	}
	mState.store(kEnded, std::memory_order_release);
	CallBack(thread, kCallBackEnding, 0, nullptr);
	return 0;
}

/// Answers one wait. @return false when the owner has left.
bool CstxSemaphore::handleWait(WorkerThread& thread, uint32_t result, bool* goOn) {
	if (result == platform::kWaitAcquired) {
		if (mState.load(std::memory_order_acquire) != kRunning) return true;
		if (!CallBack(thread, kCallBackSignal, mSignalCount.load(std::memory_order_relaxed), nullptr)) return false;
		mSignalCount.fetch_add(1, std::memory_order_relaxed);
		return true;
	}
	int answer = 0;
	if (!CallBack(thread, kCallBackNoSignal, result == platform::kWaitTimeout ? 1 : 0, &answer)) return false;
	*goOn = answer == 0;
	// Waits on a closed semaphore fail at once: do not take a processor for them.
	if (result != platform::kWaitTimeout) platform::yieldThread();
	return true;
}

/// Calls back from the worker; without a callback the answer is 0. @return false when the owner has left.
bool CstxSemaphore::CallBack(WorkerThread& thread, unsigned long code, unsigned long a, int* answer) {
	const CallBackFunction callback = mCallback.load(std::memory_order_relaxed);
	thread.away();
	const int result = callback ? base::callHost("CstxSemaphore", [&] { return callback(this, code, a, 0); }) : 0;
	if (!thread.back()) return false;
	if (answer) *answer = result;
	return true;
}
