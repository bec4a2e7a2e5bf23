#include "image_cache.h"

#include "../base/status.h"
#include "../platform/machine.h"
#include "../platform/memory.h"
#include "../threads/light_lock_internal.h"
#include "image_cache_index_internal.h"

#include <new>

using storage::kNoPlace;

namespace {

constexpr const char* kPageType = "CqorICachePage";
constexpr const char* kManagerType = "CqorICachePageMan";
constexpr uint32_t kUnlimited = 0x0FFFFFFF; // megabytes
constexpr int kMegabyteBits = 20;

/// Null for a child that is not a page: by its type name, or because it only bears the name.
CqorICachePage* asPage(qor* child) { return child->istype(kPageType) ? dynamic_cast<CqorICachePage*>(child) : nullptr; }

} // namespace

CqorICachePage::CqorICachePage() { settype(kPageType); }

CqorICachePage::~CqorICachePage() { freeMemory(); }

CqorICachePageMan* CqorICachePage::GetManager() const { return mManager; }
uint64_t CqorICachePage::GetSize() const { return mSize.load(std::memory_order_relaxed); }
void* CqorICachePage::GetMemory() const { return mMemory; }
uint64_t CqorICachePage::GetUsedBytes() const { return mUsedBytes.load(std::memory_order_relaxed); }
void CqorICachePage::SetUsedBytes(uint64_t bytes) { mUsedBytes.store(bytes, std::memory_order_relaxed); }
uint64_t CqorICachePage::GetBorrower() const { return mBorrower.load(std::memory_order_relaxed); }

int CqorICachePage::Create(CqorICachePageMan* manager, uint64_t size) {
	Destroy();
	void* memory = manager && size > 0 ? CqorICachePageMan::AllocMem(size) : nullptr;
	if (!memory) return kQorFailure;
	setMemory(manager, memory, size);
	noteChange();
	return kQorSuccess;
}

int CqorICachePage::Destroy() {
	freeMemory();
	noteChange();
	return kQorSuccess;
}

void CqorICachePage::setMemory(CqorICachePageMan* manager, void* memory, uint64_t size) {
	mManager = manager;
	mMemory = memory;
	mSize.store(size, std::memory_order_relaxed);
}

void CqorICachePage::freeMemory() {
	platform::release(mMemory); // the manager may be gone
	setMemory(nullptr, nullptr, 0);
	mUsedBytes.store(0, std::memory_order_relaxed);
}

/// A scope inside the manager mutex.
class CqorICachePageMan::Section {
public:
	explicit Section(CqorICachePageMan& manager) : mManager(manager) { enter(); }
	~Section() { leave(); }
	Section(const Section&) = delete;
	Section& operator=(const Section&) = delete;

	/// Calls out with nothing held, if this is the outermost section. Afterwards everything may
	/// have changed.
	template <class Function>
	void outside(Function function) {
		leave();
		function();
		enter();
	}

private:
	void enter() {
		const uint32_t self = platform::threadId();
		if (mManager.mHolder.load(std::memory_order_relaxed) != self) {
			threads::lockWord(mManager.mWord);
			mManager.mHolder.store(self, std::memory_order_relaxed);
		}
		++mManager.mDepth;
	}
	void leave() {
		if (--mManager.mDepth > 0) return;
		mManager.mHolder.store(0, std::memory_order_relaxed);
		threads::unlockWord(mManager.mWord);
	}

	CqorICachePageMan& mManager;
};

CqorICachePageMan::CqorICachePageMan() { settype(kManagerType); }

CqorICachePageMan::~CqorICachePageMan() {
	Destroy();
	delete mIndex;
}

int CqorICachePageMan::Create(uint32_t megabytes) {
	mBudget.store(megabytes != 0 ? megabytes : kUnlimited, std::memory_order_relaxed);
	return kQorSuccess;
}

int CqorICachePageMan::Destroy() {
	const Section section(*this);
	if (mIndex) mIndex->setWrong();
	for (int32_t i = mChildCount - 1; i >= 0; --i) delete asPage(mChildren[i]);
	return kQorSuccess;
}

void* CqorICachePageMan::AllocMem(uint64_t size) { return platform::allocate(size); }

void* CqorICachePageMan::ReAllocMem(void* memory, uint64_t size) { return platform::reallocate(memory, size); }

