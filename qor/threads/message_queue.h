#pragma once

#include "../platform/export.h"
#include "../platform/types.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

/// One message. The pools hold them side by side; nothing ever copies one.
///
/// An item is written only by the producer that claimed it and read only by the consumer that
/// took it. An add operation leaves the fields it does not name as the previous user left
/// them, so a consumer reads only what the message type defines. Data lengths are not stored.
struct eqor_QUEUE_ITEM {
	static constexpr uint8_t kInUse = 1; ///< claimed
	static constexpr uint8_t kTaken = 2; ///< with a consumer

	uint8_t mState;  ///< 0 free; changed by the queue only, under its lock
	uint32_t mWord1; ///< message type or command of the producer
	uint32_t mWord2;
	uint32_t mWord3;
	int32_t mIntegers[6]; ///< all set by `AddInts`; the first two by `AddIntsAndFP`, `AddIntAndPtr`
	uint8_t mReservedA[32];
	double mReals[4]; ///< `AddIntsAndFP`
	uint8_t mReservedB[96];
	uint8_t mData1[1024]; ///< `AddEx`
	uint8_t mData2[1024];
	void* mPointer1; ///< `Add`, `AddEx`, `AddIntAndPtr`
	void* mPointer2;
	uint8_t mReservedC[112];
};
static_assert(offsetof(eqor_QUEUE_ITEM, mWord1) == 4 && offsetof(eqor_QUEUE_ITEM, mIntegers) == 16);
static_assert(offsetof(eqor_QUEUE_ITEM, mReservedA) == 40 && offsetof(eqor_QUEUE_ITEM, mReals) == 72);
static_assert(offsetof(eqor_QUEUE_ITEM, mReservedB) == 104 && offsetof(eqor_QUEUE_ITEM, mData1) == 200);
static_assert(offsetof(eqor_QUEUE_ITEM, mData2) == 1224 && offsetof(eqor_QUEUE_ITEM, mPointer1) == 2248);
static_assert(offsetof(eqor_QUEUE_ITEM, mReservedC) == 2264 && sizeof(eqor_QUEUE_ITEM) == 2376);

namespace threads {

/// The lock of an object that its own operations enter for a few instructions and that a host
/// may hold for long: a light word for the operations, a mutex of the system for the host.
///
/// `lock` and `unlock` have the meaning of the mutex: recursive, owned by a thread, passed on
/// when its owner ends. Operations take the word alone and queue up behind the mutex only while
/// another thread holds it. Order: mutex, then word. The mutex (may be null: hosts then lock
/// nothing) stands beside the lock in its object and is the same in every call.
class HostLock {
public:
	/// @param giveUp may be null; once it is true nobody waits for a holder any more.
	/// @return false without the lock, for a mutex that cannot be had or when `giveUp` said so.
	bool lock(platform::WaitHandle mutex, const std::atomic<bool>* giveUp = nullptr);
	/// Does nothing for a thread that does not hold the lock.
	void unlock(platform::WaitHandle mutex);

	/// Begins an operation. @return false, with nothing to leave, when `giveUp` said so.
	bool enter(platform::WaitHandle mutex, const std::atomic<bool>* giveUp = nullptr);
	void leave(platform::WaitHandle mutex);

private:
	std::atomic<uint32_t> mWord{0};   // the light lock
	std::atomic<uint32_t> mHolder{0}; // the thread between lock and unlock; 0: none
	int mHolderDepth = 0;
	bool mOperationHasMutex = false; // the operation under way came through the mutex
};

} // namespace threads

/// A pool of items and a first-in first-out list of the pending ones, without threads.
///
/// ```
/// free (0) --claim--> in use (1) --append--> pending (1) --take--> taken (3) --free--> free (0)
///          GetFreeItem          AddToStack               Get               FreeItem
/// ```
///
/// Claims take the free item with the lowest index. Any thread may call every operation but
/// `Create` and `Destroy`, beside which nothing may run. No operation allocates but `Create`.
///
/// `Lock` takes the queue mutex, for hosts: recursive, owned by a thread, passed on when its
/// owner ends. The operations themselves take a lighter lock (see `threads::HostLock`).
class QOR_API Cqor_MsgQueue {
public:
	Cqor_MsgQueue();
	~Cqor_MsgQueue();
	Cqor_MsgQueue(const Cqor_MsgQueue&) = delete;
	Cqor_MsgQueue& operator=(const Cqor_MsgQueue&) = delete;

