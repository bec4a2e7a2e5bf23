#pragma once

#include "semaphore.h"

#include <atomic>
#include <cstdint>

namespace threads {
class WorkerThread;
}

struct CstxSemaphoreConstants {
	static constexpr unsigned long kCallBackStarted = 1;
	static constexpr unsigned long kCallBackEnding = 2;
	static constexpr unsigned long kCallBackSignal = 3;
	static constexpr unsigned long kCallBackNoSignal = 4;

	// States of the worker.
	static constexpr unsigned long kNoWorker = 0;
	static constexpr unsigned long kRunning = 1;
	static constexpr unsigned long kStopRequested = 2;
	static constexpr unsigned long kEnded = 3; ///< by itself; until the next start or stop
};

/// A semaphore with a thread that answers every release by one call.
///
/// The owner calls `Create` of the semaphore, then `StartWorker`; producers on any thread
/// wake the worker with `Release(1, nullptr)`. All callbacks run on the worker:
///
/// | code | when | a | b |
/// |---|---|---|---|
/// | `kCallBackStarted` 1 | the worker has started, before its first wait | 0 | 0 |
/// | `kCallBackSignal` 3 | the semaphore was acquired while the worker is to run | signals handled before this one | 0
/// | | `kCallBackNoSignal` 4 | a wait ended without the semaphore | 1 time-out, 0 failure | 0 | | `kCallBackEnding` 2 |
/// the worker is about to end | 0 | 0 |
///
/// A non-zero answer to code 4 ends the worker; all other answers are ignored. A wait that
/// fails (the semaphore was closed) is reported and tried again at once, so the callback
/// decides whether to go on.
///
/// `StartWorker`, `StopWorker` and the destructor belong to one owner thread, or are serialised by it.
class QOR_API CstxSemaphore : public CstSemaphore, public CstxSemaphoreConstants {
public:
	using CallBackFunction = int (*)(CstxSemaphore* sender, unsigned long code, unsigned long a, unsigned long b);

	CstxSemaphore();

	/// Stops the worker as `StopWorker` does and closes the semaphore.
	///
	/// Waits up to 5 s more for the thread itself, whose last call (code 2) may outlast the
	/// stop. A thread still inside a callback after that is left to end by itself: it does not
	/// touch this object again when the callback returns.
	~CstxSemaphore();

	/// Starts the worker; a running one is stopped first. Returns when the new thread has
	/// entered, so that a stop right behind a start is never missed.
	///
	/// @param waitTimeoutMs limit of each wait of the worker in milliseconds; -1: none.
	/// @param ignored       accepted for older hosts.
	/// @return 0; 0x10000000 when the former worker does not stop, or the system refuses a
	///         thread (no worker then, state 0).
	int StartWorker(CallBackFunction callback, int waitTimeoutMs, int ignored);

	/// Asks the worker to end and waits for it, at most about 50 s, looking every 50 ms and
	/// logging each look. Signals not yet handled are dropped; each look adds one release to
	/// the semaphore. The worker's code 2 call may still be running on return. Within a callback
	/// it does not wait: the worker that makes the call cannot end meanwhile.
	/// @return 0, also without a worker; 0x10000000 when the worker did not end in time: it is
	///         still asked to, and ends when its callback returns.
	int StopWorker();

	/// `kNoWorker` to `kEnded`.
	unsigned long GetWorkerState() const { return mState.load(std::memory_order_acquire); }

private:
	static unsigned workerEntry(void* sender, threads::WorkerThread& thread);
	unsigned Worker(threads::WorkerThread& thread);
	bool handleWait(threads::WorkerThread& thread, uint32_t result, bool* goOn);
	bool CallBack(threads::WorkerThread& thread, unsigned long code, unsigned long a, int* answer);

	std::atomic<uint32_t> mState{0};
	std::atomic<CallBackFunction> mCallback{nullptr};
	std::atomic<uint32_t> mSignalCount{0};
	std::atomic<uint32_t> mWaitTimeoutMs{0};
	void* mSpare[2] = {};
	threads::WorkerThread* mThread = nullptr; // the latest worker; kept until the next start or the end
};
