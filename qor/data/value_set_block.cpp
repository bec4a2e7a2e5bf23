#include "../base/file.h"
#include "../base/status.h"
#include "../platform/memory.h"
#include "variable_blocks_internal.h"

using namespace variable_sets;

namespace {

constexpr int32_t kLookupsWorthAnIndex = 32;

/// A zeroed block with its head; null without memory or for an impossible size.
qorDVar_VALUESET* makeBlock(int32_t count, int64_t totalSize) {
	if (totalSize > kMaximumBlock) return nullptr;
	auto* vs = static_cast<qorDVar_VALUESET*>(platform::allocateZeroed(static_cast<size_t>(totalSize)));
	if (!vs) return nullptr;
	vs->mCount = count;
	vs->mTotalSize = static_cast<int32_t>(totalSize);
	return vs;
}

/// Puts the offsets behind each other, as the sizes say.
void placeValues(qorDVar_VALUESET* vs) {
	auto* value = reinterpret_cast<qorDVar_VALUE*>(vs + 1);
	auto offset = static_cast<int32_t>(valueHeadSize(vs->mCount));
	for (int32_t i = 0; i < vs->mCount; ++i, ++value) {
		value->mOffset = offset;
		offset += value->mSize;
	}
}

/// Appends a value of `src` to a copy of `dest`, both sound.
qorDVar_VALUESET* joined(const qorDVar_VALUESET* dest, const qorDVar_VALUESET* src, const qorDVar_VALUE* value) {
	constexpr size_t kDescriptor = sizeof(qorDVar_VALUE);
	const auto head = static_cast<size_t>(valueHeadSize(dest->mCount));
	const auto total = static_cast<size_t>(dest->mTotalSize), size = static_cast<size_t>(value->mSize);
	auto* vs = makeBlock(dest->mCount, static_cast<int64_t>(total + kDescriptor + size));
	if (!vs) return nullptr;
	const auto* from = reinterpret_cast<const unsigned char*>(dest);
	auto* to = reinterpret_cast<unsigned char*>(vs);
	const int32_t newTotal = vs->mTotalSize;
	std::memcpy(to, from, head);
	std::memcpy(to + head, value, kDescriptor);
	std::memcpy(to + head + kDescriptor, from + head, total - head);
	std::memcpy(to + total + kDescriptor, valueData(src, value), size);
	vs->mCount = dest->mCount + 1;
	vs->mTotalSize = newTotal;
	placeValues(vs);
	return vs;
}

} // namespace

IdentifierIndex::Owner variable_sets::indexFor(const Records& records, int32_t lookups) {
	const bool worthwhile = lookups >= kLookupsWorthAnIndex && records.count >= IdentifierIndex::kWorthwhile;
	return worthwhile ? IdentifierIndex::make(records) : nullptr;
}

qorDVar_VALUESET* qorDVar_ValueSetAlloc(const char* id) {
	qorDVar_VALUESET* vs = makeBlock(0, sizeof(qorDVar_VALUESET));
	if (vs) copyText(vs->mID, id);
	return vs;
}

qorDVar_VALUESET* qorDVar_ValueSetAlloc(const qorDVar_DATASET* set, const char* id) {
	if (!set || definitions(set).count != set->mCount) return nullptr;
	const auto* definition = reinterpret_cast<const qorDVar_DATATYPE*>(set + 1);
	int64_t total = valueHeadSize(set->mCount);
	for (int32_t i = 0; i < set->mCount; ++i) {
		if (definition[i].mSize < 0) return nullptr;
		total += definition[i].mSize;
	}
	qorDVar_VALUESET* vs = makeBlock(set->mCount, total);
	if (!vs) return nullptr;
	copyText(vs->mID, id);
	auto* value = reinterpret_cast<qorDVar_VALUE*>(vs + 1);
	for (int32_t i = 0; i < set->mCount; ++i) {
		char identifier[kIdentifierSize + 1] = ""; // the field of a foreign schema may lack a terminator
		std::memcpy(identifier, definition[i].mID, kIdentifierSize);
		copyText(value[i].mID, identifier);
		value[i].mSize = definition[i].mSize;
	}
	placeValues(vs);
	return vs;
}

