#include "timer.h"

#include "../base/host_call_internal.h"
#include "../base/object_watch_internal.h"
#include "../core/class_manager.h"
#include "../core/runtime.h"
#include "../platform/clock.h"
#include "../platform/machine.h"
#include "worker_thread_internal.h"

using threads::WorkerThread;

namespace {

constexpr uint32_t kRunning = 1;
constexpr uint32_t kStopRequested = 2;
constexpr uint32_t kEnded = 3;

constexpr const char* kType = "CmcUtilTimer";

constexpr int kLogBegin = 1;
constexpr int kLogEnd = 2;

void requestStop(std::atomic<uint32_t>& state) {
	uint32_t running = kRunning;
	state.compare_exchange_strong(running, kStopRequested, std::memory_order_acq_rel);
}

[[maybe_unused]] const bool registered = [] {
	CqorMCManager* manager = qorMCGetManager();
	return manager && manager->classAdd(kType, CmcUtilTimer::qorMC__CLASSFUNC, nullptr);
}();

} // namespace

CmcUtilTimer::CmcUtilTimer() = default;

CmcUtilTimer::~CmcUtilTimer() {
	base::ObjectWatch::objectGone(mWatches);
	Destroy();
	WorkerThread::part(mThread, threads::kEndWaitMs);
}

const char* CmcUtilTimer::gettype() const { return kType; }

qorMCClassFunc CmcUtilTimer::getclassfunc() const { return qorMC__CLASSFUNC; }

int CmcUtilTimer::classfunc(unsigned long command, unsigned long a, unsigned long b, void* out, void* p) {
	return qorMC__CLASSFUNC(command, a, b, out, p);
}

int CmcUtilTimer::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CmcUtilTimer>(kType, command, out);
}

int CmcUtilTimer::Create(double periodSeconds, CallBackFunction callback) {
	requestStop(mState);
	WorkerThread::part(mThread, threads::kEndWaitMs);
	mPeriod.store(periodSeconds, std::memory_order_relaxed);
	mCallback.store(callback, std::memory_order_relaxed);
	return WorkerThread::start(mThread, _worker, this, 0) ? kQorSuccess : kQorFailure;
}

void CmcUtilTimer::Destroy() {
	_mclog(kLogBegin, "Destroy()");
	if (mState.load(std::memory_order_acquire) == kRunning) {
		requestStop(mState);
		platform::sleepMs(50);
		while (mState.load(std::memory_order_acquire) == kRunning) platform::sleepMs(10);
	}
	_mclog(kLogEnd, "Destroy()");
}

int CmcUtilTimer::WaitForEnd(unsigned long timeoutMs) {
	if (!mThread) return kQorSuccess;
	return mThread->waitForEnd(static_cast<uint32_t>(timeoutMs)) ? kQorSuccess : kQorFailure;
}

int CmcUtilTimer::Signal() {
	const CallBackFunction callback = mCallback.load(std::memory_order_relaxed);
	const base::ObjectWatch watch(mWatches);
	if (callback) base::callHost("CmcUtilTimer", [&] { callback(this, 0, 0, nullptr, nullptr); });
	if (watch.alive()) base::callHost("CmcUtilTimer OnSignal", [&] { OnSignal(); });
	return kQorSuccess;
}

int CmcUtilTimer::OnSignal() { return 0; }

unsigned CmcUtilTimer::_worker(void* timer, WorkerThread& thread) {
	if (!timer) return 1;
	return static_cast<CmcUtilTimer*>(timer)->worker(thread);
}

unsigned CmcUtilTimer::worker(WorkerThread& thread) {
	mThreadId.store(platform::threadId(), std::memory_order_relaxed);
	mState.store(kRunning, std::memory_order_release);
	mLastSignal.store(appGetTime(), std::memory_order_relaxed);
	thread.entered();
	if (!signalAway(thread)) return 0;
	while (mState.load(std::memory_order_acquire) == kRunning) {
		const double now = appGetTime();
		if (now - mLastSignal.load(std::memory_order_relaxed) > mPeriod.load(std::memory_order_relaxed)) {
			if (!signalAway(thread)) return 0;
			mLastSignal.store(now, std::memory_order_relaxed);
		}
		thread.away();
		platform::sleepMs(1);
		if (!thread.back()) return 0;
	}
	mState.store(kEnded, std::memory_order_release);
	_mclog("[OK] worker ended");
	return 0;
}

/// Signals from the timer's thread; the owner may leave during either call. @return false when it has.
bool CmcUtilTimer::signalAway(WorkerThread& thread) {
	const CallBackFunction callback = mCallback.load(std::memory_order_relaxed);
	if (callback) {
		thread.away();
		base::callHost("CmcUtilTimer", [&] { callback(this, 0, 0, nullptr, nullptr); });
		if (!thread.back()) return false;
	}
	thread.away();
	base::callHost("CmcUtilTimer OnSignal", [&] { OnSignal(); });
	return thread.back();
}
