#pragma once

#include "../core/object.h"
#include "../platform/export.h"

#include <atomic>
#include <cstdint>

class CqorICachePageMan;

namespace storage {
class PageIndex;
}

/// One block of memory of a cache, an object of type "CqorICachePage".
///
/// Whoever has borrowed the page may use its memory and set its used bytes, on any thread;
/// everything else belongs to the thread of its manager's tree.
class QOR_API CqorICachePage final : public qor {
public:
	CqorICachePage();
	/// Frees the memory.
	~CqorICachePage();

	/// Frees what there was and allocates `size` bytes, undefined. The borrower stays what it is, and
	/// the page does not become a child of the manager: that is `setparent`'s affair.
	/// @return 0; 0x10000000, with no memory, for a null manager, size 0 or when there is none.
	int Create(CqorICachePageMan* manager, uint64_t size);
	/// Frees the memory: size and used bytes 0, no manager. The borrower stays. @return 0.
	int Destroy();

	/// Null while the page holds no memory.
	CqorICachePageMan* GetManager() const;
	/// Bytes.
	uint64_t GetSize() const;
	/// Null while the page holds no memory. It may move while the page is free.
	void* GetMemory() const;
	/// How much of the memory its borrower says it uses, bytes; only reported, never checked.
	uint64_t GetUsedBytes() const;
	void SetUsedBytes(uint64_t bytes);
	/// The token of the owner it is lent to; 0: free.
	uint64_t GetBorrower() const;

private:
	friend class CqorICachePageMan;

	void setMemory(CqorICachePageMan* manager, void* memory, uint64_t size);
	void freeMemory();

	CqorICachePageMan* mManager = nullptr;
	std::atomic<uint64_t> mSize{0};
	void* mMemory = nullptr;
	std::atomic<uint64_t> mUsedBytes{0};
	std::atomic<uint64_t> mBorrower{0};
	uint32_t mPlace = 0; // in the index of the manager that listed it last
};

/// What `CqorICachePageMan::GetMemStatus` reports.
struct eqorICACHEPAGEMAN_MEMSTATUS {
	uint64_t mTotalBytes;  ///< of all pages, lent or free
	uint64_t mUsedBytes;   ///< as their borrowers have set them
	uint64_t mBudgetBytes; ///< megabytes times 2^20
	uint64_t mFreeBytes;   ///< budget less total; 0 when the pages exceed the budget
};
static_assert(sizeof(eqorICACHEPAGEMAN_MEMSTATUS) == 32);

/// Flags of `CqorICachePageMan::BorrowPage`, where hosts can bind them by reference.
struct CqorICachePageManConstants {
	static constexpr uint32_t kGrowPages = 1;   ///< a free page may be reallocated
	static constexpr uint32_t kDeletePages = 2; ///< free pages may be deleted for a new one
};

/// A pool of memory pages under one budget, an object of type "CqorICachePageMan".
///
/// The pages are its child objects of type "CqorICachePage", in child order; children of other
/// types are left alone. The child list is the truth: a host may add and take off pages with
/// `setparent`, `attach` and `detach`, and may create and destroy their memory. Beside it stands
/// an index of the pages, by which a borrower finds the best of n free pages in O(log n) without
/// an allocation. The manager's own operations keep it; any other change to the children is
/// noticed by the next operation, which then reads them all again.
///
/// The manager deletes pages that are its children, so they must be made with `new`; ownership
/// passes to it with the first operation behind their addition.
///
/// `BorrowPage` and `ReleasePage` may be called from any thread. Everything else belongs to the
/// thread that owns the tree. While others borrow, that thread keeps to the operations of this
/// class: it neither changes the children by other ways nor reads them, so no dispatch, save or
/// walk over the manager or what stands above it. A page from `Get` that it has not borrowed is
/// then only a number: a borrower with `kGrowPages` may move its memory, one with `kDeletePages`
/// delete it. Nothing is locked while the log calls a host from within `BorrowPage`: the callback
/// may use the manager and wait for others who do, but not destroy it.
///
/// A page among the children of two managers is possible and slow: each change by one makes the
/// other read all its pages again. Deleting moves the children behind the page, so freeing n pages
/// from the front costs n moves of the list: 0.1 s for 25,000 pages.
class QOR_API CqorICachePageMan : public qor, public CqorICachePageManConstants {
public:
	/// Budget 0: no page fits until `Create`.
	CqorICachePageMan();
	/// As `Destroy`.
	~CqorICachePageMan();

