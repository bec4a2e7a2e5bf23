#include "variable_set.h"

#include "../base/status.h"
#include "../platform/format.h"
#include "../platform/memory.h"
#include "variable_blocks_internal.h"

#include <cstdarg>
#include <utility>

using namespace variable_sets;

namespace {

constexpr int64_t kElementSize = 4;

/// An index of a set that is large enough for one; null otherwise and without memory.
IdentifierIndex* makeIndex(const Records& records) {
	return records.count >= IdentifierIndex::kWorthwhile ? IdentifierIndex::make(records).release() : nullptr;
}

/// Formats aside first: the arguments may lie in the block, even in `out` itself.
bool formatAside(char* out, size_t room, const char* format, va_list arguments) {
	char shortText[1024];
	for (size_t size = sizeof(shortText);; size *= 8) {
		size = std::min(size, room);
		char* text = size <= sizeof(shortText) ? shortText : static_cast<char*>(platform::allocate(size));
		if (!text) return false;
		va_list again;
		va_copy(again, arguments);
		const size_t length = platform::formatTextV(text, size, format, again);
		va_end(again);
		// A cut text may leave up to 3 bytes free, for a character that did not fit.
		const bool whole = length + 4 < size || size == room;
		if (whole) std::memcpy(out, text, length + 1);
		if (text != shortText) platform::release(text);
		if (whole) return true;
	}
}

} // namespace

CqorDVar_DataSet::CqorDVar_DataSet() = default;

CqorDVar_DataSet::~CqorDVar_DataSet() { Free(); }

qorDVar_DATASET* CqorDVar_DataSet::GetBlock() const { return mBlock; }

/// Owns a new block, which may be null, instead of the old one.
void CqorDVar_DataSet::take(qorDVar_DATASET* block) {
	Free();
	mBlock = block;
	mIndex = makeIndex(definitions(mBlock));
}

int CqorDVar_DataSet::Alloc(const char* name) {
	take(qorDVar_DataSetAlloc(name));
	return mBlock ? kQorSuccess : kQorFailure;
}

int CqorDVar_DataSet::CopyFromBlock(const void* block, size_t length) {
	void* copy = copySoundBlock(block, length, qorDVar_DataSetCheck);
	if (!copy) return kQorFailure;
	take(static_cast<qorDVar_DATASET*>(copy));
	return kQorSuccess;
}

void CqorDVar_DataSet::Free() {
	qorDVar_DataSetFree(mBlock);
	mBlock = nullptr;
	IdentifierIndex::release(mIndex);
	mIndex = nullptr;
}

qorDVar_DATATYPE* CqorDVar_DataSet::AddVar(const char* id, const char* name, int type, int count, float minimum,
    float maximum, const char* text1, const char* text2) {
	qorDVar_DATATYPE definition;
	if (!mBlock || !define(&definition, id, name, type, count, minimum, maximum, text1, text2)) return nullptr;
	const Identifier identifier(definition.mID);
	const Records before = definitions(mBlock);
	// The index knows all that was added, so an identifier that it does not know is new.
	if ((mIndex ? mIndex->find(before, identifier) : identifier.walk(before)) != kNone) return nullptr;
	qorDVar_DATATYPE* added = appendDefinition(&mBlock, definition);
	if (!added) return nullptr;
	const Records now = definitions(mBlock);
	if (!mIndex || !mIndex->add(now, before.count)) {
		IdentifierIndex::release(mIndex);
		mIndex = makeIndex(now);
	}
	return added;
}

qorDVar_DATATYPE* CqorDVar_DataSet::AddVarStr(
    const char* id, const char* name, int length, const char* text1, const char* text2) {
	return AddVar(id, name, kVariableString, length, 0, 0, text1, text2);
}

qorDVar_DATATYPE* CqorDVar_DataSet::GetByIndex(int index) const { return definitionAt(mBlock, index); }

qorDVar_DATATYPE* CqorDVar_DataSet::GetByID(const char* id) const {
	return definitionAt(mBlock, find(definitions(mBlock), mIndex, id));
}

CqorDVar_ValueSet::CqorDVar_ValueSet(qorDVar_VALUESET* block) { Attach(block); }

CqorDVar_ValueSet::~CqorDVar_ValueSet() { Free(); }

qorDVar_VALUESET* CqorDVar_ValueSet::GetBlock() const { return mBlock; }

/// Owns a new block instead of the old one; null leaves the old one.
int CqorDVar_ValueSet::take(qorDVar_VALUESET* block) {
	if (!block) return kQorFailure;
	Free();
	mBlock = block;
	mIndex = makeIndex(descriptors(mBlock));
	return kQorSuccess;
}

int CqorDVar_ValueSet::AllocFromDataSet(const CqorDVar_DataSet* set, const char* id) {
	return take(set ? qorDVar_ValueSetAlloc(set->GetBlock(), id) : nullptr);
}

int CqorDVar_ValueSet::CopyFrom(const CqorDVar_ValueSet* source, const char* id, int markModified) {
	qorDVar_VALUESET* copy = source ? qorDVar_ValueSetAllocAndCopy(source->mBlock, markModified) : nullptr;
	if (copy && id) copyText(copy->mID, id);
	return take(copy);
}

