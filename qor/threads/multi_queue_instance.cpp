#include "multi_queue_instance.h"

#include "../base/host_call_internal.h"
#include "../core/class_manager.h"
#include "../platform/clock.h"
#include "../platform/wait.h"
#include "../platform/window.h"
#include "host_lock_internal.h"

#include <atomic>
#include <new>

namespace {

constexpr const char* kType = "Cqor_MultiMQInstance";
constexpr int kLogError = 3;

[[maybe_unused]] const bool registered = [] {
	CqorMCManager* manager = qorMCGetManager();
	return manager && manager->classAdd(kType, Cqor_MultiMQInstance::qorMC__CLASSFUNC, "Cmc");
}();

} // namespace

struct Cqor_MultiMQInstance::Machinery {
	threads::HostLock lock;
	std::atomic<bool> closing{false}; // set by the holder of the lock in Destroy
	std::atomic<int> wakers{0};       // adds that have left the lock and are about to wake a worker
};

Cqor_MultiMQInstance::Machinery& Cqor_MultiMQInstance::machinery() const {
	static_assert(sizeof(Machinery) <= sizeof mMachinery);
	return *std::launder(reinterpret_cast<Machinery*>(const_cast<unsigned char*>(mMachinery)));
}

/// A scope inside the object's lock, for operations that a closing object does not keep waiting.
class Cqor_MultiMQInstance::Section {
public:
	explicit Section(Cqor_MultiMQInstance& multi)
	    : mMulti(multi), mEntered(multi.machinery().lock.enter(multi.mMutex, &multi.machinery().closing)) {}
	~Section() { leave(); }
	Section(const Section&) = delete;
	Section& operator=(const Section&) = delete;

	/// False: the object is closing.
	explicit operator bool() const { return mEntered && !mMulti.machinery().closing.load(std::memory_order_relaxed); }
	void leave() {
		if (mEntered) mMulti.machinery().lock.leave(mMulti.mMutex);
		mEntered = false;
	}

private:
	Cqor_MultiMQInstance& mMulti;
	bool mEntered;
};

/// The callbacks in progress on this thread.
class Cqor_MultiMQInstance::InCallback {
public:
	explicit InCallback(const Cqor_MultiMQInstance* multi) : mMulti(multi), mOuter(innermost) { innermost = this; }
	~InCallback() { innermost = mOuter; }
	InCallback(const InCallback&) = delete;
	InCallback& operator=(const InCallback&) = delete;

	static bool of(const Cqor_MultiMQInstance* multi) {
		const InCallback* running = innermost;
		while (running && running->mMulti != multi) running = running->mOuter;
		return running != nullptr;
	}

private:
	const Cqor_MultiMQInstance* mMulti;
	const InCallback* mOuter;
	static thread_local const InCallback* innermost;
};

thread_local const Cqor_MultiMQInstance::InCallback* Cqor_MultiMQInstance::InCallback::innermost = nullptr;

Cqor_MultiMQInstance::Cqor_MultiMQInstance() : mMutex(platform::createMutex(false)) { new (mMachinery) Machinery; }

Cqor_MultiMQInstance::~Cqor_MultiMQInstance() {
	Lock();
	endInstances(!InCallback::of(this));
	Unlock();
	platform::closeHandle(mMutex);
	machinery().~Machinery();
}

const char* Cqor_MultiMQInstance::gettype() const { return kType; }

qorMCClassFunc Cqor_MultiMQInstance::getclassfunc() const { return qorMC__CLASSFUNC; }

int Cqor_MultiMQInstance::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<Cqor_MultiMQInstance>(kType, command, out);
}

int Cqor_MultiMQInstance::Create(Cqor_MultiMQCallBack callback, int instanceCount, int workersPerInstance,
    int queueSize, int affinityMask, int priority) {
	if (isRefusedInCallback("Create()")) return kQorFailure;
	Lock();
	endInstances(true);
	mCallback = callback;
	int result = mMutex && instanceCount <= Cqor_MQConstants::kMaximumInstances ? kQorSuccess : kQorFailure;
	for (int i = 0; i < instanceCount && result == kQorSuccess; ++i)
		if (!addInstance(workersPerInstance, queueSize, affinityMask, priority)) result = kQorFailure;
	if (result != kQorSuccess) endInstances(true);
	Unlock();
	return result;
}

bool Cqor_MultiMQInstance::addInstance(int workers, int queueSize, int affinityMask, int priority) {
	auto* instance = new (std::nothrow) Cqor_MQInstance;
	if (!instance) return false;
	if (!mInstances.Add(instance)) {
		delete instance;
		return false;
	}
	instance->mMultiOwner = this;
	// A failed one keeps its place. Its workers that did start are ended as by `Destroy`: their
	// callbacks must not wait for the lock meanwhile.
	if (instance->Create(_MQInst_CB, workers, queueSize, priority, affinityMask, 0) != kQorSuccess) return true;
	if (instance->StartWorkers() == kQorSuccess) return true;
	machinery().closing.store(true, std::memory_order_release);
	instance->Destroy();
	machinery().closing.store(false, std::memory_order_release);
	return true;
}

