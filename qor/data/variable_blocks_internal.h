#pragma once

#include "variable_blocks.h"
#include "variable_identifiers_internal.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace variable_sets {

inline constexpr int64_t kMaximumBlock = std::numeric_limits<int32_t>::max();

/// Copies a text (null: empty) into a field, cut and terminated, zeros behind it.
template <size_t size>
void copyText(char (&field)[size], const char* text) {
	const size_t length = text ? strnlen(text, size - 1) : 0;
	if (length > 0) std::memcpy(field, text, length);
	std::memset(field + length, 0, size - length);
}

inline int64_t dataSetSize(int64_t count) {
	return int64_t{sizeof(qorDVar_DATASET)} + count * int64_t{sizeof(qorDVar_DATATYPE)};
}
inline int64_t valueHeadSize(int64_t count) {
	return int64_t{sizeof(qorDVar_VALUESET)} + count * int64_t{sizeof(qorDVar_VALUE)};
}

/// The element size of a type in bytes; 0 for an unknown one.
int elementSize(int type);

/// The definitions of a set; none for null or an impossible count.
inline Records definitions(const qorDVar_DATASET* set) {
	if (!set || set->mCount < 0 || dataSetSize(set->mCount) > kMaximumBlock) return {};
	return {reinterpret_cast<const unsigned char*>(set + 1), sizeof(qorDVar_DATATYPE), set->mCount};
}

/// The descriptors of a set, as many as its total size has room for.
inline Records descriptors(const qorDVar_VALUESET* vs) {
	if (!vs || vs->mTotalSize < static_cast<int32_t>(sizeof(*vs))) return {};
	const auto room = (static_cast<uint32_t>(vs->mTotalSize) - sizeof(*vs)) / sizeof(qorDVar_VALUE);
	const int32_t count = std::clamp(vs->mCount, 0, static_cast<int32_t>(room));
	return {reinterpret_cast<const unsigned char*>(vs + 1), sizeof(qorDVar_VALUE), count};
}

/// @return null for a place outside the set.
inline qorDVar_DATATYPE* definitionAt(qorDVar_DATASET* set, int32_t place) {
	return place < 0 || place >= definitions(set).count ? nullptr
	                                                    : reinterpret_cast<qorDVar_DATATYPE*>(set + 1) + place;
}
inline qorDVar_VALUE* descriptorAt(qorDVar_VALUESET* vs, int32_t place) {
	return place < 0 || place >= descriptors(vs).count ? nullptr : reinterpret_cast<qorDVar_VALUE*>(vs + 1) + place;
}
inline const qorDVar_VALUE* descriptorAt(const qorDVar_VALUESET* vs, int32_t place) {
	return descriptorAt(const_cast<qorDVar_VALUESET*>(vs), place);
}

/// The bytes `offset` to `offset` + `size` of a block.
/// @return null unless they lie among the data, behind the descriptors.
inline unsigned char* dataAt(qorDVar_VALUESET* vs, int64_t offset, int64_t size) {
	if (size < 0 || offset < valueHeadSize(descriptors(vs).count) || offset + size > vs->mTotalSize) return nullptr;
	return reinterpret_cast<unsigned char*>(vs) + offset;
}
/// The data of a value; null also for null.
inline unsigned char* valueData(qorDVar_VALUESET* vs, const qorDVar_VALUE* value) {
	return vs && value ? dataAt(vs, value->mOffset, value->mSize) : nullptr;
}
inline const unsigned char* valueData(const qorDVar_VALUESET* vs, const qorDVar_VALUE* value) {
	return valueData(const_cast<qorDVar_VALUESET*>(vs), value);
}

/// Whether a value set is sound for its total size: without its true length its own word has to do.
inline bool isSound(const qorDVar_VALUESET* vs) {
	return vs->mTotalSize >= 0 && qorDVar_ValueSetCheck(vs, static_cast<size_t>(vs->mTotalSize)) == 0;
}

/// Fills a definition. @return false for a negative count or too large a value.
bool define(qorDVar_DATATYPE* definition, const char* id, const char* name, int type, int count, float minimum,
    float maximum, const char* text1, const char* text2);
/// Appends without asking whether the identifier exists. @return null without memory or room.
qorDVar_DATATYPE* appendDefinition(qorDVar_DATASET** set, const qorDVar_DATATYPE& definition);

/// An index of records where walking for `lookups` identifiers would take longer; null
/// otherwise and without memory.
IdentifierIndex::Owner indexFor(const Records& records, int32_t lookups);

/// The operations of a value that was found; null is not found.
int setFlags(qorDVar_VALUE* value, unsigned long clear, unsigned long set);
int fillFromFile(qorDVar_VALUESET* vs, qorDVar_VALUE* value, const char* path);

/// @return the heap copy of a block that passes its check; null otherwise and without memory.
void* copySoundBlock(const void* block, size_t length, int (*check)(const void* block, size_t length));

} // namespace variable_sets