int CqorICachePageMan::FreeMem(void* memory) {
	if (!memory) return kQorFailure;
	platform::release(memory);
	return kQorSuccess;
}

/// Brings the index up to date. @return false without memory for it.
bool CqorICachePageMan::freshen() {
	return (mIndex && mIndex->isRightFor(childChanges()) && !mIndex->isSparse()) || rebuild();
}

bool CqorICachePageMan::rebuild() {
	if (!mIndex) mIndex = new (std::nothrow) storage::PageIndex;
	if (!mIndex) return false;
	mIndex->setWrong();
	mIndex->clear();
	if (!mIndex->reserve(static_cast<uint32_t>(mChildCount))) return false;
	for (int32_t i = 0; CqorICachePage* page = nextPage(&i);) {
		page->mPlace = mIndex->append(page, page->GetSize());
		if (page->GetBorrower() == 0) mIndex->setFree(page->mPlace);
	}
	mIndex->setRightFor(childChanges());
	return true;
}

/// The first page from a child on, which moves behind it. @return null behind the last one.
CqorICachePage* CqorICachePageMan::nextPage(int32_t* child) const {
	while (*child < mChildCount)
		if (CqorICachePage* page = asPage(mChildren[(*child)++])) return page;
	return nullptr;
}

/// Where the page stands in an index that is up to date, which it then is. Another manager
/// that has the page among its children may have written down its own place.
/// @return `kNoPlace` without memory for the index, and for a child that is no page of it.
uint32_t CqorICachePageMan::placeOf(const CqorICachePage* page) {
	if (!freshen()) return kNoPlace;
	if (mIndex->page(page->mPlace) == page) return page->mPlace;
	return rebuild() && mIndex->page(page->mPlace) == page ? page->mPlace : kNoPlace;
}

uint64_t CqorICachePageMan::budgetBytes() const {
	return uint64_t{mBudget.load(std::memory_order_relaxed)} << kMegabyteBits;
}

/// Needs an index that is up to date.
uint64_t CqorICachePageMan::freeBudget() const {
	const uint64_t budget = budgetBytes(), total = mIndex->totalBytes();
	return budget > total ? budget - total : 0;
}

CqorICachePage* CqorICachePageMan::Add(uint64_t size) {
	const Section section(*this);
	if (!freshen() || size > freeBudget() || !mIndex->reserve(mIndex->used() + 1)) return nullptr;
	auto* page = new (std::nothrow) CqorICachePage;
	if (!page || page->Create(this, size) != kQorSuccess || !page->setparent(this)) {
		delete page;
		return nullptr;
	}
	page->mPlace = mIndex->append(page, size);
	mIndex->setFree(page->mPlace);
	mIndex->setRightFor(childChanges());
	return page;
}

int CqorICachePageMan::Remove(CqorICachePage* page) {
	const Section section(*this);
	if (!page || !hasChild(page)) return kQorFailure;
	const uint32_t place = placeOf(page);
	if (place != kNoPlace) mIndex->remove(place);
	page->freeMemory();
	page->mBorrower.store(0, std::memory_order_relaxed);
	if (page->getparent() == this)
		page->setparent(nullptr);
	else
		detach(page);
	page->noteChange(); // also where one other manager is the only one left that has it
	if (place != kNoPlace) mIndex->setRightFor(childChanges());
	return kQorSuccess;
}

int CqorICachePageMan::DeletePage(CqorICachePage* page) {
	const Section section(*this);
	if (Remove(page) != kQorSuccess) return kQorFailure;
	delete page;
	return kQorSuccess;
}

int CqorICachePageMan::GetCount() {
	const Section section(*this);
	if (freshen()) return static_cast<int>(mIndex->count());
	int count = 0;
	for (int32_t child = 0; nextPage(&child);) ++count;
	return count;
}

CqorICachePage* CqorICachePageMan::Get(int index) {
	const Section section(*this);
	if (index < 0) return nullptr;
	if (freshen() && mIndex->count() == mIndex->used()) return mIndex->page(static_cast<uint32_t>(index));
	if (mIndex && mIndex->isRightFor(childChanges()) && mIndex->count() == static_cast<uint32_t>(mChildCount))
		return static_cast<CqorICachePage*>(getchild(index)); // all children are pages
	CqorICachePage* page = nullptr;
	for (int32_t child = 0; index >= 0 && (page = nextPage(&child)); --index) {
	}
	return page;
}