	/// Frees what there was and allocates a cleared pool and a list of as many places.
	/// @return 0; 0x10000000, with no pool and capacity 0, for a negative capacity or without memory.
	int Create(int capacity);

	/// Frees pool and list. Takes no lock.
	void Destroy();

	/// Clears every item to zero, also claimed ones, and empties the list.
	void Reset();

	/// Claims a free item.
	/// @param keepLocked not 0: the queue mutex is held on return (only with an item), so that
	///        the item can be filled and appended before anybody else claims; then `Unlock`.
	/// @return null when none is free.
	eqor_QUEUE_ITEM* GetFreeItem(int keepLocked);

	/// Gives an item back; null does nothing. An item of another pool becomes free there.
	void FreeItem(eqor_QUEUE_ITEM* item);

	/// Appends to the pending list; the item may be of another pool, or nobody's.
	/// @return the new number of pending items; -1 for null or a full list.
	int AddToStack(eqor_QUEUE_ITEM* item);

	/// Takes the oldest pending item, to be given back with `FreeItem`.
	/// @return null when the list is empty.
	eqor_QUEUE_ITEM* Get();

	/// Each claims an item, fills the named fields and appends it; nobody is signalled.
	///
	/// @return 0; 0x10000000 when no item is free. An item that was claimed while foreign
	///         items filled the list stays claimed and is not pending, with result 0.
	int AddInts(unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1, unsigned long i2,
	    unsigned long i3, unsigned long i4, unsigned long i5, unsigned long i6);
	int AddIntsAndFP(unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1, unsigned long i2,
	    double d1, double d2, double d3, double d4);
	int AddIntAndPtr(
	    unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1, unsigned long i2, void* p1, void* p2);
	int Add(
	    unsigned long w1, unsigned long w2, unsigned long w3, unsigned long i1, unsigned long i2, void* p1, void* p2);

	/// Keeps all other threads out of the queue until the `Unlock` that matches.
	void Lock();
	/// Does nothing for a thread that does not hold the lock.
	void Unlock();

	int GetCapacity() const { return mCapacity; }
	int GetPendingCount() const { return mCount.load(std::memory_order_acquire); }

private:
	friend class Cqor_MQInstance;
	class Section;

	eqor_QUEUE_ITEM* claimLocked();
	bool appendLocked(eqor_QUEUE_ITEM* item);
	eqor_QUEUE_ITEM* takeLocked();
	void freeLocked(eqor_QUEUE_ITEM* item);
	int indexOf(const eqor_QUEUE_ITEM* item) const;
	size_t ringPlace(int offset) const;
	void adoptForeignFrees();
	void rebuildFreeMap();
	bool isIdle();
	bool isFull() const;
	int append(eqor_QUEUE_ITEM* item);
	eqor_QUEUE_ITEM* detachItems();

	platform::WaitHandle mMutex;
	eqor_QUEUE_ITEM* mItems = nullptr;
	eqor_QUEUE_ITEM** mPending = nullptr; // a ring: the oldest entry stands at mFirst
	int mCapacity = 0;

	// What changes with every item shares one cache line with the lock.
	alignas(64) std::atomic<int> mCount{0}; // pending
	threads::HostLock mLock;
	int mFirst = 0;
	int mFreeHint = 0;                      // no free item in a word of the map below this one
	std::atomic<int> mClaimed{0};           // items with a state other than 0
	std::atomic<uint32_t> mForeignFrees{0}; // foreign frees of the process that the map has taken in
	// The instance's, when the queue is part of one:
	std::atomic<int> mSignals{0}; // items announced and not yet taken, at most 1000
	int mSleepers = 0;            // workers asleep and not yet chosen to be woken
	std::atomic<int> mLooks{1};   // how often the next looker looks
	int mLookers = 0;             // workers looking for work, woken ones included
	// One bit an item, set while it can be claimed. It follows the state bytes, which stay the
	// truth (see adoptForeignFrees), and stands behind the ring in the same block.
	uint64_t* mFreeMap = nullptr;
};
static_assert(alignof(Cqor_MsgQueue) == 64 && sizeof(Cqor_MsgQueue) == 128);