void Cqor_MultiMQInstance::Destroy() {
	if (isRefusedInCallback("Destroy()")) return;
	Lock();
	endInstances(true);
	Unlock();
}

/// Whether the caller is a callback, which cannot be waited for; says so in the log.
bool Cqor_MultiMQInstance::isRefusedInCallback(const char* operation) const {
	if (!InCallback::of(this)) return false;
	_mclog(kLogError, "%s is refused within a callback", operation);
	return true;
}

/// Needs the lock.
void Cqor_MultiMQInstance::endInstances(bool drain) {
	auto& m = machinery();
	m.lock.enter(mMutex); // behind it, no add is under way or sees the instances
	m.closing.store(true, std::memory_order_release);
	m.lock.leave(mMutex);
	while (m.wakers.load(std::memory_order_acquire) != 0) platform::yieldThread();
	for (Cqor_MQInstance* instance : mInstances) {
		if (drain) {
			instance->drain();
			instance->WaitForIdle(Cqor_MQConstants::kNoLimit);
		}
		delete instance;
	}
	mInstances.Delete(0, mInstances.Count());
	mCounter = 0;
	m.closing.store(false, std::memory_order_release);
}

eqor_QUEUE_ITEM* Cqor_MultiMQInstance::Add(unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2) {
	platform::WaitHandle toWake = nullptr;
	Section section(*this);
	if (!section) return nullptr;
	eqor_QUEUE_ITEM* item = nullptr;
	const int count = mInstances.Count();
	for (int t = 0, index = mCounter; t < count && !item; ++t) {
		item = mInstances[index]->addAsleep(w1, w2, w3, p1, p2, &toWake);
		if (++index == count) index = 0;
	}
	if (item && ++mCounter == count) mCounter = 0;
	if (!toWake) return item;
	auto& wakers = machinery().wakers;
	wakers.fetch_add(1, std::memory_order_relaxed); // the semaphore stays until it is counted off
	section.leave();
	platform::releaseSemaphore(toWake, 1, nullptr);
	wakers.fetch_sub(1, std::memory_order_release);
	return item;
}

int Cqor_MultiMQInstance::_MQInst_CB(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code) {
	Cqor_MultiMQInstance* multi = worker && worker->mInstance ? worker->mInstance->mMultiOwner : nullptr;
	return multi ? multi->MQInst_CB(worker, item, code) : kQorFailure;
}

int Cqor_MultiMQInstance::MQInst_CB(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code) {
	const InCallback running(this);
	// The object may be gone behind it.
	if (const auto callback = mCallback)
		base::callHost("Cqor_MultiMQInstance", [&] { callback(this, worker, item, code); });
	return kQorFailure;
}

void Cqor_MultiMQInstance::getQueueUsage(int* out) {
	if (!out) return;
	out[0] = out[1] = 0;
	const Section section(*this);
	if (!section) return;
	for (Cqor_MQInstance* instance : mInstances) {
		int pending, capacity;
		instance->readQueueUsage(&pending, &capacity);
		out[0] += pending;
		out[1] += capacity;
	}
}

void Cqor_MultiMQInstance::getWorkerUsage(int* out) {
	if (!out) return;
	out[0] = out[1] = 0;
	const Section section(*this);
	if (!section) return;
	for (Cqor_MQInstance* instance : mInstances) {
		int usage[2];
		instance->GetWorkerUsage(usage);
		out[0] += usage[0];
		out[1] += usage[1];
	}
}

int Cqor_MultiMQInstance::getWorkerCount(int* instances, int* workersOfFirst) {
	const Section section(*this);
	const int count = section ? mInstances.Count() : 0;
	const int workers = count > 0 ? mInstances[0]->GetWorkerCount() : 0;
	if (instances) *instances = count;
	if (workersOfFirst) *workersOfFirst = workers;
	return count * workers;
}

int Cqor_MultiMQInstance::getWorkerCount(SIZE* out) {
	if (!out) return 0;
	int instances, workers;
	const int all = getWorkerCount(&instances, &workers);
	platform::storeSize(out, instances, workers);
	return all;
}

Cqor_MQWorker* Cqor_MultiMQInstance::getWorker(int instanceIndex, int workerIndex) {
	const Section section(*this);
	if (!section || !mInstances.Get(instanceIndex) || !mInstances[0]->GetWorker(workerIndex)) return nullptr;
	return mInstances[instanceIndex]->GetWorker(workerIndex);
}

void Cqor_MultiMQInstance::Lock() {
	machinery().lock.lock(mMutex, InCallback::of(this) ? &machinery().closing : nullptr);
}

void Cqor_MultiMQInstance::Unlock() { machinery().lock.unlock(mMutex); }
