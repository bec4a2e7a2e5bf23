#include "../platform/memory.h"
#include "log_lines_internal.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace core {

LineList::Place LineList::placeOf(size_t index) {
	const size_t shifted = index + kFirstBlock;
	const int block = static_cast<int>(std::bit_width(shifted) - std::bit_width(kFirstBlock));
	return {block, shifted - (kFirstBlock << block)};
}

void LineList::append(const char* line, size_t length) {
	const size_t count = mCount.load(std::memory_order_relaxed);
	const Place place = placeOf(count);
	if (place.block >= kBlocks) return;
	char**& block = mBlocks[place.block];
	if (!block) {
		block = static_cast<char**>(platform::allocate((kFirstBlock << place.block) * sizeof(char*)));
		if (!block) return;
	}
	auto* copy = static_cast<char*>(platform::allocate(length + 1));
	if (!copy) return;
	std::memcpy(copy, line, length);
	copy[length] = 0;
	block[place.offset] = copy;
	mCount.store(count + 1, std::memory_order_release);
}

const char* LineList::fromNewest(size_t index) const {
	const size_t count = size();
	if (count == 0) return nullptr;
	const Place place = placeOf(count - 1 - std::min(index, count - 1));
	return mBlocks[place.block][place.offset];
}

} // namespace core
