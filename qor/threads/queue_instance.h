#pragma once

#include "../base/linear_array.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "message_queue.h"

#include <atomic>
#include <cstdint>

class Cqor_MQInstance;
class Cqor_MQWorker;
class Cqor_MultiMQInstance;

namespace threads {
struct QueueSignal;
}

/// Called on the worker's thread; the result is ignored.
///
/// | code | item | when |
/// |---|---|---|
/// | `kCallBackStarted` 1 | null | the thread has started, before its first wait |
/// | `kCallBackItem` 0 | the item | an item was taken; it is freed when the call returns |
/// | `kCallBackEnding` 2 | null | the thread is ending |
///
/// It may add items and ask for numbers. What it must not do stands at the operations.
using Cqor_MQCallBack = int (*)(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code);

/// The numbers of `Cqor_MQInstance`, its callback and `Cqor_MultiMQInstance`.
struct Cqor_MQConstants {
	static constexpr int kCallBackItem = 0;
	static constexpr int kCallBackStarted = 1;
	static constexpr int kCallBackEnding = 2;

	static constexpr unsigned long kNoLimit = 0xFFFFFFFF; ///< for `WaitForIdle`

	static constexpr int kMaximumWorkers = 65536;   ///< of an instance
	static constexpr int kMaximumInstances = 65536; ///< of a multi-queue
};

/// A queue with worker threads that pass each item to one callback.
///
/// ```
/// producers                     the instance                        workers
///   claim an item ------------>  pool of items
///   fill it (no lock)
///   append, signal ----------->  pending list, signals ----------->  take the oldest
///                                                                    callback (no lock)
///                                pool of items <------------------  free it
/// ```
///
/// Items are taken in the order of the adds, by whichever worker is ready, so several callbacks
/// run in parallel and one worker keeps the order. A worker without work looks on for a few
/// microseconds, then sleeps on the semaphore; an add wakes a sleeper only when no worker is
/// looking already, and a worker that leaves more work behind wakes the next.
///
/// Adds may come from any thread. Nothing may run beside `Create`, `Destroy` and the destructor.
///
/// Signals are counted up to 1000. With more than 1000 items pending, those beyond stay in the
/// list, in order, and are reached by the signals of later adds: nothing is lost, but as many
/// items wait as signals were refused (`GetPendingCount` tells). Queues of up to 1000 items
/// never come there.
class QOR_API Cqor_MQInstance : public Cqor_MQConstants {
public:
	Cqor_MQInstance();
	/// As `Destroy`.
	virtual ~Cqor_MQInstance();
	Cqor_MQInstance(const Cqor_MQInstance&) = delete;
	Cqor_MQInstance& operator=(const Cqor_MQInstance&) = delete;

	/// Makes queue and workers; what there was is destroyed first.
	///
	/// @param workerCount  1 to `kMaximumWorkers`.
	/// @param queueSize    items in the pool; below 1: as many as workers.
	/// @param priority     of the workers: -15 (idle) to 15 (time critical), 0 normal.
	/// @param affinityMask bit n allows processor n; 0: no affinity.
	/// @param autoStart    not 0: also starts the workers.
	/// @return 0; 0x10000000 for too few or too many workers or when the system refuses memory, the
	///         semaphore or a thread. Everything is destroyed then.
	int Create(Cqor_MQCallBack callback, int workerCount, int queueSize, int priority, int affinityMask, int autoStart);

	/// A new instance with the owner set and `Create` called.
	/// @return the instance whatever `Create` returned (an instance that failed has no
	///         workers), to be deleted by the caller; null without memory.
	static Cqor_MQInstance* wCreate(void* owner, Cqor_MQCallBack callback, int workerCount, int queueSize, int priority,
	    int affinityMask, int autoStart);

	/// Ends the workers and frees pool and list. Pending items are dropped.
	///
	/// Waits at most 5 s for callbacks in progress. A worker still inside one is abandoned: when
	/// the callback returns, its thread ends without touching the instance or calling back again
	/// and deletes the worker; the item pool lives until then. Must not be called from a
	/// callback: that takes the full 5 s and abandons the calling worker. The callback of an
	/// abandoned worker must not use the instance once it is gone.
	void Destroy();

	/// Starts every worker that has no thread yet.
	/// @return 0; 0x10000000 when the system refuses a thread (the others run).
	int StartWorkers();

	/// Does nothing: workers end only through `Destroy`.
	void StopWorkers();

	/// Deletes the workers. It is meant for workers that were never started; running ones are
	/// ended as `Destroy` does. @return 0.
	int DestroyWorkers();

	/// Claims an item, fills it, appends it and wakes a worker.
	///
	/// `AddEx` copies `length1` bytes into the first data block and `length2` into the second, each
	/// cut to 1024 bytes; nothing for a null block or a length below 1.
	/// @return the item, which may be with a worker already; null when none is free.
	eqor_QUEUE_ITEM* Add(unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2);
	eqor_QUEUE_ITEM* AddEx(unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2, const void* data1,
	    int length1, const void* data2, int length2);

	int GetWorkerCount();
	/// Null outside 0 to count - 1.
	Cqor_MQWorker* GetWorker(int index);
	/// out[0]: busy workers, out[1]: workers; null does nothing.
	void GetWorkerUsage(int* out);
	/// Items in the list that no worker has taken yet.
	int GetPendingCount() const;

