#include "../platform/memory.h"
#include "variable_blocks_internal.h"

#include <bit>

using namespace variable_sets;

int variable_sets::elementSize(int type) {
	switch (type) {
	case kVariableInt8:
	case kVariableSecondInt8:
	case kVariableString: return 1;
	case kVariableInt16:
	case kVariableSecondInt16: return 2;
	case kVariableInt32:
	case kVariableSecondInt32:
	case kVariableFloat32: return 4;
	case kVariableFloat64: return 8;
	default: return 0;
	}
}

bool variable_sets::define(qorDVar_DATATYPE* definition, const char* id, const char* name, int type, int count,
    float minimum, float maximum, const char* text1, const char* text2) {
	const int64_t size = int64_t{count} * elementSize(type);
	if (!id || count < 0 || size > kMaximumBlock) return false;
	copyText(definition->mID, id);
	copyText(definition->mName, name);
	definition->mType = type;
	definition->mCount = count;
	definition->mMinimum = minimum;
	definition->mMaximum = maximum;
	copyText(definition->mText1, text1);
	copyText(definition->mText2, text2);
	definition->mSize = static_cast<int32_t>(size);
	definition->mReserved = 0;
	return true;
}

/// Memory is asked for in steps of an eighth of the size, so most requests repeat the size
/// that the block has already and the heap leaves it in place. A block of its exact size
/// needs no more than the first of them.
qorDVar_DATATYPE* variable_sets::appendDefinition(qorDVar_DATASET** set, const qorDVar_DATATYPE& definition) {
	const int32_t count = (*set)->mCount;
	if (count < 0 || dataSetSize(int64_t{count} + 1) > kMaximumBlock) return nullptr;
	const auto bytes = static_cast<size_t>(dataSetSize(int64_t{count} + 1));
	const size_t step = std::bit_floor(bytes) / 8; // a power of two
	void* block = platform::reallocate(*set, (bytes + step - 1) & ~(step - 1));
	if (!block) return nullptr;
	*set = static_cast<qorDVar_DATASET*>(block);
	auto* added = reinterpret_cast<qorDVar_DATATYPE*>(*set + 1) + count;
	*added = definition;
	(*set)->mCount = count + 1;
	return added;
}

qorDVar_DATASET* qorDVar_DataSetAlloc(const char* name) {
	auto* set = static_cast<qorDVar_DATASET*>(platform::allocateZeroed(sizeof(qorDVar_DATASET)));
	if (set) copyText(set->mName, name);
	return set;
}

void qorDVar_DataSetFree(qorDVar_DATASET* set) { platform::release(set); }

qorDVar_DATASET* qorDVar_DataSetMakeCopy(const qorDVar_DATASET* set, const char* newName) {
	if (!set || definitions(set).count != set->mCount) return nullptr;
	const auto bytes = static_cast<size_t>(dataSetSize(set->mCount));
	auto* copy = static_cast<qorDVar_DATASET*>(platform::allocate(bytes));
	if (!copy) return nullptr;
	std::memcpy(copy, set, bytes);
	if (newName) copyText(copy->mName, newName);
	return copy;
}

qorDVar_DATATYPE* qorDVar_DataSetAddVar(qorDVar_DATASET** set, const char* id, const char* name, int type, int count,
    float minimum, float maximum, const char* text1, const char* text2) {
	qorDVar_DATATYPE definition;
	if (!set || !*set || !define(&definition, id, name, type, count, minimum, maximum, text1, text2)) return nullptr;
	if (find(definitions(*set), nullptr, definition.mID) != kNone) return nullptr;
	return appendDefinition(set, definition);
}

qorDVar_DATATYPE* qorDVar_DataSetGetVarPtr(qorDVar_DATASET* set, int index) { return definitionAt(set, index); }

qorDVar_DATATYPE* qorDVar_DataSetGetVarPtrByID(qorDVar_DATASET* set, const char* id) {
	return definitionAt(set, find(definitions(set), nullptr, id));
}
