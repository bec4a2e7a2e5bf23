#pragma once

#include "../base/host_call_internal.h"
#include "managed_object.h"

#include <cstddef>
#include <cstdint>

/// What stands behind a managed object: who lists it without being its parent, and the names of
/// its children. See managed_object_list.cpp for the child list itself.
namespace core {

inline const char* nameOf(const Cmc& object) {
	return base::callHost("Cmc::getname", [&] { return object.getname(); });
}

inline const char* typeOf(const Cmc& object) {
	return base::callHost("Cmc::gettype", [&] { return object.gettype(); });
}

/// Numbers the objects of the process in the order they are made.
std::uint64_t nextBirth();

/// The names of the first children of a long list, for look-ups by name.
///
/// A name that a class makes up itself cannot be followed; lists with such a child are not indexed.
/// Without memory there is no index, and look-ups go through the list.
class ChildNames {
public:
	ChildNames() = default;
	ChildNames(const ChildNames&) = delete;
	ChildNames& operator=(const ChildNames&) = delete;
	~ChildNames() { clear(); }

	void clear();
	int covered() const { return mCovered; }
	/// Adds the child behind those covered. @return false without memory.
	bool add(Cmc* child, const char* name, std::size_t length);
	/// Takes a child out that stands among those covered.
	void remove(const Cmc* child, const char* name);
	/// Does nothing for a child that is not covered yet.
	void rename(const Cmc* child, const char* oldName, const char* newName);
	/// The first child in the list's order for which `matches` is true, among those of that name.
	template <class Matches>
	Cmc* find(const char* name, std::size_t length, Matches matches) const {
		const Entry* best = nullptr;
		for (auto at = mBuckets ? *bucketOf(hashOf(name, length)) : kNone; at != kNone; at = mEntries[at].next) {
			const Entry& entry = mEntries[at];
			if ((!best || entry.order < best->order) && matches(entry.child)) best = &entry;
		}
		return best ? best->child : nullptr;
	}

private:
	static constexpr std::int32_t kNone = -1;
	struct Entry {
		Cmc* child;
		std::uint64_t order; // grows along the list
		std::uint32_t hash;
		std::int32_t next; // of the bucket, or of the free entries
	};

	static std::uint32_t hashOf(const char* name, std::size_t length);
	std::int32_t* bucketOf(std::uint32_t hash) const {
		return mBuckets + (hash & (static_cast<std::uint32_t>(mRoom) - 1));
	}
	std::int32_t takeOut(const Cmc* child, const char* name);
	void putIn(std::int32_t entry, std::uint32_t hash);
	bool grow();

	Entry* mEntries = nullptr;
	std::int32_t* mBuckets = nullptr; // as many as there is room for entries
	std::int32_t mRoom = 0;           // a power of two
	std::int32_t mUsed = 0;           // entries in use or free
	std::int32_t mFree = kNone;
	std::int32_t mCovered = 0;
	std::uint64_t mNextOrder = 0;
};

/// Made when it is needed first, and gone with its object.
struct ManagedLinks {
	ManagedLinks() = default;
	ManagedLinks(const ManagedLinks&) = delete;
	ManagedLinks& operator=(const ManagedLinks&) = delete;
	~ManagedLinks();

	bool addHolder(Cmc* holder);
	void removeHolder(const Cmc* holder);
	bool hasHolder(const Cmc* holder) const;

	Cmc** holders = nullptr; // objects that list this one and are not its parent
	std::int32_t holderCount = 0;
	std::int32_t holderRoom = 0;
	ChildNames names;

	// Of the search for ancestors that came by last.
	std::uint64_t search = 0;
	std::int32_t nextHolder = 0;
	ManagedLinks* pending = nullptr;
};

/// An object that a walk is inside of.
struct WalkFrame {
	Cmc* owner = nullptr;       // null when it was destroyed meanwhile
	WalkFrame* outer = nullptr; // of the same object
	const void* walk = nullptr;
	Cmc** list = nullptr;     // the children as they were when `open` was called
	void* block = nullptr;    // of the list, shared with the object
	std::uint64_t opened = 0; // objects born later were not there
	std::int32_t count = 0;
	std::int32_t next = 0;
	std::int32_t expected = 0;  // where the object has the next child now, if nothing changed
	WalkFrame* above = nullptr; // the frame entered before, or the next spare one
};

/// A walk through a tree, parents before children, that bears what handlers do meanwhile: children
/// may join, leave, move and be destroyed, and so may the object that is being handled. A child
/// that is in the list when its parent is opened, and still there when its turn comes, is met once.
/// Deep trees cost memory, not stack, and an object that stands below itself is met once.
class ManagedWalk {
public:
	enum class Entered { yes, noMemory, already };

	ManagedWalk() = default;
	ManagedWalk(const ManagedWalk&) = delete;
	ManagedWalk& operator=(const ManagedWalk&) = delete;
	~ManagedWalk();

	Entered enter(Cmc* object);
	/// Takes the list of the children of the object entered last.
	void open();
	/// The next child of that list; null at its end or when the object is gone.
	Cmc* next();
	/// The object entered last; null when it is gone.
	Cmc* object() const { return mTop->owner; }
	void leave();
	/// Objects that the walk is inside of.
	int depth() const { return mDepth; }

private:
	static constexpr int kFramesOnStack = 16;

	WalkFrame* newFrame();

	WalkFrame mFirst[kFramesOnStack];
	WalkFrame* mTop = nullptr;
	WalkFrame* mSpare = nullptr;
	int mDepth = 0;
};

} // namespace core
