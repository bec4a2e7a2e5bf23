#include "clock.h"

#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../platform/clock.h"
#include "../platform/wait.h"
#include "worker_thread_internal.h"

#include <algorithm>

using threads::WorkerThread;

namespace {

constexpr uint32_t kStateRunning = 1;
constexpr uint32_t kStateStopRequested = 2;
constexpr uint32_t kStateEnded = 3;

constexpr uint32_t kStopLookMs = 30;
constexpr int kClockStopLooks = 333;
constexpr int kWaitStopPulses = 100;

bool requestStop(std::atomic<uint32_t>& state) {
	uint32_t running = kStateRunning;
	return state.compare_exchange_strong(running, kStateStopRequested, std::memory_order_acq_rel);
}

bool stopPending(const std::atomic<uint32_t>& state) {
	return state.load(std::memory_order_acquire) == kStateStopRequested;
}

uint32_t sleepTime(int32_t milliseconds) { return static_cast<uint32_t>(std::max(milliseconds, 0)); }

double effectivePeriod(double rate, int32_t sleepMs) { return 1.0 / rate - sleepMs * 0.001; }

} // namespace

CstxClock::CstxClock() = default;

CstxClock::~CstxClock() {
	Destroy();
	WorkerThread::part(mWaitThread, threads::kEndWaitMs);
	WorkerThread::part(mClockThread, threads::kEndWaitMs);
}

int CstxClock::Create(CallBackFunction tickCallback, double rate, double counterFrequency, int sleepMs) {
	if (!(rate > 0.0)) return kQorFailure;
	const double frequency = counterFrequency > 0.0 ? counterFrequency : platform::counterFrequency();
	mCounterFrequency.store(frequency, std::memory_order_relaxed);
	mRate.store(rate, std::memory_order_relaxed);
	mTickCallback.store(tickCallback, std::memory_order_relaxed);
	// The period starts with the former granularity; hosts read it between Create and Start.
	mEffectivePeriod.store(effectivePeriod(rate, mSleepMs.load(std::memory_order_relaxed)), std::memory_order_relaxed);
	mSleepMs.store(sleepMs, std::memory_order_relaxed);
	const platform::WaitHandle former = mEvent.exchange(platform::createEvent(false, false), std::memory_order_acq_rel);
	if (former) {
		// Not closed: a worker may wait on it. It is set, so that such a worker moves to the new one.
		if (void* place = mFormerEvents.laAdd(1)) *static_cast<platform::WaitHandle*>(place) = former;
		platform::setEvent(former);
	}
	mFlags.fetch_or(kCreated, std::memory_order_release);
	return kQorSuccess;
}

int CstxClock::Destroy() {
	if (!has(kCreated)) return kQorFailure;
	const int result = has(kRunning) ? stopWorkers() : kQorSuccess;
	closeEvents();
	mFlags.fetch_and(~kCreated, std::memory_order_acq_rel);
	return result;
}

void CstxClock::closeEvents() {
	platform::closeHandle(mEvent.exchange(nullptr, std::memory_order_acq_rel));
	for (int i = 0; i < mFormerEvents.laGetCount(); ++i)
		platform::closeHandle(*static_cast<platform::WaitHandle*>(mFormerEvents.laGetAddress(i)));
	mFormerEvents.laDelete(0, mFormerEvents.laGetCount());
}

int CstxClock::Start() {
	if (!has(kCreated)) return kQorFailure;
	if (StartWaitWorker() != kQorSuccess) return kQorFailure;
	// Before the clock worker starts: a first callback may destroy this object.
	const bool wasRunning = has(kRunning);
	if (!wasRunning) mStartTime.store(seconds(), std::memory_order_relaxed);
	mFlags.fetch_or(kRunning, std::memory_order_release);
	if (StartClockWorker() == kQorSuccess) return kQorSuccess;
	if (!wasRunning) mFlags.fetch_and(~kRunning, std::memory_order_acq_rel);
	StopWaitWorker();
	return kQorFailure;
}

