#include "managed_object.h"
#include "shared_block_internal.h"

#include <cstring>

Cmc* Cmc::_mcCreate(Cmc* parent, const char* name) {
	auto* object = new (std::nothrow) Cmc;
	if (!object) return nullptr;
	if (object->_mcSetParent(parent) != kQorSuccess) {
		delete object;
		return nullptr;
	}
	object->setname(name);
	return object;
}

int Cmc::_mcSetParent(Cmc* parent) {
	if (parent == mParent) return kQorSuccess;
	if (parent && parent->isSelfOrAncestor(this)) return kQorFailure;
	leaveParent();
	mParent = parent;
	if (!parent) return kQorSuccess;
	mListed = parent->_mcGetIndexChildByPtr(this) != kQorNotFound || parent->insertChild(this);
	if (mListed) return kQorSuccess;
	mParent = nullptr; // a parent that does not know its child could go without it
	return kQorFailure;
}

Cmc* Cmc::_mcGetRoot() const {
	auto* object = const_cast<Cmc*>(this);
	while (object->mParent) object = object->mParent;
	return object;
}

int Cmc::_mcAttach(Cmc* child) {
	if (!child || isSelfOrAncestor(child) || _mcGetIndexChildByPtr(child) != kQorNotFound) return 0;
	if (!insertChild(child)) return 0;
	if (child->mParent == this) child->mListed = true;
	return 1;
}

int Cmc::_mcDetach(Cmc* child) { return removeChild(child); }

int Cmc::_mcMoveChild(Cmc* child, unsigned long index) {
	const auto from = _mcGetIndexChildByPtr(child);
	if (from == kQorNotFound) return kQorFailure;
	const auto last = static_cast<unsigned long>(mChildCount) - 1;
	// -1 passed where `unsigned long` has 64 bits means the last place, too.
	if (index == kQorNotFound || index == static_cast<unsigned long>(-1)) index = last;
	if (index > last || !ownChildren(mChildCount)) return kQorFailure;
	if (from < index) std::memmove(mChildren + from, mChildren + from + 1, (index - from) * sizeof *mChildren);
	if (from > index) std::memmove(mChildren + index + 1, mChildren + index, (from - index) * sizeof *mChildren);
	mChildren[index] = child;
	return kQorSuccess;
}

int Cmc::_mcDestroy() {
	_mcOnDestroy();
	_mcDestroyChilds(1);
	leaveParent();
	return kQorSuccess;
}

int Cmc::_mcDestroyChild(Cmc* child, int del) {
	if (_mcGetIndexChildByPtr(child) == kQorNotFound) return kQorFailure;
	child->_mcDestroy();
	removeChild(child); // one that was only attached is still here
	if (del) delete child;
	return kQorSuccess;
}

int Cmc::_mcDestroyChilds(int del) {
	while (mChildCount > 0) _mcDestroyChild(mChildren[0], del); // NOLINT: what is deleted has left the list
	return kQorSuccess;
}

bool Cmc::isSelfOrAncestor(const Cmc* candidate) const {
	for (auto* object = this; object; object = object->mParent)
		if (object == candidate) return true;
	return false;
}

/// Makes the child list this object's own, with room for `places` children; nothing changes without memory.
bool Cmc::ownChildren(int places) {
	if (mChildren && places <= mChildCount && core::isSoleUser(mChildren)) return true;
	void* list = core::resizeShared(mChildren, mChildCount * sizeof *mChildren, places * sizeof *mChildren);
	if (!list) return false;
	mChildren = static_cast<Cmc**>(list);
	return true;
}

/// Exactly one place more: lists are short and there are many objects.
bool Cmc::insertChild(Cmc* child) {
	if (mChildCount == INT32_MAX || !ownChildren(mChildCount + 1)) return false;
	mChildren[mChildCount++] = child;
	return true;
}

bool Cmc::removeChild(Cmc* child) {
	const auto index = _mcGetIndexChildByPtr(child);
	if (index == kQorNotFound) return false;
	if (child->mParent == this) child->mListed = false;
	if (mChildCount == 1) {
		core::releaseShared(mChildren);
		mChildren = nullptr;
		mChildCount = 0;
		return true;
	}
	// Leaving cannot fail: without memory for a list of its own the object changes the one it
	// shares with a copy, which then meets its last child twice.
	ownChildren(mChildCount);
	--mChildCount;
	std::memmove(mChildren + index, mChildren + index + 1, (mChildCount - index) * sizeof *mChildren);
	return true;
}

void Cmc::leaveParent() {
	if (mListed) mParent->removeChild(this);
	mParent = nullptr;
}
