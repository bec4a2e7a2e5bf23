#pragma once

#include "../base/linear_array.h"
#include "../platform/export.h"
#include "../platform/types.h"

#include <atomic>
#include <cstdint>

namespace threads {
class WorkerThread;
}

/// A periodic clock with two threads.
///
/// ```
/// clock worker (paces)                    wait worker (delivers)
///   counter, sleep, counter ...             waits on the event
///   period over: pulse the event  ------->  tick callback, count + 1
///                on-execution callback
/// ```
///
/// The clock worker sleeps `sleepMs` between looks and aims that much below the wanted period,
/// so that a tick is not late by a whole sleep. Ticks are at least one effective period apart,
/// measured from the look that gave the last one; lateness is not made up. The event is
/// pulsed, so a tick that comes while the tick callback still runs is not delivered. A rate
/// of 1000 / `sleepMs` Hz or more leaves no period and makes the clock worker run through.
///
/// Times are seconds: counter / counter frequency. `Create`, `Destroy`, `Start`, `Stop` and the
/// destructor belong to one thread at a time, which may be that of a callback; everything else
/// may be called from any thread. Callback results are ignored. A callback gets nothing from its
/// host but the clock, so there is no context that could change beside it.
class QOR_API CstxClock {
public:
	/// @param time     seconds since `Start` or the last `Reset`; 0.0 while the clock is not running.
	/// @param count    ticks delivered before this one.
	/// @param reserved 0.
	using CallBackFunction = int (*)(CstxClock* sender, double time, unsigned long count, unsigned long reserved);

	CstxClock();

	/// As `Destroy`. A worker whose callback has not returned 5 s after the stop is left to
	/// end by itself and does not touch this object again.
	~CstxClock();
	CstxClock(const CstxClock&) = delete;
	CstxClock& operator=(const CstxClock&) = delete;

	/// Prepares the clock; no thread runs yet.
	///
	/// The effective period is computed with the sleep granularity in force before this call
	/// (1 ms on a new clock) and follows `sleepMs` from the clock worker's first look on. On a
	/// clock already created everything is replaced, also while it runs; the former event stays
	/// open until `Destroy`.
	///
	/// @param tickCallback     run on the wait worker; may be null.
	/// @param rate             ticks per second, above 0.
	/// @param counterFrequency counter ticks per second; not above 0: the system's own.
	/// @param sleepMs          sleep granularity in milliseconds.
	/// @return 0; 0x10000000, with nothing changed, for a rate that is not above 0.
	int Create(CallBackFunction tickCallback, double rate, double counterFrequency, int sleepMs);

	/// Stops the workers if the clock runs, and closes the event.
	/// @return 0; 0x10000000 for a clock that was not created, or when a worker did not stop in time.
	int Destroy();

	/// Starts the wait worker, then the clock worker, each at its priority and each unless it
	/// runs already. Returns when both have entered, so a stop right behind is never missed.
	/// @return 0; 0x10000000 for a clock that was not created, or (not running then) when the
	///         system refuses a thread.
	int Start();

	/// Stops the wait worker (at most about 3 s), then the clock worker (at most about 10 s).
	/// Within a callback it does not wait for the worker that makes the call.
	/// @return 0; 0x10000000 for a clock that is not running, or when a worker did not stop in
	///         time, as in a call from a callback: it ends when its callback returns.
	int Stop();

	/// Makes now the origin of `GetTime` and the next tick number 0.
	/// @return 0; 0x10000000 for a clock that is not running.
	int Reset();

	/// While paused neither callback runs and no tick is counted. @return always 0.
	int Pause(int on);
	int GetPause();

	/// Seconds of the counter; 0.0 for a clock that was not created.
	double GetRawTime();
	/// Seconds since `Start` or the last `Reset`; 0.0 for a clock that is not running.
	double GetTime();
	/// Seconds that the pacing aims at: 1 / rate less the sleep granularity.
	double GetEffectivePeriod() const { return mEffectivePeriod.load(std::memory_order_relaxed); }

	/// The rate in ticks per second, from the clock worker's next look on; a value that is not
	/// above 0 counts as 1. @return always 0.
	int SetFrequency(double rate);
	/// Priorities take effect at the next `Start`: -15 (idle) to 15 (time critical), 0 normal. @return always 0.
	int SetClockThreadPriority(int priority);
	int SetWaitThreadPriority(int priority);
	/// Called on the clock worker for every tick that is not paused. When it returns, a call of the
	/// former function may still be running or about to begin; so it is with the tick callback
	/// that `Create` replaces on a running clock. @return always 0.
	int SetOnExecutionCallBack(CallBackFunction callback);

private:
	static constexpr uint32_t kCreated = 1;
	static constexpr uint32_t kRunning = 2;
	static constexpr uint32_t kPaused = 4;

	static unsigned clockEntry(void* clock, threads::WorkerThread& thread);
	static unsigned waitEntry(void* clock, threads::WorkerThread& thread);
	int StartClockWorker();
	int StopClockWorker();
	int StartWaitWorker();
	int StopWaitWorker();
	unsigned ClockWorker(threads::WorkerThread& thread);
	unsigned WaitWorker(threads::WorkerThread& thread);
	bool tickDue(double* last);
	bool pace(threads::WorkerThread& thread, double* last);
	bool deliver(threads::WorkerThread& thread);
	bool call(threads::WorkerThread& thread, CallBackFunction callback);
	int stopWorkers();
	void closeEvents();
	double seconds() const;
	bool has(uint32_t flag) const { return (mFlags.load(std::memory_order_acquire) & flag) != 0; }

	std::atomic<uint32_t> mFlags{0};
	std::atomic<double> mEffectivePeriod{0.0};  // seconds
	std::atomic<double> mRate{0.0};             // Hz
	std::atomic<double> mCounterFrequency{0.0}; // counter ticks per second
	std::atomic<double> mStartTime{0.0};        // seconds
	std::atomic<uint32_t> mTickCount{0};
	std::atomic<uint32_t> mReserved{0};
	std::atomic<int32_t> mSleepMs{1};
	std::atomic<uint32_t> mClockState{0}; // 0 none, 1 running, 2 stop requested, 3 ended
	std::atomic<uint32_t> mWaitState{0};
	std::atomic<platform::WaitHandle> mEvent{nullptr}; // auto-reset
	std::atomic<int> mClockPriority{0};
	std::atomic<int> mWaitPriority{0};
	std::atomic<CallBackFunction> mTickCallback{nullptr};
	std::atomic<CallBackFunction> mExecutionCallback{nullptr};
	threads::WorkerThread* mClockThread = nullptr;
	threads::WorkerThread* mWaitThread = nullptr;
	void* mSpare[2] = {};
	CstmLinearArray mFormerEvents{sizeof(platform::WaitHandle)}; // of Create on a created clock
};
