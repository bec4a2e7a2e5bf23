#include "../platform/memory.h"
#include "managed_object_internal.h"

#include <algorithm>
#include <cstring>

namespace core {

std::uint32_t ChildNames::hashOf(const char* name, std::size_t length) {
	std::uint64_t hash = 14695981039346656037u;
	for (std::size_t i = 0; i < length; ++i) hash = (hash ^ static_cast<unsigned char>(name[i])) * 1099511628211u;
	return static_cast<std::uint32_t>(hash ^ hash >> 32);
}

void ChildNames::clear() {
	platform::release(mEntries);
	platform::release(mBuckets);
	mEntries = nullptr;
	mBuckets = nullptr;
	mRoom = mUsed = mCovered = 0;
	mFree = kNone;
}

bool ChildNames::grow() {
	constexpr std::int32_t kSmallest = 64;
	if (mRoom > INT32_MAX / 2) return false;
	const std::int32_t room = std::max(kSmallest, mRoom * 2);
	auto* buckets = static_cast<std::int32_t*>(platform::allocate(room * sizeof *mBuckets));
	auto* entries = buckets ? static_cast<Entry*>(platform::reallocate(mEntries, room * sizeof *mEntries)) : nullptr;
	if (!entries) {
		platform::release(buckets);
		return false;
	}
	platform::release(mBuckets);
	mBuckets = buckets;
	mEntries = entries;
	mRoom = room;
	std::fill_n(mBuckets, mRoom, kNone);
	for (std::int32_t i = 0; i < mUsed; ++i) putIn(i, mEntries[i].hash); // none is free when the room is used up
	return true;
}

void ChildNames::putIn(std::int32_t entry, std::uint32_t hash) {
	mEntries[entry].hash = hash;
	std::int32_t* bucket = bucketOf(hash);
	mEntries[entry].next = *bucket;
	*bucket = entry;
}

bool ChildNames::add(Cmc* child, const char* name, std::size_t length) {
	if (mFree == kNone && mUsed == mRoom && !grow()) return false;
	std::int32_t entry = mFree;
	if (entry == kNone) {
		entry = mUsed++;
	} else {
		mFree = mEntries[entry].next;
	}
	mEntries[entry].child = child;
	mEntries[entry].order = mNextOrder++;
	putIn(entry, hashOf(name, length));
	++mCovered;
	return true;
}

/// @return the child's entry, in no bucket any more; `kNone` for one that is not covered.
std::int32_t ChildNames::takeOut(const Cmc* child, const char* name) {
	if (!mBuckets) return kNone;
	for (std::int32_t* at = bucketOf(hashOf(name, std::strlen(name))); *at != kNone; at = &mEntries[*at].next) {
		const std::int32_t entry = *at;
		if (mEntries[entry].child != child) continue;
		*at = mEntries[entry].next;
		return entry;
	}
	return kNone;
}

void ChildNames::remove(const Cmc* child, const char* name) {
	const std::int32_t entry = takeOut(child, name);
	if (entry == kNone) return;
	mEntries[entry].next = mFree;
	mFree = entry;
	--mCovered;
}

void ChildNames::rename(const Cmc* child, const char* oldName, const char* newName) {
	const std::int32_t entry = takeOut(child, oldName);
	if (entry != kNone) putIn(entry, hashOf(newName, std::strlen(newName)));
}

ManagedLinks::~ManagedLinks() { platform::release(holders); }

bool ManagedLinks::addHolder(Cmc* holder) {
	if (holderCount == holderRoom) {
		if (holderRoom > INT32_MAX / 2 - 2) return false;
		const std::int32_t room = holderRoom * 2 + 2;
		auto* grown = static_cast<Cmc**>(platform::reallocate(holders, room * sizeof *holders));
		if (!grown) return false;
		holders = grown;
		holderRoom = room;
	}
	holders[holderCount++] = holder;
	return true;
}

void ManagedLinks::removeHolder(const Cmc* holder) {
	Cmc** const end = holders + holderCount;
	Cmc** const place = std::find(holders, end, holder);
	if (place == end) return;
	*place = end[-1];
	--holderCount;
}

bool ManagedLinks::hasHolder(const Cmc* holder) const {
	return std::find(holders, holders + holderCount, holder) != holders + holderCount;
}

} // namespace core
