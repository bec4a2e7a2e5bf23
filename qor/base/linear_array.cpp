#include "linear_array.h"

#include "mem_vector_internal.h"

#include <algorithm>
#include <cstring>
#include <utility>

CstmLinearArray::CstmLinearArray(size_t itemSize, unsigned long flags) : CstmMemVector(flags), mItemSize(itemSize) {}

CstmLinearArray::~CstmLinearArray() = default;

namespace {

/// Whether `count` items of `itemSize` bytes can be counted. Usual sizes need no division.
bool canCount(size_t count, size_t itemSize) { return itemSize <= UINT32_MAX / 2 || count <= SIZE_MAX / itemSize; }

} // namespace

void* CstmLinearArray::laAdd(int count, int zero) {
	if (count < 1) return mData;
	if (mItemSize == 0 || count > INT32_MAX - mItemCount) return nullptr;
	const auto newCount = static_cast<size_t>(mItemCount) + static_cast<size_t>(count);
	const auto before = static_cast<size_t>(mByteSize); // the items
	if (!canCount(newCount, mItemSize) || !mvResize(newCount * mItemSize)) return nullptr;
	mItemCount = static_cast<int32_t>(newCount);
	if (zero) std::memset(mData + before, 0, static_cast<size_t>(mByteSize) - before);
	return mData + before;
}

void* CstmLinearArray::laInsert(int index, int count, int zero) {
	if (index < 0 || mItemSize == 0) return nullptr;
	if (count < 1) return index < mItemCount ? mData + static_cast<size_t>(index) * mItemSize : nullptr;
	if (count > INT32_MAX - mItemCount) return nullptr;
	const auto newCount = static_cast<size_t>(mItemCount) + static_cast<size_t>(count);
	if (!canCount(newCount, mItemSize) || !mvResize(newCount * mItemSize)) return nullptr;

	const auto before = static_cast<size_t>(std::min(index, mItemCount)) * mItemSize;
	const auto added = static_cast<size_t>(count) * mItemSize;
	const auto behind = static_cast<size_t>(mItemCount) * mItemSize - before;
	if (behind > 0) std::memmove(mData + before + added, mData + before, behind);
	if (zero) std::memset(mData + before, 0, added);
	mItemCount = static_cast<int32_t>(newCount);
	return mData + before;
}

void* CstmLinearArray::laDelete(int index, int count) {
	if (index < 0 || index >= mItemCount) return nullptr;
	const int removed = std::clamp(count, 0, mItemCount - index);
	if (removed == 0) return mData + static_cast<size_t>(index) * mItemSize;
	const int behind = mItemCount - index - removed;
	auto* place = mData + static_cast<size_t>(index) * mItemSize;
	if (behind > 0) {
		std::memmove(place, place + static_cast<size_t>(removed) * mItemSize, static_cast<size_t>(behind) * mItemSize);
	}
	mItemCount -= removed;
	if (mItemCount > 0)
		mvResize(static_cast<size_t>(mItemCount) * mItemSize); // smaller, so never refused
	else
		mvRelease();
	return behind > 0 ? mData + static_cast<size_t>(index) * mItemSize : nullptr;
}

void* CstmLinearArray::laGetAddress(int index) const {
	if (index < 0 || mItemCount == 0) return nullptr;
	if (index >= mItemCount) {
		if (!(mFlags & kIndexWrapping)) return nullptr;
		index %= mItemCount;
	}
	return mData + static_cast<size_t>(index) * mItemSize;
}

void CstmLinearArray::laClear() {
	mvRelease();
	mItemCount = 0;
}

void CstmLinearArray::laSwap(CstmLinearArray& other) {
	mvSwap(other);
	std::swap(mItemSize, other.mItemSize);
	std::swap(mItemCount, other.mItemCount);
}
