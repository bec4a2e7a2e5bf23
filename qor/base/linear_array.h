#pragma once

#include "mem_vector.h"

#include <type_traits>

/// A packed array of items of one size, moved bit by bit.
///
/// The size is exactly that of the items; the block behind it follows in large steps (see
/// `CstmMemVector`), so a change costs the same however many items there are. Addresses are
/// valid until the next change. Not locked.
class QOR_API CstmLinearArray : public CstmMemVector {
public:
	/// @param itemSize bytes; an array of items of 0 bytes stays empty.
	/// @param flags    `kAligned`, `kIndexWrapping`
	explicit CstmLinearArray(size_t itemSize, unsigned long flags = 0);
	~CstmLinearArray();

	/// Appends `count` items, cleared when `zero` is not 0 and undefined otherwise.
	/// @return the first new item; for a count below 1 the data as they are; null, with
	///         nothing changed, without memory or when the count would pass 2147483647.
	void* laAdd(int count, int zero = 0);

	/// Inserts `count` items before `index`; an index at or past the end appends.
	/// @return as `laAdd`, null also for a negative index; for a count below 1 the item at `index`.
	void* laInsert(int index, int count, int zero = 0);

	/// Removes up to `count` items. Deleting never fails. Without items there is no block;
	/// item size and flags stay, so that the array can be used again.
	/// @return the item that now has the index; null when there is none.
	void* laDelete(int index, int count);

	/// @return null outside the array. With `kIndexWrapping` an index past the end counts on
	///         from the start again; a negative one is outside all the same.
	void* laGetAddress(int index) const;

	int laGetCount() const { return mItemCount; }
	size_t laGetItemSize() const { return mItemSize; }

protected:
	// Size and count belong together, so the block is resized by the operations above only.
	using CstmMemVector::mvAlloc;
	using CstmMemVector::mvRealloc;

	/// Deletes all items.
	void laClear();
	void laSwap(CstmLinearArray& other);

	size_t mItemSize; // bytes
	int32_t mItemCount = 0;
};

/// A typed view of a linear array. Its items are moved bit by bit and never constructed or
/// destroyed; pointers and plain records are what it is for.
template <class T>
class CstmArray : public CstmLinearArray {
	static_assert(std::is_trivially_copyable_v<T> && std::is_trivially_destructible_v<T>);

public:
	explicit CstmArray(unsigned long flags = 0) : CstmLinearArray(sizeof(T), flags) {}

	T* AddPosition(int count = 1, int zero = 1) { return static_cast<T*>(laAdd(count, zero)); }
	T* InsertAt(int index, int count = 1, int zero = 1) { return static_cast<T*>(laInsert(index, count, zero)); }
	T* Delete(int index, int count = 1) { return static_cast<T*>(laDelete(index, count)); }
	int Count() const { return mItemCount; }

	/// @return null outside the array.
	T* Get(int index) const { return static_cast<T*>(laGetAddress(index)); }
	/// The index must be one that `Get` has an item for.
	T& operator[](int index) const { return *Get(index); }

	/// Appends a copy. @return false without memory.
	bool Add(const T& item) {
		const T copy = item; // `item` may stand in the block that moves
		T* place = AddPosition(1, 0);
		if (place) *place = copy;
		return place != nullptr;
	}

	T* begin() const { return reinterpret_cast<T*>(mData); }
	T* end() const { return begin() + mItemCount; }
};