int CstxClock::Stop() { return has(kRunning) ? stopWorkers() : kQorFailure; }

/// The wait worker goes first: it needs the pulses of a running clock least.
int CstxClock::stopWorkers() {
	const int wait = StopWaitWorker();
	const int clock = StopClockWorker();
	mFlags.fetch_and(~(kRunning | kPaused), std::memory_order_acq_rel);
	return wait == kQorSuccess ? clock : wait;
}

int CstxClock::StartWaitWorker() {
	if (mWaitState.load(std::memory_order_acquire) == kStateRunning) return kQorSuccess;
	// A worker that a stop gave up on must not find itself running again.
	WorkerThread::part(mWaitThread, threads::kEndWaitMs);
	const int priority = mWaitPriority.load(std::memory_order_relaxed);
	return WorkerThread::start(mWaitThread, waitEntry, this, priority) ? kQorSuccess : kQorFailure;
}

int CstxClock::StartClockWorker() {
	if (mClockState.load(std::memory_order_acquire) == kStateRunning) return kQorSuccess;
	WorkerThread::part(mClockThread, threads::kEndWaitMs);
	const int priority = mClockPriority.load(std::memory_order_relaxed);
	return WorkerThread::start(mClockThread, clockEntry, this, priority) ? kQorSuccess : kQorFailure;
}

int CstxClock::StopWaitWorker() {
	if (!has(kCreated) || !requestStop(mWaitState)) return kQorSuccess;
	platform::pulseEvent(mEvent.load(std::memory_order_acquire));
	const int pulses = mWaitThread && mWaitThread->isCurrent() ? 0 : kWaitStopPulses;
	for (int i = 0; i < pulses && stopPending(mWaitState); ++i) {
		platform::pulseEvent(mEvent.load(std::memory_order_acquire));
		platform::sleepMs(kStopLookMs);
	}
	return stopPending(mWaitState) ? kQorFailure : kQorSuccess;
}

int CstxClock::StopClockWorker() {
	if (!has(kCreated) || !requestStop(mClockState)) return kQorSuccess;
	if (mClockThread && mClockThread->isCurrent()) return kQorFailure; // ends behind its callback
	const uint32_t sleep = sleepTime(mSleepMs.load(std::memory_order_relaxed));
	platform::sleepMs(std::min(sleep, 0x7FFFFFFFu) * 2);
	for (int i = 0; i < kClockStopLooks && stopPending(mClockState); ++i) platform::sleepMs(kStopLookMs);
	return stopPending(mClockState) ? kQorFailure : kQorSuccess;
}

unsigned CstxClock::clockEntry(void* clock, WorkerThread& thread) {
	if (!clock) return 1;
	return static_cast<CstxClock*>(clock)->ClockWorker(thread);
}

unsigned CstxClock::waitEntry(void* clock, WorkerThread& thread) {
	if (!clock) return 1;
	return static_cast<CstxClock*>(clock)->WaitWorker(thread);
}

unsigned CstxClock::ClockWorker(WorkerThread& thread) {
	double last = seconds();
	mStartTime.store(last, std::memory_order_relaxed);
	mClockState.store(kStateRunning, std::memory_order_release);
	thread.entered();
	while (mClockState.load(std::memory_order_acquire) == kStateRunning)
		if (!pace(thread, &last)) return 0;
	mClockState.store(kStateEnded, std::memory_order_release);
	return 0;
}