qorDVar_VALUESET* qorDVar_ValueSetAllocAndCopy(const qorDVar_VALUESET* vs, int markModified) {
	if (!vs || !isSound(vs)) return nullptr;
	const auto bytes = static_cast<size_t>(vs->mTotalSize);
	auto* copy = static_cast<qorDVar_VALUESET*>(platform::allocate(bytes));
	if (!copy) return nullptr;
	std::memcpy(copy, vs, bytes);
	auto* value = reinterpret_cast<qorDVar_VALUE*>(copy + 1);
	for (int32_t i = 0; markModified && i < copy->mCount; ++i) value[i].mFlags |= kVariableModified;
	return copy;
}

void qorDVar_ValueSetFree(qorDVar_VALUESET* vs) { platform::release(vs); }

int qorDVar_ValueSetAppendCopyValue(qorDVar_VALUESET** dest, const qorDVar_VALUESET* src, const char* id) {
	if (!dest || !*dest || !src || !id || !isSound(*dest) || !isSound(src)) return kQorFailure;
	const qorDVar_VALUE* value = descriptorAt(src, find(descriptors(src), nullptr, id));
	qorDVar_VALUESET* vs = value ? joined(*dest, src, value) : nullptr;
	if (!vs) return kQorFailure;
	qorDVar_ValueSetFree(*dest);
	*dest = vs;
	return kQorSuccess;
}

qorDVar_VALUE* qorDVar_ValueSetGetVarPtr(qorDVar_VALUESET* vs, int index) { return descriptorAt(vs, index); }

qorDVar_VALUE* qorDVar_ValueSetGetVarPtrByID(qorDVar_VALUESET* vs, const char* id) {
	return descriptorAt(vs, find(descriptors(vs), nullptr, id));
}

void* qorDVar_ValueSetGetVarValuePtr(qorDVar_VALUESET* vs, const qorDVar_VALUE* value) { return valueData(vs, value); }

void* qorDVar_ValueSetGetVarValuePtrByID(qorDVar_VALUESET* vs, const char* id) {
	return valueData(vs, qorDVar_ValueSetGetVarPtrByID(vs, id));
}

int variable_sets::setFlags(qorDVar_VALUE* value, unsigned long clear, unsigned long set) {
	const auto clearMask = static_cast<uint32_t>(clear), setMask = static_cast<uint32_t>(set);
	if (!value || (clearMask == 0 && setMask == 0)) return kQorFailure;
	value->mFlags = (value->mFlags & ~clearMask) | setMask;
	return kQorSuccess;
}

int qorDVar_ValueSet_SetFlags(qorDVar_VALUESET* vs, const char* id, unsigned long clear, unsigned long set) {
	return setFlags(qorDVar_ValueSetGetVarPtrByID(vs, id), clear, set);
}

int qorDVar_ValueSet_UpdateFromSubSet(qorDVar_VALUESET* dest, const qorDVar_VALUESET* sub) {
	if (!dest || !sub || !isSound(sub)) return kQorFailure;
	const Records targets = descriptors(dest);
	const IdentifierIndex::Owner index = indexFor(targets, sub->mCount);
	for (int32_t i = 0; i < sub->mCount; ++i) {
		const qorDVar_VALUE* from = descriptorAt(sub, i);
		const Identifier identifier(from->mID);
		qorDVar_VALUE* to = descriptorAt(dest, index ? index->find(targets, identifier) : identifier.walk(targets));
		unsigned char* data = valueData(dest, to);
		if (!data || to->mSize != from->mSize) continue;
		std::memmove(data, valueData(sub, from), static_cast<size_t>(to->mSize)); // `sub` may be `dest`
		to->mFlags |= kVariableModified;
	}
	return kQorSuccess;
}

int variable_sets::fillFromFile(qorDVar_VALUESET* vs, qorDVar_VALUE* value, const char* path) {
	unsigned char* text = valueData(vs, value);
	if (!text || value->mSize < 1) return kQorFailure;
	CstFile file;
	const bool open = path && file.OpenReadOnly(path) == 0; // before the value is emptied: it may hold the path
	text[0] = 0;
	const long long size = open ? file.GetSize64() : -1;
	if (size < 0 || size >= value->mSize) return kQorFailure;
	const auto bytes = static_cast<unsigned long>(size);
	char more = 0; // a file that is longer by now, or never told its size, is not read in part
	if (file.Read(text, bytes) != bytes || file.Read(&more, 1) != 0) {
		text[0] = 0;
		return kQorFailure;
	}
	text[bytes] = 0;
	value->mFlags |= kVariableModified;
	return kQorSuccess;
}

int qorDVar_ValueSet_FillStrFromFile(qorDVar_VALUESET* vs, const char* id, const char* path) {
	return fillFromFile(vs, qorDVar_ValueSetGetVarPtrByID(vs, id), path);
}
