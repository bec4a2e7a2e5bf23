#pragma once

#include <cstdint>

class CqorICachePage;

namespace storage {

inline constexpr uint32_t kNoPlace = 0xFFFFFFFF;

/// A set of (size, place) pairs in ascending order, in blocks of at most 64 pairs.
///
/// ```
/// leads    [ 0,0 | 4096,17 | 65536,3 | ... ]   the least pair a block may hold, ascending
///             |       |         |
/// blocks   [....]  [......]  [...]             16 to 64 pairs each (a single block: 0 to 64)
/// ```
///
/// A look-up is a binary search in two small arrays, and a change moves at most a block. That
/// is a few cache lines, where a tree of nodes would touch one for each of its levels.
/// `reserve` allocates, nothing else does.
class SizeOrder {
public:
	SizeOrder() = default;
	~SizeOrder();
	SizeOrder(const SizeOrder&) = delete;
	SizeOrder& operator=(const SizeOrder&) = delete;

	/// Makes room for `count` pairs in all. @return false, with the room it had, without memory.
	bool reserve(uint32_t count);
	void clear();
	void insert(uint64_t size, uint32_t place);
	/// The pair must be there.
	void remove(uint64_t size, uint32_t place);
	/// Removes the first pair of at least `size`. @return its place; `kNoPlace`: there is none.
	uint32_t takeFrom(uint64_t size);
	/// 0 without pairs.
	uint64_t largest() const;

private:
	static constexpr uint32_t kMost = 64;
	static constexpr uint32_t kLeast = 16;
	static constexpr uint32_t kMerged = 48; // leaves room, so that a merged block is not split soon

	struct Pair {
		uint64_t size;
		uint32_t place;

		bool operator<(const Pair& other) const {
			return size < other.size || (size == other.size && place < other.place);
		}
	};
	struct Block {
		uint32_t count; // in a block that is not in use: the next such block
		Pair pairs[kMost];
	};
	struct Lead {
		Pair least;
		uint32_t block;
	};

	uint32_t leadOf(const Pair& pair) const;
	static uint32_t positionIn(const Block& block, const Pair& pair);
	static void movePairs(Block& to, uint32_t at, const Block& from, uint32_t first, uint32_t count);
	void openLead(uint32_t index, const Pair& least);
	void closeLead(uint32_t index);
	void removeAt(uint32_t lead, uint32_t position);
	void split(uint32_t lead);
	void balance(uint32_t lead);
	Block& blockOf(uint32_t lead) const { return mBlocks[mLeads[lead].block]; }

	Lead* mLeads = nullptr; // the first one is 0, 0
	Block* mBlocks = nullptr;
	uint32_t mLeadCount = 0;
	uint32_t mRoom = 0;          // blocks
	uint32_t mUnused = kNoPlace; // the first block that is not in use
};

/// The pages of a manager by child order and, as far as they are free, by size.
///
/// A page's place is its rank in child order, gaps of removed pages counted; it stays the same
/// until the index is built anew. Only `reserve` allocates.
class PageIndex {
public:
	PageIndex() = default;
	~PageIndex();
	PageIndex(const PageIndex&) = delete;
	PageIndex& operator=(const PageIndex&) = delete;

	/// Makes room for `places` in all, gaps counted. @return false, with the room it had, without memory.
	bool reserve(uint32_t places);
	void clear();
	/// Puts a lent page behind the last one; there must be room. @return its place.
	uint32_t append(CqorICachePage* page, uint64_t size);
	void remove(uint32_t place);
	/// The page must be lent.
	void setSize(uint32_t place, uint64_t size);
	/// A lent page becomes free, a free one lent.
	void setFree(uint32_t place);
	void setLent(uint32_t place);

	/// Null for a place that is empty or was never used.
	CqorICachePage* page(uint32_t place) const { return place < mUsed ? mEntries[place].page : nullptr; }
	/// The place must be one of a page, as `lendBestFit` and `nextFree` find them.
	CqorICachePage& at(uint32_t place) const { return *mEntries[place].page; }
	uint64_t size(uint32_t place) const { return mEntries[place].size; }
	/// The smallest free page of at least `size`, the first of equal ones, which becomes lent.
	/// @return `kNoPlace`: there is none.
	uint32_t lendBestFit(uint64_t size);
	/// The first free page at or behind a place.
	uint32_t nextFree(uint32_t place);
	uint64_t largestFree() const { return mOrder.largest(); }

	uint32_t count() const { return mCount; }
	uint32_t used() const { return mUsed; }
	uint64_t totalBytes() const { return mTotalBytes; }
	uint64_t freeBytes() const { return mFreeBytes; }
	/// Whether it is right for children that changed so often.
	bool isRightFor(uint32_t changes) const { return mRight && mChanges == changes; }
	void setRightFor(uint32_t changes) {
		mRight = true;
		mChanges = changes;
	}
	void setWrong() { mRight = false; }
	/// Whether building it anew would save more than it costs.
	bool isSparse() const { return mUsed / 2 > mCount + 32; }

private:
	struct Entry {
		CqorICachePage* page; // null: removed
		uint64_t size;        // bytes
	};

	void clearFree(uint32_t place);
	bool isFree(uint32_t place) const { return (mFree[place / 64] >> (place % 64) & 1) != 0; }

	bool mRight = false;
	uint32_t mChanges = 0; // of the children, when it was right
	Entry* mEntries = nullptr;
	uint64_t* mFree = nullptr; // a bit a place
	uint32_t mFreeHint = 0;    // no word of mFree below this one has a bit
	uint32_t mUsed = 0;        // places, gaps included
	uint32_t mCount = 0;       // pages
	uint32_t mRoom = 0;        // places
	uint64_t mTotalBytes = 0;
	uint64_t mFreeBytes = 0;
	SizeOrder mOrder;
};

} // namespace storage
