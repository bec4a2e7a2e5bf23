#pragma once

#include "../platform/export.h"
#include "../platform/types.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

/// One message. The pools hold them side by side; nothing ever copies one. Its layout is fixed.
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
struct QueueMachinery;
}

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
/// owner ends. The operations themselves take a lighter lock.
class QOR_API Cqor_MsgQueue {
public:
	Cqor_MsgQueue();
	~Cqor_MsgQueue();
	Cqor_MsgQueue(const Cqor_MsgQueue&) = delete;
	Cqor_MsgQueue& operator=(const Cqor_MsgQueue&) = delete;

	/// Frees what there was and allocates a cleared pool and a list of as many places.
	/// @return 0; 0x10000000, with no pool and capacity 0, for a negative capacity, one that takes more
	///         than the machine's memory, or without memory.
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
	int GetPendingCount() const;

private:
	friend class Cqor_MQInstance;
	friend struct threads::QueueMachinery;
	class Section;

	eqor_QUEUE_ITEM* claimLocked();
	bool appendLocked(eqor_QUEUE_ITEM* item);
	eqor_QUEUE_ITEM* takeLocked();
	eqor_QUEUE_ITEM* takeAlone();
	void finishAlone(eqor_QUEUE_ITEM* item);
	void sweepLocked();
	void freeLocked(eqor_QUEUE_ITEM* item);
	int indexOf(const eqor_QUEUE_ITEM* item) const;
	uint32_t nextPlace(uint32_t place) const;
	eqor_QUEUE_ITEM* oldestPending();
	void adoptForeignFrees();
	void rebuildFreeMap();
	bool isIdle();
	bool isFull() const;
	eqor_QUEUE_ITEM* detachItems();

	platform::WaitHandle mMutex;
	eqor_QUEUE_ITEM* mItems = nullptr;
	eqor_QUEUE_ITEM** mPending = nullptr; // a ring
	int mCapacity = 0;
	// The number of pending items, the lock and what else changes with every item, in lines of
	// the processor's cache that belong to one side each.
	alignas(64) unsigned char mMachinery[448];
};
static_assert(alignof(Cqor_MsgQueue) == 64 && sizeof(Cqor_MsgQueue) == 512);
