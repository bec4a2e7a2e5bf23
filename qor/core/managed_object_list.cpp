#include "managed_object_internal.h"
#include "shared_block_internal.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

// The child list. The children stand one behind the other in a shared block:
//
//     block: | mFront places left at the start | the children, from mChildren on | room |
//
// Copies of an object and walks in progress share the block; only its sole user writes into it, and
// everybody else takes a block of its own first. Taking the first or the last child off writes
// nothing. A child that is listed by its parent remembers its place (`mPlace`, counted from the start
// of the block), which is where the search for it begins: it is near there.

namespace {

constinit std::atomic<std::uint64_t> searches{0};

int grown(int places) { return places <= 4 || places > INT32_MAX / 2 ? places : places + places / 2; }

} // namespace

void* Cmc::childBlock() const { return mChildren ? mChildren - mFront : nullptr; }

/// Searches on both sides of where the child is expected. Never looks at the objects: some may be
/// gone. @return -1 when it is not there.
int Cmc::placeOf(const Cmc* child, int expected) const {
	if (mChildCount == 0) return -1;
	int low = std::clamp(expected, 0, mChildCount - 1), high = low + 1;
	for (; low >= 0 || high < mChildCount; --low, ++high) {
		if (low >= 0 && mChildren[low] == child) return low;
		if (high < mChildCount && mChildren[high] == child) return high;
	}
	return -1;
}

/// Searches from both ends: who takes many children off mostly takes the first or the last.
int Cmc::findPlace(const Cmc* child) const {
	for (int low = 0, high = mChildCount - 1; low <= high; ++low, --high) {
		if (mChildren[low] == child) return low;
		if (mChildren[high] == child) return high;
	}
	return -1;
}

/// Whether a living object is in the list; looks at the list only where nothing else tells.
bool Cmc::lists(const Cmc* child) const {
	if (mHasCopiedList) return placeOf(child, 0) >= 0;
	if (child->mParent == this) return child->mListed;
	return child->mLinks && child->mLinks->hasHolder(this);
}

/// Makes the child list this object's own, with room for `places` children; nothing changes without memory.
bool Cmc::ownChildren(int places) {
	void* block = childBlock();
	const bool alone = block && core::isSoleUser(block);
	if (alone && mFront + places <= mRoom) return true;
	if (alone && places <= mRoom && mFront >= mChildCount) {
		std::memmove(block, mChildren, mChildCount * sizeof *mChildren);
	} else {
		const int room = places == mChildCount ? places : grown(places);
		auto* list = static_cast<Cmc**>(core::allocateShared(room * sizeof *mChildren));
		if (!list) return false;
		if (mChildCount > 0) std::memcpy(list, mChildren, mChildCount * sizeof *mChildren);
		core::releaseShared(block);
		block = list;
		mRoom = room;
	}
	mChildren = static_cast<Cmc**>(block);
	if (mFront > 0 && !mHasCopiedList) {
		for (int i = 0; i < mChildCount; ++i)
			if (mChildren[i]->mParent == this) mChildren[i]->mPlace = i;
	}
	mFront = 0;
	return true;
}

bool Cmc::insertChild(Cmc* child) {
	if (mChildCount == INT32_MAX || !ownChildren(mChildCount + 1)) return false;
	mChildren[mChildCount++] = child;
	if (child->mParent == this) child->beListed(mFront + mChildCount - 1);
	if (mChildCount == 1 && mListed) ++mParent->mBranches;
	return true;
}

/// The parent has the object in its list. Not so where the list is a copy: its other children
/// cannot be told from this one.
void Cmc::beListed(int place) {
	mListed = !mParent->mHasCopiedList;
	mPlace = place;
	if (mListed && mChildCount > 0) ++mParent->mBranches;
	settleParent();
}

/// Takes off a child whose place is known; the others keep their order. Cannot fail: without memory
/// for a list of its own the object changes the one it shares with a copy, which then meets its
/// last child twice.
void Cmc::removeChildAt(int index) {
	const Cmc* child = mChildren[index];
	const int behind = mChildCount - 1 - index;
	if (mLinks && index < mLinks->names.covered()) mLinks->names.remove(child, child->storedName());
	if (index == 0) {
		++mChildren;
		++mFront;
	} else if (behind > 0) {
		ownChildren(mChildCount);
		if (index < behind) {
			std::memmove(mChildren + 1, mChildren, index * sizeof *mChildren);
			++mChildren;
			++mFront;
		} else {
			std::memmove(mChildren + index, mChildren + index + 1, behind * sizeof *mChildren);
		}
	}
	if (--mChildCount == 0) forgetChildren();
}

