#include "../base/status.h"
#include "../platform/memory.h"
#include "variable_blocks_internal.h"

using namespace variable_sets;

namespace {

template <size_t size>
bool terminated(const char (&field)[size]) {
	return std::memchr(field, 0, size) != nullptr;
}

/// Whether a head of that type can be read there.
template <class Head>
const Head* headOf(const void* block, size_t length) {
	const bool possible = block && reinterpret_cast<uintptr_t>(block) % alignof(Head) == 0 && length >= sizeof(Head) &&
	                      length <= static_cast<size_t>(kMaximumBlock);
	return possible ? static_cast<const Head*>(block) : nullptr;
}

bool isSoundDefinition(const qorDVar_DATATYPE& definition) {
	const int64_t size = int64_t{definition.mCount} * elementSize(definition.mType);
	return terminated(definition.mID) && terminated(definition.mName) && terminated(definition.mText1) &&
	       terminated(definition.mText2) && definition.mCount >= 0 && definition.mSize == size;
}

} // namespace

int qorDVar_DataSetCheck(const void* block, size_t length) {
	const auto* set = headOf<qorDVar_DATASET>(block, length);
	if (!set || !terminated(set->mName) || set->mCount < 0) return kQorFailure;
	if (dataSetSize(set->mCount) != static_cast<int64_t>(length)) return kQorFailure;
	const auto* definition = reinterpret_cast<const qorDVar_DATATYPE*>(set + 1);
	const bool sound = std::all_of(definition, definition + set->mCount, isSoundDefinition);
	return sound ? kQorSuccess : kQorFailure;
}

int qorDVar_ValueSetCheck(const void* block, size_t length) {
	const auto* vs = headOf<qorDVar_VALUESET>(block, length);
	if (!vs || !terminated(vs->mID) || vs->mCount < 0) return kQorFailure;
	int64_t end = valueHeadSize(vs->mCount); // of the data so far
	if (vs->mTotalSize != static_cast<int64_t>(length) || end > vs->mTotalSize) return kQorFailure;
	const auto* value = reinterpret_cast<const qorDVar_VALUE*>(vs + 1);
	for (int32_t i = 0; i < vs->mCount; ++i, ++value) {
		if (!terminated(value->mID) || value->mOffset != end || value->mSize < 0) return kQorFailure;
		end += value->mSize;
		if (end > vs->mTotalSize) return kQorFailure;
	}
	return end == vs->mTotalSize ? kQorSuccess : kQorFailure;
}

void* variable_sets::copySoundBlock(const void* block, size_t length, int (*check)(const void* block, size_t length)) {
	if (!block || length > static_cast<size_t>(kMaximumBlock)) return nullptr;
	// Checked is the copy: it stands where a block must, and nobody else can change it.
	void* copy = platform::allocate(length);
	if (!copy) return nullptr;
	std::memcpy(copy, block, length);
	if (check(copy, length) == kQorSuccess) return copy;
	platform::release(copy);
	return nullptr;
}
