#include "queue_instance.h"

#include "../base/status.h"
#include "../platform/clock.h"
#include "../platform/wait.h"
#include "message_queue_internal.h"
#include "queue_signal_internal.h"

#include <algorithm>
#include <cstring>
#include <new>

using threads::QueueMachinery;

namespace {

constexpr uint32_t kMaximumSignals = 1000;
constexpr uint32_t kEndWaitMs = 5000;

/// A worker without work looks on for a few microseconds before it sleeps: more often after
/// looks that paid, less after looks in vain (the producer may need this very processor). A
/// look is seldom, so that several messages come together and the producers are not held up.
/// A worker that slept long does not look at all: schedulers wake a thread that yielded
/// before it slept later than one that went to sleep at once.
constexpr int kMostLooks = 8;
constexpr double kShortSleep = 30e-6; // seconds

double seconds() { return static_cast<double>(platform::counter()) / platform::counterFrequency(); }

void copyData(uint8_t* block, const void* data, int length) {
	if (data && length > 0) std::memcpy(block, data, std::min<size_t>(length, sizeof(eqor_QUEUE_ITEM::mData1)));
}

} // namespace

Cqor_MQInstance::Cqor_MQInstance() = default;

Cqor_MQInstance::~Cqor_MQInstance() { Destroy(); }

int Cqor_MQInstance::Create(
    Cqor_MQCallBack callback, int workerCount, int queueSize, int priority, int affinityMask, int autoStart) {
	Destroy();
	if (workerCount < 1 || workerCount > kMaximumWorkers) return kQorFailure;
	mPriority = priority;
	mAffinityMask = static_cast<uint32_t>(affinityMask);
	mCallback = callback;
	const bool ready = createSignal() && mQueue.Create(queueSize < 1 ? workerCount : queueSize) == kQorSuccess &&
	                   createWorkers(workerCount) && (!autoStart || StartWorkers() == kQorSuccess);
	if (ready) return kQorSuccess;
	Destroy();
	return kQorFailure;
}

bool Cqor_MQInstance::createSignal() {
	mSemaphore = platform::createSemaphore(0, kMaximumSignals);
	if (!mSemaphore) return false;
	mSignal = new (std::nothrow) threads::QueueSignal(mSemaphore);
	if (mSignal) return true;
	platform::closeHandle(mSemaphore);
	mSemaphore = nullptr;
	return false;
}

bool Cqor_MQInstance::createWorkers(int count) {
	mAlone = count == 1;
	for (int i = 0; i < count; ++i) {
		auto* worker = new (std::nothrow) Cqor_MQWorker;
		if (!worker) return false;
		worker->Create(this, i, mPriority, static_cast<int>(mAffinityMask));
		if (mWorkers.Add(worker)) continue;
		delete worker;
		return false;
	}
	return true;
}

Cqor_MQInstance* Cqor_MQInstance::wCreate(void* owner, Cqor_MQCallBack callback, int workerCount, int queueSize,
    int priority, int affinityMask, int autoStart) {
	auto* instance = new (std::nothrow) Cqor_MQInstance;
	if (!instance) return nullptr;
	instance->mOwner = owner;
	instance->Create(callback, workerCount, queueSize, priority, affinityMask, autoStart);
	return instance;
}

void Cqor_MQInstance::Destroy() {
	DestroyWorkers();
	eqor_QUEUE_ITEM* items = mQueue.detachItems();
	if (mSignal && mSignal->abandoned)
		mSignal->keptItems = items;
	else
		platform::release(items);
	if (mSignal) mSignal->drop();
	mSignal = nullptr;
	mSemaphore = nullptr;
}

int Cqor_MQInstance::StartWorkers() {
	int result = kQorSuccess;
	for (Cqor_MQWorker* worker : mWorkers)
		if (worker->Start() != kQorSuccess) result = kQorFailure;
	return result;
}

void Cqor_MQInstance::StopWorkers() {}

int Cqor_MQInstance::DestroyWorkers() {
	if (mWorkers.Count() == 0 || !mSignal) return kQorSuccess; // no workers are made without a signal
	closeSignal();
	waitForThreads();
	for (Cqor_MQWorker* worker : mWorkers) {
		if (worker->endThread())
			delete worker;
		else
			mSignal->abandoned = true; // its thread deletes it
	}
	mWorkers.Delete(0, mWorkers.Count());
	return kQorSuccess;
}

/// Makes every wait of the workers fail, and wakes the sleepers to see it.
void Cqor_MQInstance::closeSignal() {
	mSignal->closed.store(true, std::memory_order_release);
	for (int i = 0; i < mWorkers.Count(); ++i) platform::releaseSemaphore(mSemaphore, 1, nullptr);
}

