#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../core/runtime.h"
#include "../platform/format.h"
#include "../platform/memory.h"
#include "../platform/thread.h"
#include "../platform/wait.h"
#include "queue_instance.h"
#include "queue_signal_internal.h"

namespace {

constexpr size_t kTraceSize = 1024;
constexpr bool kTraceWorkers = false; // switches the trace on

// Where a worker's thread is. Outside of callbacks it moves on soon, so that a closing
// instance can wait for it; inside it can be left to itself.
constexpr uint32_t kOutside = 0;
constexpr uint32_t kInCallback = 1;
constexpr uint32_t kAbandoned = 2;

} // namespace

Cqor_MQWorker::Cqor_MQWorker() : mTrace(static_cast<char*>(platform::allocate(kTraceSize))) {}

Cqor_MQWorker::~Cqor_MQWorker() { platform::release(mTrace); }

int Cqor_MQWorker::Create(Cqor_MQInstance* instance, int index, int priority, int affinityMask) {
	mInstance = instance;
	mIndex = index;
	mPriority = priority;
	mAffinityMask = static_cast<uint32_t>(affinityMask);
	mFlags.fetch_or(kCreated, std::memory_order_release);
	return kQorSuccess;
}

void Cqor_MQWorker::Destroy() { mFlags.fetch_and(~kCreated, std::memory_order_acq_rel); }

int Cqor_MQWorker::Start() {
	// A worker that its instance does not know could not be waited for.
	if (!mInstance || mInstance->GetWorker(mIndex) != this) return kQorFailure;
	if (mThread) return kQorSuccess;
	trace("START WORKER(%p)");
	threads::QueueSignal* signal = mInstance->mSignal;
	signal->references.fetch_add(1, std::memory_order_relaxed);
	mThread = platform::startThread(threadEntry, this, mPriority, mAffinityMask);
	if (!mThread) {
		signal->drop();
		return kQorFailure;
	}
	trace("DONE WORKER(%p)");
	return kQorSuccess;
}

int Cqor_MQWorker::Stop() { return kQorSuccess; }

int Cqor_MQWorker::IsCreated() const { return (mFlags.load(std::memory_order_acquire) & kCreated) != 0; }

int Cqor_MQWorker::IsRunning() const { return (mFlags.load(std::memory_order_acquire) & kRunning) != 0; }

int Cqor_MQWorker::IsBusy() const { return GetCurrentItem() != nullptr; }

int Cqor_MQWorker::WorkerCallBack(eqor_QUEUE_ITEM* item, int code) {
	const Cqor_MQCallBack callback = mInstance ? mInstance->mCallback : nullptr;
	if (!callback) return kQorFailure;
	return base::callHost("Cqor_MQInstance", [&] { return callback(this, item, code); });
}

unsigned Cqor_MQWorker::threadEntry(void* argument) {
	auto* worker = static_cast<Cqor_MQWorker*>(argument);
	threads::QueueSignal* signal = worker->mInstance->mSignal;
	worker->WorkerThread();
	if (worker->mPlace.load(std::memory_order_acquire) == kAbandoned) delete worker;
	signal->drop();
	return 0;
}

unsigned int Cqor_MQWorker::WorkerThread() {
	if (mFlags.fetch_or(kRunning, std::memory_order_acq_rel) & kRunning) return 0; // a second thread never serves
	logmsg("Thread -> BEGIN");
	if (!call(nullptr, Cqor_MQConstants::kCallBackStarted) || !serve() ||
	    !call(nullptr, Cqor_MQConstants::kCallBackEnding))
		return 0;
	logmsg("Thread -> END");
	mFlags.fetch_and(~kRunning, std::memory_order_acq_rel);
	return 0;
}

/// Works until the instance is closing. @return false when the thread was abandoned.
bool Cqor_MQWorker::serve() {
	eqor_QUEUE_ITEM* item = nullptr;
	double now = appGetTime();
	for (bool waited; (item = mInstance->next(item, &waited)) != nullptr;) {
		// Reading the clock costs as much as the queue does for an item: once is enough in a row.
		if (waited) now = appGetTime();
		mStartTime.store(now, std::memory_order_relaxed);
		mCurrent.store(item, std::memory_order_release);
		if (!call(item, Cqor_MQConstants::kCallBackItem)) return false;
		now = appGetTime();
		mEndTime.store(now, std::memory_order_relaxed);
		mCurrent.store(nullptr, std::memory_order_release);
	}
	logmsg("worker -> semaphore abandoned");
	return true;
}

/// @return false when the instance has abandoned the thread meanwhile; it must not be touched then.
bool Cqor_MQWorker::call(eqor_QUEUE_ITEM* item, int code) {
	mPlace.store(kInCallback, std::memory_order_release);
	WorkerCallBack(item, code);
	uint32_t place = kInCallback;
	return mPlace.compare_exchange_strong(place, kOutside, std::memory_order_acq_rel, std::memory_order_acquire);
}

/// The instance's last use of the worker's thread, which has been told to end.
/// @return true when it has ended (or there was none); false when it was left inside a
///         callback: the worker is the thread's then, and may be gone already.
bool Cqor_MQWorker::endThread() {
	Destroy();
	const platform::WaitHandle thread = mThread;
	mThread = nullptr;
	if (!thread) return true;
	bool ended = platform::wait(thread, 0) == platform::kWaitAcquired;
	for (uint32_t place = kInCallback; !ended; place = kInCallback) {
		if (mPlace.compare_exchange_strong(place, kAbandoned, std::memory_order_acq_rel)) break;
		ended = platform::wait(thread, 1) == platform::kWaitAcquired;
	}
	platform::closeHandle(thread);
	return ended;
}

/// Passes a formatted text with the worker's address to the trace hook.
void Cqor_MQWorker::trace(const char* format) {
	if (!mTrace) return;
	platform::formatText(mTrace, kTraceSize, format, static_cast<void*>(this));
	logmsg(mTrace);
}

void Cqor_MQWorker::logmsg(const char* text) {
	if constexpr (kTraceWorkers) appmsg_Raw(text);
	static_cast<void>(text);
}
