#include "../platform/memory.h"
#include "image_cache_index_internal.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

namespace storage {

namespace {

/// @return false, with the block as it was, without memory.
template <class T>
bool resize(T*& block, size_t count) {
	if (count > std::numeric_limits<size_t>::max() / sizeof(T)) return false;
	auto* moved = static_cast<T*>(platform::reallocate(block, count * sizeof(T)));
	if (moved) block = moved;
	return moved != nullptr;
}

template <class T>
void moveWithin(T* items, uint32_t to, uint32_t from, uint32_t count) {
	std::memmove(items + to, items + from, count * sizeof(T));
}

} // namespace

SizeOrder::~SizeOrder() {
	platform::release(mLeads);
	platform::release(mBlocks);
}

bool SizeOrder::reserve(uint32_t count) {
	// All blocks but a single one hold kLeast pairs, and a split needs a block before that is so again.
	const uint32_t room = count / kLeast + 2;
	if (room <= mRoom) return true;
	if (!resize(mLeads, room) || !resize(mBlocks, room)) return false;
	const bool fresh = mRoom == 0;
	while (mRoom < room) {
		mBlocks[mRoom].count = mUnused;
		mUnused = mRoom++;
	}
	if (fresh) clear();
	return true;
}

void SizeOrder::clear() {
	if (mRoom == 0) return;
	while (mLeadCount > 0) closeLead(mLeadCount - 1);
	openLead(0, {0, 0});
}

void SizeOrder::openLead(uint32_t index, const Pair& least) {
	const uint32_t block = mUnused;
	mUnused = mBlocks[block].count;
	mBlocks[block].count = 0;
	moveWithin(mLeads, index + 1, index, mLeadCount++ - index);
	mLeads[index] = {least, block};
}

void SizeOrder::closeLead(uint32_t index) {
	blockOf(index).count = mUnused;
	mUnused = mLeads[index].block;
	moveWithin(mLeads, index, index + 1, --mLeadCount - index);
}

/// The last lead that is not behind the pair.
uint32_t SizeOrder::leadOf(const Pair& pair) const {
	uint32_t low = 0;
	for (uint32_t left = mLeadCount; left > 1;) {
		const uint32_t half = left / 2;
		const bool behind = pair < mLeads[low + half].least;
		low += behind ? 0 : half;
		left = behind ? half : left - half;
	}
	return low;
}

/// The position of the first pair that is not before this one.
uint32_t SizeOrder::positionIn(const Block& block, const Pair& pair) {
	return static_cast<uint32_t>(std::lower_bound(block.pairs, block.pairs + block.count, pair) - block.pairs);
}

void SizeOrder::movePairs(Block& to, uint32_t at, const Block& from, uint32_t first, uint32_t count) {
	std::memmove(to.pairs + at, from.pairs + first, count * sizeof(Pair));
}

void SizeOrder::insert(uint64_t size, uint32_t place) {
	const Pair pair{size, place};
	uint32_t lead = leadOf(pair);
	if (blockOf(lead).count == kMost) {
		split(lead);
		lead = leadOf(pair);
	}
	Block& block = blockOf(lead);
	const uint32_t position = positionIn(block, pair);
	movePairs(block, position + 1, block, position, block.count++ - position);
	block.pairs[position] = pair;
}

void SizeOrder::split(uint32_t lead) {
	constexpr uint32_t half = kMost / 2;
	const Block& full = blockOf(lead);
	openLead(lead + 1, full.pairs[half]);
	movePairs(blockOf(lead + 1), 0, full, half, half);
	blockOf(lead).count = blockOf(lead + 1).count = half;
}

void SizeOrder::remove(uint64_t size, uint32_t place) {
	const uint32_t lead = leadOf({size, place});
	removeAt(lead, positionIn(blockOf(lead), {size, place}));
}

void SizeOrder::removeAt(uint32_t lead, uint32_t position) {
	Block& block = blockOf(lead);
	movePairs(block, position, block, position + 1, --block.count - position);
	if (block.count < kLeast && mLeadCount > 1) balance(lead + 1 < mLeadCount ? lead : lead - 1);
}

/// Makes one block of this one and the next, or two of the same length.
void SizeOrder::balance(uint32_t lead) {
	Block& left = blockOf(lead);
	Block& right = blockOf(lead + 1);
	const uint32_t total = left.count + right.count;
	if (total <= kMerged) {
		movePairs(left, left.count, right, 0, right.count);
		left.count = total;
		closeLead(lead + 1);
		return;
	}
	const uint32_t half = total / 2;
	if (left.count < half) {
		const uint32_t moved = half - left.count;
		movePairs(left, left.count, right, 0, moved);
		movePairs(right, 0, right, moved, right.count - moved);
	} else {
		const uint32_t moved = left.count - half;
		movePairs(right, moved, right, 0, right.count);
		movePairs(right, 0, left, half, moved);
	}
	left.count = half;
	right.count = total - half;
	mLeads[lead + 1].least = right.pairs[0];
}

uint32_t SizeOrder::takeFrom(uint64_t size) {
	if (mLeadCount == 0) return kNoPlace;
	uint32_t lead = leadOf({size, 0});
	uint32_t position = positionIn(blockOf(lead), {size, 0});
	if (position == blockOf(lead).count) {
		if (++lead == mLeadCount) return kNoPlace;
		position = 0;
	}
	const uint32_t place = blockOf(lead).pairs[position].place;
	removeAt(lead, position);
	return place;
}

uint64_t SizeOrder::largest() const {
	if (mLeadCount == 0) return 0;
	const Block& last = blockOf(mLeadCount - 1);
	return last.count > 0 ? last.pairs[last.count - 1].size : 0;
}

PageIndex::~PageIndex() {
	platform::release(mEntries);
	platform::release(mFree);
}

bool PageIndex::reserve(uint32_t places) {
	if (places <= mRoom) return true;
	const uint32_t room = std::max({places, uint32_t{64}, mRoom < kNoPlace / 2 ? mRoom * 2 : kNoPlace - 1});
	if (!resize(mEntries, room) || !resize(mFree, room / 64 + 1) || !mOrder.reserve(room)) return false;
	mRoom = room;
	return true;
}

void PageIndex::clear() {
	mUsed = mCount = mFreeHint = 0;
	mTotalBytes = mFreeBytes = 0;
	mOrder.clear();
}

uint32_t PageIndex::append(CqorICachePage* page, uint64_t size) {
	const uint32_t place = mUsed++;
	mEntries[place] = {page, size};
	if (place % 64 == 0) mFree[place / 64] = 0;
	mTotalBytes += size;
	++mCount;
	return place;
}

void PageIndex::remove(uint32_t place) {
	if (isFree(place)) setLent(place);
	mTotalBytes -= mEntries[place].size;
	mEntries[place] = {nullptr, 0};
	--mCount;
}

void PageIndex::setSize(uint32_t place, uint64_t size) {
	mTotalBytes += size - mEntries[place].size;
	mEntries[place].size = size;
}

void PageIndex::setFree(uint32_t place) {
	const uint64_t size = mEntries[place].size;
	mFree[place / 64] |= uint64_t{1} << (place % 64);
	mFreeHint = std::min(mFreeHint, place / 64);
	mFreeBytes += size;
	mOrder.insert(size, place);
}

void PageIndex::setLent(uint32_t place) {
	mOrder.remove(mEntries[place].size, place);
	clearFree(place);
}

uint32_t PageIndex::lendBestFit(uint64_t size) {
	const uint32_t place = mOrder.takeFrom(size);
	if (place != kNoPlace) clearFree(place);
	return place;
}

void PageIndex::clearFree(uint32_t place) {
	mFree[place / 64] &= ~(uint64_t{1} << (place % 64));
	mFreeBytes -= mEntries[place].size;
}

uint32_t PageIndex::nextFree(uint32_t place) {
	const uint32_t words = (mUsed + 63) / 64;
	while (mFreeHint < words && mFree[mFreeHint] == 0) ++mFreeHint;
	uint32_t word = std::max(place / 64, mFreeHint);
	if (word >= words) return kNoPlace;
	uint64_t bits = mFree[word];
	if (word == place / 64) bits &= ~uint64_t{0} << (place % 64);
	while (bits == 0 && ++word < words) bits = mFree[word];
	return bits != 0 ? word * 64 + static_cast<uint32_t>(std::countr_zero(bits)) : kNoPlace;
}

} // namespace storage