/// Waits for all threads together, in as many calls as the system needs, within one limit.
void Cqor_MQInstance::waitForThreads() {
	const double end = seconds() + kEndWaitMs * 0.001;
	platform::WaitHandle handles[platform::kMaximumWaitObjects];
	int count = 0;
	const auto wait = [&] {
		const double left = std::max(end - seconds(), 0.0) * 1000.0;
		if (count > 0) platform::waitAll(handles, count, static_cast<uint32_t>(left));
		count = 0;
	};
	for (const Cqor_MQWorker* worker : mWorkers) {
		if (worker->mThread) handles[count++] = worker->mThread;
		if (count == platform::kMaximumWaitObjects) wait();
	}
	wait();
}

/// Fills the five words of a message. They are too few to leave the section for: entering it a
/// second time costs more. Data blocks are copied outside.
eqor_QUEUE_ITEM* Cqor_MQInstance::claimLocked(
    unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2) {
	eqor_QUEUE_ITEM* item = mQueue.claimLocked();
	if (!item) return nullptr;
	item->mWord1 = static_cast<uint32_t>(w1);
	item->mWord2 = static_cast<uint32_t>(w2);
	item->mWord3 = static_cast<uint32_t>(w3);
	item->mPointer1 = p1;
	item->mPointer2 = p2;
	return item;
}

eqor_QUEUE_ITEM* Cqor_MQInstance::Add(unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2) {
	platform::WaitHandle toWake = nullptr;
	eqor_QUEUE_ITEM* item = addAsleep(w1, w2, w3, p1, p2, &toWake);
	if (toWake) platform::releaseSemaphore(toWake, 1, nullptr);
	return item;
}

/// Adds, and leaves the waking to the caller.
/// @param toWake receives the semaphore that needs a permit; untouched when no worker has to be woken.
eqor_QUEUE_ITEM* Cqor_MQInstance::addAsleep(
    unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2, platform::WaitHandle* toWake) {
	// Producers that try again and again must not keep the workers from freeing items.
	if (mQueue.isFull()) return nullptr;
	bool wake = false;
	Cqor_MsgQueue::Section section(mQueue);
	eqor_QUEUE_ITEM* item = claimLocked(w1, w2, w3, p1, p2);
	if (item && !publishLocked(item, &wake)) item = nullptr;
	if (wake) *toWake = mSemaphore;
	return item;
}

eqor_QUEUE_ITEM* Cqor_MQInstance::AddEx(unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2,
    const void* data1, int length1, const void* data2, int length2) {
	if (mQueue.isFull()) return nullptr;
	eqor_QUEUE_ITEM* item;
	{
		Cqor_MsgQueue::Section section(mQueue);
		item = claimLocked(w1, w2, w3, p1, p2);
	}
	if (!item) return nullptr;
	copyData(item->mData1, data1, length1);
	copyData(item->mData2, data2, length2);
	bool wake = false;
	{
		Cqor_MsgQueue::Section section(mQueue);
		if (!publishLocked(item, &wake)) item = nullptr;
	}
	if (wake) platform::releaseSemaphore(mSemaphore, 1, nullptr);
	return item;
}

/// Appends a filled item and counts its signal. @return false, with the item free again, when the list is full.
bool Cqor_MQInstance::publishLocked(eqor_QUEUE_ITEM* item, bool* wake) {
	if (!mQueue.appendLocked(item)) {
		mQueue.freeLocked(item);
		return false;
	}
	signalLocked();
	*wake = chooseSleeperLocked();
	return true;
}

/// Signals one more item. Beyond the maximum it waits for the signal of a later one, unless the
/// instance is to be emptied.
void Cqor_MQInstance::signalLocked() {
	auto& m = QueueMachinery::of(mQueue);
	const uint32_t signals = m.signals.load(std::memory_order_relaxed);
	if (mSignal->draining) {
		m.signals.store(m.appended.load(std::memory_order_relaxed), std::memory_order_release);
		return;
	}
	if (signals - m.seenTaken >= kMaximumSignals) m.seenTaken = m.taken.load(std::memory_order_acquire);
	if (signals - m.seenTaken < kMaximumSignals) m.signals.store(signals + 1, std::memory_order_release);
}

/// Signals all that is pending, and whatever comes until the end.
void Cqor_MQInstance::drain() {
	if (!mSignal) return;
	bool wake;
	{
		Cqor_MsgQueue::Section section(mQueue);
		mSignal->draining = true;
		signalLocked();
		wake = chooseSleeperLocked();
	}
	if (wake) platform::releaseSemaphore(mSemaphore, 1, nullptr);
}

/// Whether a worker would find something to take. With one worker exact on its own thread or under
/// the lock only.
bool Cqor_MQInstance::hasSignals() const {
	const auto& m = QueueMachinery::of(mQueue);
	return m.signals.load(std::memory_order_relaxed) != m.taken.load(std::memory_order_relaxed);
}

