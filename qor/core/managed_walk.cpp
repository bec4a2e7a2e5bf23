#include "../platform/memory.h"
#include "managed_object_internal.h"
#include "shared_block_internal.h"

namespace core {

ManagedWalk::~ManagedWalk() {
	while (mTop) leave();
	while (mSpare) {
		WalkFrame* frame = mSpare;
		mSpare = frame->above;
		platform::release(frame);
	}
}

WalkFrame* ManagedWalk::newFrame() {
	if (mDepth < kFramesOnStack) return &(mFirst[mDepth] = {});
	WalkFrame* frame = mSpare;
	if (frame) {
		mSpare = frame->above;
	} else {
		frame = static_cast<WalkFrame*>(platform::allocate(sizeof *frame));
		if (!frame) return nullptr;
	}
	return new (frame) WalkFrame;
}

ManagedWalk::Entered ManagedWalk::enter(Cmc* object) {
	for (const WalkFrame* frame = object->mWalks; frame; frame = frame->outer)
		if (frame->walk == this) return Entered::already;
	WalkFrame* frame = newFrame();
	if (!frame) return Entered::noMemory;
	frame->owner = object;
	frame->walk = this;
	frame->outer = object->mWalks;
	object->mWalks = frame;
	frame->above = mTop;
	mTop = frame;
	++mDepth;
	return Entered::yes;
}

void ManagedWalk::open() {
	if (!mTop->owner || mTop->owner->mChildCount == 0) return;
	mTop->list = mTop->owner->mChildren;
	mTop->count = mTop->owner->mChildCount;
	mTop->block = mTop->list - mTop->owner->mFront;
	mTop->opened = nextBirth();
	addSharedUser(mTop->block); // a change of the list makes the object take a copy
}

Cmc* ManagedWalk::next() {
	WalkFrame& frame = *mTop;
	while (frame.owner && frame.next < frame.count) {
		Cmc* child = frame.list[frame.next++];
		if (frame.owner->mChildren == frame.list && frame.owner->mChildCount == frame.count) {
			frame.expected = frame.next;
			return child;
		}
		const int place = frame.owner->placeOf(child, frame.expected);
		if (place < 0) continue;                    // it left, and may be gone
		if (child->mBirth > frame.opened) continue; // another one at the same address
		frame.expected = place + 1;
		return child;
	}
	return nullptr;
}

void ManagedWalk::leave() {
	WalkFrame* frame = mTop;
	mTop = frame->above;
	--mDepth;
	releaseShared(frame->block);
	// The frames of one object end in the order opposite to the one they began in.
	if (frame->owner) frame->owner->mWalks = frame->outer;
	if (mDepth < kFramesOnStack) return;
	frame->above = mSpare;
	mSpare = frame;
}

} // namespace core