int CqorICachePageMan::GetMemStatus(eqorICACHEPAGEMAN_MEMSTATUS* status) {
	if (!status) return kQorFailure;
	const Section section(*this);
	*status = {0, 0, budgetBytes(), 0};
	for (int32_t child = 0; const CqorICachePage* page = nextPage(&child);) {
		status->mTotalBytes += page->GetSize();
		status->mUsedBytes += page->GetUsedBytes();
	}
	if (status->mBudgetBytes > status->mTotalBytes) status->mFreeBytes = status->mBudgetBytes - status->mTotalBytes;
	return kQorSuccess;
}

CqorICachePage* CqorICachePageMan::BorrowPage(uint64_t owner, uint64_t size, uint32_t flags) {
	if (owner == 0) return nullptr;
	Section section(*this);
	if (!freshen()) return nullptr;
	const uint32_t place = mIndex->lendBestFit(size);
	if (place != kNoPlace) return mark(place, owner);
	CqorICachePage* page = flags & kGrowPages ? lendGrown(owner, size) : nullptr;
	return page || !(flags & kDeletePages) ? page : lendNew(section, owner, size);
}

/// Gives the page to its borrower; the index has it as lent already.
CqorICachePage* CqorICachePageMan::mark(uint32_t place, uint64_t owner) {
	CqorICachePage& page = mIndex->at(place);
	page.mBorrower.store(owner, std::memory_order_relaxed);
	tellOthers(page);
	return &page;
}

/// Tells other objects that have the page among their children that it is not what it was. The
/// index of this manager knows already.
void CqorICachePageMan::tellOthers(CqorICachePage& page) {
	if (page.hasOneHolder()) return;
	page.noteChange();
	mIndex->setRightFor(childChanges());
}

/// Walks the free pages in child order. That is done only when one of them can be grown, which
/// costs more than the walk.
CqorICachePage* CqorICachePageMan::lendGrown(uint64_t owner, uint64_t size) {
	const uint64_t room = freeBudget();
	if (mIndex->largestFree() + room < size) return nullptr;
	for (uint32_t place = 0; (place = mIndex->nextFree(place)) != kNoPlace; ++place) {
		if (mIndex->size(place) + room < size) continue;
		CqorICachePage& page = mIndex->at(place);
		void* memory = ReAllocMem(page.mMemory, size);
		if (!memory) continue;
		page.setMemory(this, memory, size);
		mIndex->setLent(place);
		mIndex->setSize(place, size);
		return mark(place, owner);
	}
	return nullptr;
}

CqorICachePage* CqorICachePageMan::lendNew(Section& section, uint64_t owner, uint64_t size) {
	// What is lent stays, so pages are not deleted in vain, also when the pages exceed the budget.
	const uint64_t lent = mIndex->totalBytes() - mIndex->freeBytes();
	const uint64_t budget = budgetBytes();
	if (budget < lent || budget - lent < size) return nullptr;
	while (mIndex->nextFree(0) != kNoPlace) {
		section.outside([this] { log("Found one to delete..."); });
		if (!freshen()) return nullptr; // others may have used the manager meanwhile
		const uint32_t place = mIndex->nextFree(0);
		if (place == kNoPlace) break;
		DeletePage(&mIndex->at(place));
		if (!freshen()) return nullptr;
		if (size <= freeBudget()) break;
	}
	const CqorICachePage* page = Add(size);
	if (!page) return nullptr;
	mIndex->setLent(page->mPlace);
	return mark(page->mPlace, owner);
}

void CqorICachePageMan::ReleasePage(CqorICachePage* page) {
	const Section section(*this);
	if (!page || !hasChild(page)) return;
	page->mUsedBytes.store(0, std::memory_order_relaxed);
	if (page->GetBorrower() == 0) return;
	const uint32_t place = placeOf(page);
	page->mBorrower.store(0, std::memory_order_relaxed);
	if (place != kNoPlace) {
		mIndex->setFree(place);
		tellOthers(*page);
	} else { // no memory for an index now
		if (mIndex) mIndex->setWrong();
		page->noteChange();
	}
}