/// Keeps this true: while there are signals and sleepers, some worker is looking.
/// @return whether the caller has to wake a sleeper, which counts as looking already.
bool Cqor_MQInstance::chooseSleeperLocked() {
	auto& m = QueueMachinery::of(mQueue);
	if (m.sleepers == 0 || m.lookers > 0 || !hasSignals()) return false;
	--m.sleepers;
	++m.lookers;
	return true;
}

/// Takes the next item for a worker that holds the lock.
eqor_QUEUE_ITEM* Cqor_MQInstance::takeSignalledLocked() {
	if (isAlone()) return mQueue.takeAlone();
	return hasSignals() ? mQueue.takeLocked() : nullptr;
}

/// Frees the item that a worker is done with (may be null) and takes the next.
/// @param waited receives whether there was nothing to take at first.
/// @return null when the instance is closing; the item's signal stays then.
eqor_QUEUE_ITEM* Cqor_MQInstance::next(eqor_QUEUE_ITEM* done, bool* waited) {
	auto& m = QueueMachinery::of(mQueue);
	bool looking = false;
	*waited = false;
	if (isAlone()) {
		if (done) mQueue.finishAlone(done);
		done = nullptr;
		if (eqor_QUEUE_ITEM* item = isClosed() ? nullptr : mQueue.takeAlone()) return item;
	}
	{
		Cqor_MsgQueue::Section section(mQueue);
		if (done) mQueue.freeLocked(done);
		if (isAlone()) mQueue.sweepLocked();
		if (isClosed()) return nullptr;
		if (eqor_QUEUE_ITEM* item = takeSignalledLocked()) return item;
		looking = m.lookers == 0; // one is enough
		++(looking ? m.lookers : m.sleepers);
	}
	*waited = true;
	for (;;) {
		if (looking) {
			lookForSignal();
		} else {
			const double asleep = seconds();
			if (!sleepForSignal()) return nullptr;
			m.looks = seconds() - asleep < kShortSleep ? std::max(m.looks.load(), 1) : 0;
		}
		eqor_QUEUE_ITEM* item;
		bool wake = false;
		{
			Cqor_MsgQueue::Section section(mQueue);
			if (isClosed()) return nullptr;
			item = takeSignalledLocked();
			if (item) {
				--m.lookers;
				wake = chooseSleeperLocked();
			} else if (looking) {
				--m.lookers;
				++m.sleepers;
			}
		}
		if (wake) platform::releaseSemaphore(mSemaphore, 1, nullptr);
		if (item) return item;
		looking = !looking; // a woken worker that others were faster than looks on
	}
}

bool Cqor_MQInstance::isClosed() const { return mSignal->closed.load(std::memory_order_acquire); }

void Cqor_MQInstance::lookForSignal() {
	auto& m = QueueMachinery::of(mQueue);
	const int looks = m.looks;
	for (int i = 0; i < looks && !isClosed(); ++i) {
		platform::yieldThread();
		if (!hasSignals()) continue;
		m.looks = std::min(looks * 2, kMostLooks);
		return;
	}
	m.looks = looks / 2;
}

/// Without a limit: closing gives every worker a permit, and a timed wait would arm and disarm
/// a timer for each wake-up.
/// @return false when the instance is closing.
bool Cqor_MQInstance::sleepForSignal() const {
	return platform::wait(mSemaphore, platform::kInfinite) == platform::kWaitAcquired && !isClosed();
}

int Cqor_MQInstance::GetPendingCount() const { return mQueue.GetPendingCount(); }

int Cqor_MQInstance::GetWorkerCount() { return mWorkers.Count(); }

Cqor_MQWorker* Cqor_MQInstance::GetWorker(int index) {
	Cqor_MQWorker** worker = mWorkers.Get(index);
	return worker ? *worker : nullptr;
}

void Cqor_MQInstance::readQueueUsage(int* pending, int* capacity) {
	Cqor_MsgQueue::Section section(mQueue);
	*pending = mQueue.GetPendingCount();
	*capacity = mQueue.GetCapacity();
}

void Cqor_MQInstance::GetWorkerUsage(int* out) {
	if (!out) return;
	out[0] = 0;
	for (const Cqor_MQWorker* worker : mWorkers) out[0] += worker->IsBusy();
	out[1] = mWorkers.Count();
}

int Cqor_MQInstance::WaitForIdle(unsigned long timeoutMs) {
	const double start = seconds();
	const double limit = static_cast<double>(timeoutMs) / 1000.0;
	for (;;) {
		const bool idle = mQueue.isIdle();
		if (!idle) platform::sleepMs(0);
		// Before the idle exit: idle too late is a time-out.
		if (timeoutMs != kNoLimit && seconds() - start > limit) return kQorFailure;
		if (idle) return kQorSuccess;
	}
}
