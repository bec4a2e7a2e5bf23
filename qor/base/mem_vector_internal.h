#pragma once

#include "mem_vector.h"

// Inlined into the containers of this folder: most changes stay within the block.
inline void* CstmMemVector::mvResize(size_t size) {
	constexpr uint64_t kShrinkAt = 4; // a size below this part of the block makes it smaller
	const bool fits = size <= mCapacity && (size >= mCapacity / kShrinkAt || mCapacity <= kSmallestGrown);
	if (!fits && !refit(size)) return nullptr;
	mByteSize = size;
	return mData;
}
