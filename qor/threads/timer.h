#pragma once

#include "../core/managed_object.h"
#include "../platform/export.h"
#include "../platform/types.h"

#include <atomic>
#include <cstdint>

namespace base {
class ObjectWatch;
}
namespace threads {
class WorkerThread;
}

/// A managed object that signals periodically from a thread of its own.
///
/// One signal comes right at the start, then one whenever more than a period has passed since
/// the last; the thread looks every millisecond. A signal calls the callback, then `OnSignal`.
/// Times are those of the runtime (`appGetTime`), so the runtime has to be started: before
/// `appInit` the period counts in raw counter ticks.
///
/// `Create`, `Destroy`, `WaitForEnd` and the destructor belong to one thread at a time.
class QOR_API CmcUtilTimer : public Cmc {
public:
	using CallBackFunction = int (*)(CmcUtilTimer* sender, unsigned long a, unsigned long b, void* p, void* q);

	CmcUtilTimer();

	/// As `Destroy`, then `WaitForEnd(5000)`. A thread still inside a callback after that is left
	/// to end by itself and does not touch this object again.
	///
	/// A class that overrides `OnSignal` calls `Destroy` and `WaitForEnd` in its own destructor:
	/// here its part of the object is gone already.
	~CmcUtilTimer() override;
	CmcUtilTimer(const CmcUtilTimer&) = delete;
	CmcUtilTimer& operator=(const CmcUtilTimer&) = delete;

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	int classfunc(unsigned long command, unsigned long a, unsigned long b, void* out, void* p) override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

	/// Starts the signals; a running timer is ended first: a callback of it that has not returned
	/// after 5 s, or that makes this call, is left to end by itself and signals no more. Period and
	/// callback never mix with the former ones. Returns when the thread has entered,
	/// so that a `Destroy` right behind is never missed.
	/// @param callback may be null; its result is ignored.
	/// @return 0; 0x10000000, with period and callback stored, when the system refuses a thread.
	int Create(double periodSeconds, CallBackFunction callback);

	/// Asks the thread to end and waits 50 ms. This is a loose shutdown: a callback that is
	/// running goes on, and may even be the caller. Whoever needs the end calls `WaitForEnd`.
	void Destroy();

	/// Waits until the thread has ended.
	/// @return 0, also without a thread; 0x10000000 on time-out or from the timer's own thread.
	int WaitForEnd(unsigned long timeoutMs);

	/// Signals from the calling thread: callback, then `OnSignal`, unless the callback destroyed the
	/// timer. @return 0.
	int Signal();

	/// Called after the callback, on the timer's thread or the caller of `Signal`. The result is ignored.
	virtual int OnSignal();

private:
	static unsigned _worker(void* timer, threads::WorkerThread& thread);
	unsigned worker(threads::WorkerThread& thread);
	bool signalAway(threads::WorkerThread& thread);

	std::atomic<double> mPeriod{1.0};     // seconds
	std::atomic<double> mLastSignal{0.0}; // seconds
	threads::WorkerThread* mThread = nullptr;
	std::atomic<uint32_t> mThreadId{0};
	std::atomic<uint32_t> mState{0}; // 0 idle, 1 running, 2 stop requested, 3 ended
	std::atomic<CallBackFunction> mCallback{nullptr};
	base::ObjectWatch* mWatches = nullptr; // signals under way
	void* mSpare[2] = {};
};