/// An object whose parent does not list it as its own stands in a chain of that parent's, so that
/// the parent can take leave of it. To be called when either has changed.
void Cmc::settleParent() {
	if (!mParent || mListed) return unchain();
	if (mChainLink) return;
	mNextLoose = mParent->mFirstLoose;
	if (mNextLoose) mNextLoose->mChainLink = &mNextLoose;
	mParent->mFirstLoose = this;
	mChainLink = &mParent->mFirstLoose;
}

void Cmc::unchain() {
	if (!mChainLink) return;
	*mChainLink = mNextLoose;
	if (mNextLoose) mNextLoose->mChainLink = mChainLink;
	mChainLink = nullptr;
	mNextLoose = nullptr;
}

/// Ends the links of the children to this object, before it goes or takes another list.
void Cmc::unlinkChildren(bool going) {
	if (mHasCopiedList) return; // the original answers for these, and some may be gone
	for (int i = 0; i < mChildCount; ++i) {
		if (mChildren[i]->mParent == this) {
			mChildren[i]->mListed = false;
			if (going) mChildren[i]->mParent = nullptr;
			mChildren[i]->settleParent();
		} else if (mChildren[i]->mLinks) {
			mChildren[i]->mLinks->removeHolder(this);
		}
	}
}

void Cmc::forgetChildren() {
	core::releaseShared(childBlock());
	mChildren = nullptr;
	mFront = mRoom = mChildCount = 0;
	mBranches = 0;
	mHasAttached = mHasCopiedList = mHasOwnNames = false;
	if (mLinks) mLinks->names.clear();
	if (mListed) --mParent->mBranches;
}

/// Takes off a child that is alive, whoever its parent is.
bool Cmc::removeChild(Cmc* child) {
	const bool own = child->mParent == this && child->mListed;
	const int index = placeOf(child, own ? child->mPlace - mFront : 0);
	if (index < 0) return false;
	if (own) {
		child->mListed = false;
		if (child->mChildCount > 0) --mBranches;
		child->settleParent();
	} else if (child->mLinks) {
		child->mLinks->removeHolder(this);
	}
	removeChildAt(index);
	return true;
}

void Cmc::leaveParent() {
	if (mListed || (mParent && mParent->mHasCopiedList)) mParent->removeChild(this);
	unchain();
	mParent = nullptr;
}

core::ManagedLinks* Cmc::links() {
	if (!mLinks) mLinks = new (std::nothrow) core::ManagedLinks;
	return mLinks;
}

/// Whether the child, listed here, would make the object stand below itself.
bool Cmc::wouldContainItself(const Cmc* child) const {
	// What has no children is nobody's ancestor: trees grow leaf by leaf, to any depth.
	if (child->mChildCount == 0 && !child->mFirstLoose) return child == this;
	return isSelfOrAncestor(child);
}

/// Whether the candidate is this object or lists it, directly or through others; a parent counts as
/// well when it does not list its child. Each holder is looked at once, however many ways lead to it.
bool Cmc::isSelfOrAncestor(const Cmc* candidate) const {
	const auto search = searches.fetch_add(1, std::memory_order_relaxed) + 1;
	core::ManagedLinks* pending = nullptr;
	const Cmc* object = this;
	while (true) {
		for (; object; object = object->mParent) {
			if (object == candidate) return true;
			if (candidate->mHasCopiedList && candidate->placeOf(object, 0) >= 0) return true;
			auto* links = object->mLinks;
			if (!links || links->holderCount == 0) continue;
			if (links->search == search) break;
			links->search = search;
			links->nextHolder = 0;
			links->pending = pending;
			pending = links;
		}
		while (pending && pending->nextHolder == pending->holderCount) pending = pending->pending;
		if (!pending) return false;
		object = pending->holders[pending->nextHolder++];
	}
}