int CqorDVar_ValueSet::CopyFromBlock(const void* block, size_t length) {
	return take(static_cast<qorDVar_VALUESET*>(copySoundBlock(block, length, qorDVar_ValueSetCheck)));
}

void CqorDVar_ValueSet::Free() { qorDVar_ValueSetFree(Detach()); }

qorDVar_VALUESET* CqorDVar_ValueSet::Detach() {
	IdentifierIndex::release(mIndex);
	mIndex = nullptr;
	return std::exchange(mBlock, nullptr);
}

int CqorDVar_ValueSet::Attach(qorDVar_VALUESET* block) {
	if (!block || !isSound(block)) return kQorFailure;
	if (block == mBlock) Detach();
	return take(block);
}

qorDVar_VALUE* CqorDVar_ValueSet::GetByIndex(int index) const { return descriptorAt(mBlock, index); }

qorDVar_VALUE* CqorDVar_ValueSet::GetByID(const char* id) const {
	return descriptorAt(mBlock, find(descriptors(mBlock), mIndex, id));
}

void* CqorDVar_ValueSet::GetValuePtrByIndex(int index) const { return valueData(mBlock, GetByIndex(index)); }
void* CqorDVar_ValueSet::GetValuePtrByID(const char* id) const { return valueData(mBlock, GetByID(id)); }

int CqorDVar_ValueSet::SetFlags(const char* id, unsigned long clear, unsigned long set) {
	return setFlags(GetByID(id), clear, set);
}

int CqorDVar_ValueSet::DebugLog(const qorDVar_DATASET* schema) const {
	if (!mBlock) return kQorFailure;
	qorDVar_ValueSetHdr_Debug(mBlock, schema);
	return kQorSuccess;
}

unsigned char* CqorDVar_ValueSet::elements(const char* id, int index, int count) const {
	const qorDVar_VALUE* value = GetByID(id);
	if (!valueData(mBlock, value)) return nullptr;
	return dataAt(mBlock, value->mOffset + index * kElementSize, count * kElementSize);
}

int CqorDVar_ValueSet::varSetInt32(const char* id, int index, int value) {
	unsigned char* element = elements(id, index, 1);
	if (!element) return kQorFailure;
	std::memcpy(element, &value, sizeof(value));
	return kQorSuccess;
}

int CqorDVar_ValueSet::varGetInt32(const char* id, int index) const {
	int value = 0;
	if (const unsigned char* element = elements(id, index, 1)) std::memcpy(&value, element, sizeof(value));
	return value;
}

float CqorDVar_ValueSet::varGetFloat32(const char* id, int index) const {
	float value = 0;
	if (const unsigned char* element = elements(id, index, 1)) std::memcpy(&value, element, sizeof(value));
	return value;
}

int CqorDVar_ValueSet::setFloats(const char* id, int index, const float* values, int count) {
	unsigned char* element = elements(id, index, count);
	if (!element) return kQorFailure;
	std::memcpy(element, values, static_cast<size_t>(count) * sizeof(*values));
	return kQorSuccess;
}

int CqorDVar_ValueSet::varSetFloat32(const char* id, int index, float f1) { return setFloats(id, index, &f1, 1); }
int CqorDVar_ValueSet::varSetFloat32(const char* id, int index, float f1, float f2) {
	const float values[] = {f1, f2};
	return setFloats(id, index, values, 2);
}
int CqorDVar_ValueSet::varSetFloat32(const char* id, int index, float f1, float f2, float f3) {
	const float values[] = {f1, f2, f3};
	return setFloats(id, index, values, 3);
}
int CqorDVar_ValueSet::varSetFloat32(const char* id, int index, float f1, float f2, float f3, float f4) {
	const float values[] = {f1, f2, f3, f4};
	return setFloats(id, index, values, 4);
}

int CqorDVar_ValueSet::varStrFillFromString(const char* id, const char* format, ...) {
	const qorDVar_VALUE* value = GetByID(id);
	auto* text = reinterpret_cast<char*>(valueData(mBlock, value));
	const size_t room = text ? static_cast<size_t>(mBlock->mTotalSize - value->mOffset) : 0;
	if (!format || room == 0) return kQorFailure;
	va_list arguments;
	va_start(arguments, format);
	const bool done = formatAside(text, room, format, arguments);
	va_end(arguments);
	return done ? kQorSuccess : kQorFailure;
}

int CqorDVar_ValueSet::varStrFillFromFile(const char* id, const char* path) {
	return fillFromFile(mBlock, GetByID(id), path);
}

int CqorDVar_ValueSet::varStrGet(const char* id, char* out, int size) const {
	if (!out || size < 1) return kQorFailure;
	const qorDVar_VALUE* value = GetByID(id);
	out[0] = 0;
	const auto* text = reinterpret_cast<const char*>(valueData(mBlock, value));
	if (!text) return kQorFailure;
	const auto room = static_cast<size_t>(mBlock->mTotalSize - value->mOffset);
	const size_t length = strnlen(text, std::min(room, static_cast<size_t>(size) - 1));
	std::memmove(out, text, length);
	out[length] = 0;
	return kQorSuccess;
}
