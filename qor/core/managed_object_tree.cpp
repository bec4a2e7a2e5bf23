#include "managed_object_internal.h"

#include <cstring>
#include <new>

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
	if (parent && parent->wouldContainItself(this)) return kQorFailure;
	leaveParent();
	if (!parent) return kQorSuccess;
	const bool attached = parent->lists(this);
	mParent = parent;
	if (attached) {
		if (mLinks) mLinks->removeHolder(parent);
		beListed(0);
	} else if (!parent->insertChild(this)) {
		mParent = nullptr; // a parent that does not know its child could go without it
		return kQorFailure;
	}
	return kQorSuccess;
}

Cmc* Cmc::_mcGetRoot() const {
	auto* object = const_cast<Cmc*>(this);
	while (object->mParent) object = object->mParent;
	return object;
}

int Cmc::_mcAttach(Cmc* child) {
	if (!child || wouldContainItself(child) || lists(child)) return 0;
	if (child->mParent == this) return insertChild(child);
	if (mHasCopiedList) return insertChild(child); // an unknown guest among others
	if (!child->links() || !child->mLinks->addHolder(this)) return 0;
	if (!insertChild(child)) {
		child->mLinks->removeHolder(this);
		return 0;
	}
	mHasAttached = true;
	if (mLinks) mLinks->names.clear();
	return 1;
}

int Cmc::_mcDetach(Cmc* child) {
	if (!child || findPlace(child) < 0) return 0;
	return removeChild(child);
}

int Cmc::_mcMoveChild(Cmc* child, unsigned long index) {
	const int from = findPlace(child);
	if (from < 0) return kQorFailure;
	const auto last = static_cast<unsigned long>(mChildCount) - 1;
	// -1 passed where `unsigned long` has 64 bits means the last place, too.
	if (index == kQorNotFound || index == static_cast<unsigned long>(-1)) index = last;
	if (index > last || !ownChildren(mChildCount)) return kQorFailure;
	const int to = static_cast<int>(index);
	if (from < to) std::memmove(mChildren + from, mChildren + from + 1, (to - from) * sizeof *mChildren);
	if (from > to) std::memmove(mChildren + to + 1, mChildren + to, (from - to) * sizeof *mChildren);
	mChildren[to] = child;
	if (child->mParent == this) child->mPlace = mFront + to;
	if (mLinks) mLinks->names.clear(); // it keeps the order
	return kQorSuccess;
}

/// Destroys and deletes everything below the object that the walk has entered last; its own children
/// are deleted when `del` is non-zero. Handlers may change the tree: the first child is looked up anew
/// each time, and what a handler destroyed is passed over.
void Cmc::destroyBelow(core::ManagedWalk& walk, int del) {
	using Entered = core::ManagedWalk::Entered;
	const int top = walk.depth();
	while (true) {
		Cmc* at = walk.object();
		if (at && at->mChildCount > 0) {
			Cmc* child = at->mChildren[0];
			const auto entered = walk.enter(child);
			if (entered == Entered::yes) {
				base::callHost("Cmc::_mcOnDestroy", [&] { child->_mcOnDestroy(); });
			} else if (entered == Entered::already) {
				at->removeChild(child);
			} else {
				at->_mcDestroyChild(child, del || walk.depth() > top);
			}
			continue;
		}
		if (walk.depth() == top) return;
		walk.leave();
		if (!at) continue;
		at->leaveParent();
		Cmc* holder = walk.object();
		if (holder && holder->lists(at)) holder->removeChild(at); // one that was only attached is still here
		if (del || walk.depth() > top) delete at;
	}
}

int Cmc::_mcDestroy() {
	core::ManagedWalk walk;
	walk.enter(this);
	base::callHost("Cmc::_mcOnDestroy", [&] { _mcOnDestroy(); });
	destroyBelow(walk, 1);
	if (walk.object()) leaveParent();
	return kQorSuccess;
}

int Cmc::_mcDestroyChild(Cmc* child, int del) {
	if (findPlace(child) < 0) return kQorFailure;
	core::ManagedWalk walk;
	walk.enter(this);
	if (walk.enter(child) != core::ManagedWalk::Entered::yes) return kQorFailure;
	base::callHost("Cmc::_mcOnDestroy", [&] { child->_mcOnDestroy(); });
	destroyBelow(walk, 1);
	const bool there = walk.object() != nullptr;
	walk.leave();
	if (!there) return kQorSuccess;
	child->leaveParent();
	if (walk.object() && lists(child)) removeChild(child); // one that was only attached is still here
	if (del) delete child;
	return kQorSuccess;
}

int Cmc::_mcDestroyChilds(int del) {
	core::ManagedWalk walk;
	walk.enter(this);
	destroyBelow(walk, del);
	return kQorSuccess;
}