	/// Waits until no item is claimed, pending or in work, giving up the time slice meanwhile.
	/// Within a callback of its own the instance is never idle.
	/// @param timeoutMs milliseconds; `kNoLimit`: no limit.
	/// @return 0; 0x10000000 when the limit has passed, also if the instance is idle by then.
	int WaitForIdle(unsigned long timeoutMs);

private:
	friend class Cqor_MQWorker;
	friend class Cqor_MultiMQInstance;

	Cqor_MsgQueue mQueue;
	CstmArray<Cqor_MQWorker*> mWorkers;
	platform::WaitHandle mSemaphore = nullptr; // sleeping workers; the signals are counted in mQueue
	Cqor_MQCallBack mCallback = nullptr;

public:
	/// The owner's, for its static callback (`worker->mInstance->mOwner`); not used here. To be set before
	/// the workers start.
	void* mOwner = nullptr;
	/// The multi-queue instance this one is part of; null for a stand-alone instance.
	Cqor_MultiMQInstance* mMultiOwner = nullptr;
	uint8_t mReserved[184] = {};

private:
	int mPriority = 0;
	uint32_t mAffinityMask = 0;

	bool createSignal();
	bool createWorkers(int count);
	void closeSignal();
	void waitForThreads();
	eqor_QUEUE_ITEM* claimLocked(unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2);
	eqor_QUEUE_ITEM* addAsleep(
	    unsigned long w1, unsigned long w2, unsigned long w3, void* p1, void* p2, platform::WaitHandle* toWake);
	void readQueueUsage(int* pending, int* capacity);
	bool publishLocked(eqor_QUEUE_ITEM* item, bool* wake);
	eqor_QUEUE_ITEM* takeSignalledLocked();
	bool chooseSleeperLocked();
	void signalLocked();
	void drain();
	bool hasSignals() const;
	/// Whether one worker takes all items, and needs no lock for it.
	bool isAlone() const { return mAlone; }
	eqor_QUEUE_ITEM* next(eqor_QUEUE_ITEM* done, bool* waited);
	bool isClosed() const;
	void lookForSignal();
	bool sleepForSignal() const;

	threads::QueueSignal* mSignal = nullptr; // semaphore and closing word, shared with the threads
	bool mAlone = false;
	void* mSpare[3] = {};
};

/// One worker of a queue instance.
class QOR_API Cqor_MQWorker {
public:
	Cqor_MQWorker();
	virtual ~Cqor_MQWorker();
	Cqor_MQWorker(const Cqor_MQWorker&) = delete;
	Cqor_MQWorker& operator=(const Cqor_MQWorker&) = delete;

	/// The instance that the worker serves and its index there (-1 until created).
	Cqor_MQInstance* mInstance = nullptr;
	int mIndex = -1;

	/// Stores the arguments and sets the created bit. @return 0.
	int Create(Cqor_MQInstance* instance, int index, int priority, int affinityMask);
	/// Clears the created bit.
	void Destroy();

	/// Starts the thread; a worker that has one is left as it is.
	/// @return 0; 0x10000000 for a worker that is not one of its instance's, or when the system refuses.
	int Start();
	/// Does nothing, by design: the thread ends with the instance. @return 0.
	int Stop();

	int IsCreated() const;
	/// Whether the thread has entered and not ended.
	int IsRunning() const;
	/// Whether a callback with an item is running.
	int IsBusy() const;
	/// The item in work; null while idle. For the worker's own callback.
	eqor_QUEUE_ITEM* GetCurrentItem() const { return mCurrent.load(std::memory_order_acquire); }
	/// Start and end of the last callback with an item, seconds of `appGetTime`. Of callbacks
	/// without a pause between them, the start of one is the end of the one before.
	double GetStartTime() const { return mStartTime.load(std::memory_order_relaxed); }
	double GetEndTime() const { return mEndTime.load(std::memory_order_relaxed); }

	/// Calls the instance's callback with this worker. @return its result; 0x10000000 when there is none.
	int WorkerCallBack(eqor_QUEUE_ITEM* item, int code);

	/// The body of the thread that `Start` begins; not to be called by anyone else. @return 0.
	unsigned int WorkerThread();

	/// The trace hook. Tracing is compiled out: it writes nothing.
	void logmsg(const char* text);

private:
	friend class Cqor_MQInstance;

	static constexpr uint32_t kCreated = 1;
	static constexpr uint32_t kRunning = 2;

	static unsigned threadEntry(void* argument);
	bool serve();
	bool call(eqor_QUEUE_ITEM* item, int code);
	bool endThread();
	void trace(const char* format);

	std::atomic<uint32_t> mFlags{0}; // busy is what mCurrent says
	platform::WaitHandle mThread = nullptr;
	std::atomic<eqor_QUEUE_ITEM*> mCurrent{nullptr};
	std::atomic<double> mStartTime{0.0}; // seconds
	std::atomic<double> mEndTime{0.0};
	char* mTrace; // 1024 bytes for formatted trace texts; null without memory
	uint8_t mReserved[192] = {};
	int mPriority = 0;
	uint32_t mAffinityMask = 0;
	std::atomic<uint32_t> mPlace{0}; // where the thread is, see endThread
};
