#pragma once

#include "../base/linear_array.h"
#include "../core/managed_object.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "queue_instance.h"

/// Called on the worker's thread with the codes of `Cqor_MQCallBack`; the result is ignored.
using Cqor_MultiMQCallBack = int (*)(
    Cqor_MultiMQInstance* multi, Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code);

/// Several independent queue instances behind one `Add`, which deals the items out in turn.
///
/// ```
/// producers         the object's lock              instances (each: pool, list, workers)
///                   counter ---> first to try
///    Add  --------> instance counter  ----------->  0  [items] --> workers --.
///                   full? the next one ---------->  1  [items] --> workers ---+--> the callback
///                   counter + 1 on success          2  [items] --> workers --'     (no lock)
/// ```
///
/// Order is kept within an instance that has one worker, not between instances.
///
/// `Create`, `Destroy`, `Add` and all getters may be called from any thread and run one after the
/// other: a thread between `Lock` and `Unlock` keeps those of all other threads waiting. Order of
/// the locks: the object's, then an instance's. `Add` takes a light form of the lock and wakes workers after it has
/// left it, so producers do not wait for the system's scheduler. Callbacks run without the object's lock.
///
/// Callbacks may call everything but `Create`, `Destroy` and the destructor. `Destroy` waits for
/// them under the lock, so a callback must not wait for `Destroy` in turn. Therefore, from the
/// moment `Destroy` has the lock, calls on other threads no longer wait for it and answer what
/// they would have answered behind it: `Add` and `getWorker` null, the others zeros. `Lock` waits
/// for it as always, except within a callback: there it soon returns without the lock, and what
/// the callback does until its `Unlock` is not guarded. The same holds while `Create` ends an
/// instance that could not start all its workers.
class QOR_API Cqor_MultiMQInstance : public Cmc {
public:
	Cqor_MultiMQInstance();
	/// As `Destroy`. Must not run within a callback of this object: that drops what is pending and
	/// takes up to 5 s, as `Cqor_MQInstance::Destroy` from a callback does.
	~Cqor_MultiMQInstance() override;
	Cqor_MultiMQInstance(const Cqor_MultiMQInstance&) = delete;
	Cqor_MultiMQInstance& operator=(const Cqor_MultiMQInstance&) = delete;

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

	/// Destroys what there was, then makes the instances and starts their workers.
	///
	/// Affinity mask and priority stand in the reverse order of `Cqor_MQInstance::Create`; their
	/// values are the same, and so is the meaning of `queueSize` (items of each instance).
	///
	/// An instance whose own creation fails (no workers asked for, or the system refuses one) stays
	/// in its place without workers and items: adds skip it. `getWorkerUsage` shows it.
	/// @param instanceCount below 1: no instances.
	/// @return 0; 0x10000000, with no instances, for more than `kMaximumInstances`, without memory for the objects
	/// themselves or when
	///         the system refused the object's mutex; the same, changing nothing, within a callback
	///         of this object.
	int Create(Cqor_MultiMQCallBack callback, int instanceCount, int workersPerInstance, int queueSize,
	    int affinityMask, int priority);

	/// Lets every instance finish its items, in list order and without a time limit, and ends it. Items
	/// beyond the 1000 signals of an instance are finished, too.
	///
	/// Adds are refused meanwhile, but whoever adds to an instance by itself
	/// (`worker->mInstance->Add`) keeps `Destroy` waiting. Within a callback of this object it is
	/// refused and logged, as it would wait for its own caller.
	void Destroy();

	/// Adds to the first instance from the counter on that has a free item; the counter then goes on
	/// by one, whichever instance that was, so consecutive adds start at consecutive instances.
	/// @return the item, which may be with a worker already; null, the counter unchanged, when every
	///         instance is full or there is none.
	eqor_QUEUE_ITEM* Add(unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2);

	/// The callback of every instance: finds the object through the worker and calls `MQInst_CB`.
	/// @return 0x10000000.
	static int _MQInst_CB(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code);
	/// Calls the host's callback. @return 0x10000000, whatever the callback answers.
	int MQInst_CB(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code);

	/// out[0]: pending items, out[1]: items of the pools, each summed over the instances; null does nothing.
	void getQueueUsage(int* out);
	/// out[0]: busy workers, out[1]: workers of all instances; null does nothing.
	void getWorkerUsage(int* out);
	/// out->cx: instances, out->cy: workers of the first one (0 without instances).
	/// @return cx times cy; 0 for null.
	int getWorkerCount(SIZE* out);
	/// The same without the system's record; either may be null.
	int getWorkerCount(int* instances, int* workersOfFirst);
	/// @return null when an index is out of range; the first instance's number of workers counts for
	///         all. The worker is valid until `Destroy`.
	Cqor_MQWorker* getWorker(int instanceIndex, int workerIndex);

	/// Keeps all other threads out until the `Unlock` that matches. Recursive.
	void Lock();
	/// Does nothing for a thread that does not hold the lock.
	void Unlock();

private:
	class Section;
	class InCallback;
	struct Machinery;

	bool isRefusedInCallback(const char* operation) const;
	bool addInstance(int workers, int queueSize, int affinityMask, int priority);
	void endInstances(bool drain);
	Machinery& machinery() const;

	platform::WaitHandle mMutex;
	int mCounter = 0; // where the next add starts
	CstmArray<Cqor_MQInstance*> mInstances;
	Cqor_MultiMQCallBack mCallback = nullptr;
	alignas(64) unsigned char mMachinery[128]; // the light lock and its kin
};