	/// Sets the budget, in units of 2^20 bytes; 0: 268,435,455 of them, which is no practical limit.
	/// Pages stay as they are, also when they exceed it: then nothing is free. @return 0.
	int Create(uint32_t megabytes);
	/// Deletes every page, lent ones too: nobody may use one any more. @return 0.
	int Destroy();

	/// The heap; `ReAllocMem` keeps the contents, and leaves the block as it is when it fails.
	/// @return null without memory.
	static void* AllocMem(uint64_t size);
	static void* ReAllocMem(void* memory, uint64_t size);
	/// @return 0; 0x10000000 for null.
	static int FreeMem(void* memory);

	/// A new, free page, the last of the children.
	/// @return null for size 0, a size above the free budget, or without memory.
	CqorICachePage* Add(uint64_t size);
	/// Frees the page's memory, ends its loan and takes it off the children; the caller owns it then.
	/// @return 0; 0x10000000, changing nothing, for null or a page that is not a child.
	int Remove(CqorICachePage* page);
	/// `Remove`, then deletes the page. @return as `Remove`; a page that is not a child lives on.
	int DeletePage(CqorICachePage* page);

	/// Pages among the children.
	int GetCount();
	/// @return null outside 0 to count - 1.
	CqorICachePage* Get(int index);

	/// @return 0; 0x10000000 for null.
	int GetMemStatus(eqorICACHEPAGEMAN_MEMSTATUS* status);

	/// Lends a page of at least `size` bytes, looked for in this order:
	///
	/// 1. the smallest free page that is large enough; among equal ones the first child;
	/// 2. with `kGrowPages`: the first free page that the free budget can make large enough,
	///    reallocated to exactly `size` (content kept). When there is no memory for it, the next.
	/// 3. with `kDeletePages`, if the budget less what is lent suffices: the first free page is
	///    deleted ("Found one to delete..." in the log), again and again until the request fits into
	///    the free budget or no free page is left; then a page is added. At least one is deleted if
	///    there is one, even when the budget has room.
	///
	/// The free budget is the one at the moment the borrower's turn comes, so that borrowers on
	/// several threads together never pass the budget.
	/// @param owner token of the borrower, not 0: that marks free pages, and the page would be lent
	///              to the next one as well.
	/// @return null when there is none, and for owner 0.
	CqorICachePage* BorrowPage(uint64_t owner, uint64_t size, uint32_t flags);
	/// Ends a loan: borrower and used bytes 0; the memory stays for the next one. Null, a page that is
	/// not a child and a page that is free already are ignored.
	void ReleasePage(CqorICachePage* page);

private:
	class Section;

	bool freshen();
	bool rebuild();
	uint32_t placeOf(const CqorICachePage* page);
	uint64_t budgetBytes() const;
	uint64_t freeBudget() const;
	void tellOthers(CqorICachePage& page);
	CqorICachePage* mark(uint32_t place, uint64_t owner);
	CqorICachePage* lendGrown(uint64_t owner, uint64_t size);
	CqorICachePage* lendNew(Section& section, uint64_t owner, uint64_t size);
	CqorICachePage* nextPage(int32_t* child) const;

	std::atomic<uint32_t> mBudget{0}; // megabytes
	// The manager mutex: a light word, made recursive by the holder's thread number.
	std::atomic<uint32_t> mWord{0};
	std::atomic<uint32_t> mHolder{0};
	int mDepth = 0;

	storage::PageIndex* mIndex = nullptr; // under the mutex; null while none was needed
};