/// One look of the clock worker. @return false when the owner has left.
bool CstxClock::pace(WorkerThread& thread, double* last) {
	const double now = seconds();
	const double rate = mRate.load(std::memory_order_relaxed);
	const int32_t sleepMs = mSleepMs.load(std::memory_order_relaxed);
	const double period = effectivePeriod(rate > 0.0 ? rate : 1.0, sleepMs);
	mEffectivePeriod.store(period, std::memory_order_relaxed);
	if (now - *last < period) {
		thread.away();
		platform::sleepMs(sleepTime(sleepMs));
		return thread.back();
	}
	platform::pulseEvent(mEvent.load(std::memory_order_acquire));
	if (!has(kPaused) && !call(thread, mExecutionCallback.load(std::memory_order_relaxed))) return false;
	*last = now;
	if (period <= 0.0) platform::yieldThread(); // every look is a tick: leave the others some time
	return true;
}

unsigned CstxClock::WaitWorker(WorkerThread& thread) {
	mTickCount.store(0, std::memory_order_relaxed);
	mReserved.store(0, std::memory_order_relaxed);
	mWaitState.store(kStateRunning, std::memory_order_release);
	thread.entered();
	while (mWaitState.load(std::memory_order_acquire) == kStateRunning)
		if (!deliver(thread)) return 0;
	mWaitState.store(kStateEnded, std::memory_order_release);
	return 0;
}

/// One tick of the wait worker. @return false when the owner has left.
bool CstxClock::deliver(WorkerThread& thread) {
	const platform::WaitHandle event = mEvent.load(std::memory_order_acquire);
	thread.away();
	const uint32_t result = platform::wait(event, platform::kInfinite);
	if (result == platform::kWaitFailed) platform::sleepMs(1); // there is no event: do not take a processor
	if (!thread.back()) return false;
	if (result != platform::kWaitAcquired || event != mEvent.load(std::memory_order_acquire) || has(kPaused))
		return true;
	if (!call(thread, mTickCallback.load(std::memory_order_relaxed))) return false;
	mTickCount.fetch_add(1, std::memory_order_relaxed);
	return true;
}

/// @return false when the owner has left.
bool CstxClock::call(WorkerThread& thread, CallBackFunction callback) {
	if (!callback) return true;
	const double time = GetTime();
	const uint32_t count = mTickCount.load(std::memory_order_relaxed);
	const uint32_t reserved = mReserved.load(std::memory_order_relaxed);
	thread.away();
	base::callHost("CstxClock", [&] { callback(this, time, count, reserved); });
	return thread.back();
}

int CstxClock::Reset() {
	if (!has(kRunning)) return kQorFailure;
	mStartTime.store(GetRawTime(), std::memory_order_relaxed);
	mTickCount.store(0, std::memory_order_relaxed);
	mReserved.store(0, std::memory_order_relaxed);
	return kQorSuccess;
}

int CstxClock::Pause(int on) {
	if (on)
		mFlags.fetch_or(kPaused, std::memory_order_acq_rel);
	else
		mFlags.fetch_and(~kPaused, std::memory_order_acq_rel);
	return kQorSuccess;
}

int CstxClock::GetPause() { return has(kPaused) ? 1 : 0; }

double CstxClock::seconds() const {
	return static_cast<double>(platform::counter()) / mCounterFrequency.load(std::memory_order_relaxed);
}

double CstxClock::GetRawTime() { return has(kCreated) ? seconds() : 0.0; }

double CstxClock::GetTime() { return has(kRunning) ? seconds() - mStartTime.load(std::memory_order_relaxed) : 0.0; }

int CstxClock::SetFrequency(double rate) {
	mRate.store(rate, std::memory_order_relaxed);
	return kQorSuccess;
}

int CstxClock::SetClockThreadPriority(int priority) {
	mClockPriority.store(priority, std::memory_order_relaxed);
	return kQorSuccess;
}

int CstxClock::SetWaitThreadPriority(int priority) {
	mWaitPriority.store(priority, std::memory_order_relaxed);
	return kQorSuccess;
}

int CstxClock::SetOnExecutionCallBack(CallBackFunction callback) {
	mExecutionCallback.store(callback, std::memory_order_relaxed);
	return kQorSuccess;
}
