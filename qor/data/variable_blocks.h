#pragma once

#include "../platform/export.h"

#include <cstddef>
#include <cstdint>
#include <type_traits>

/// Variable sets: records whose fields are defined at run time, in blocks that can be copied,
/// stored and sent as a whole.
///
/// A data set is the schema, a list of variable definitions; a value set holds the values of
/// one record. Both are one block without pointers, little-endian. docs/formats/variable_set.md
/// shows the bytes. The classes of variable_set.h own one block each and find identifiers
/// faster.
///
/// **Foreign blocks.** A block from a file or the wire is given to `qorDVar_DataSetCheck` or
/// `qorDVar_ValueSetCheck` with its true length before anything else. The functions stay
/// inside a block that has passed: they go by its own count and total size and refuse what
/// would lead outside. Blocks stand at a multiple of 4, as all of the heap do; no block is
/// larger than 2147483647 bytes.
///
/// **Identifiers** are compared exactly. Texts are cut to the room of their field (31
/// characters, 127 for the identifier of a value set), and null counts as empty. A longer
/// identifier is therefore stored cut, and only its stored form finds it. Lookups give the
/// first match.
///
/// **Memory.** Blocks that functions give belong to the caller, who frees them with
/// `qorDVar_DataSetFree` or `qorDVar_ValueSetFree`; blocks that functions replace must come
/// from this library. A function that fails leaves its block as it was.
///
/// **Threads.** Any number of threads may read a block; whoever changes it is alone.

/// Type codes. Both integer families have the same sizes; which of them is signed is up to
/// the hosts. A code that is not listed has elements of 0 bytes.
inline constexpr int kVariableInt8 = 11;
inline constexpr int kVariableInt16 = 12;
inline constexpr int kVariableInt32 = 13;
inline constexpr int kVariableSecondInt8 = 21;
inline constexpr int kVariableSecondInt16 = 22;
inline constexpr int kVariableSecondInt32 = 23;
inline constexpr int kVariableFloat32 = 31;
inline constexpr int kVariableFloat64 = 32;
inline constexpr int kVariableString = 41; // the element count is the capacity in bytes

/// The flag of a value that was modified.
inline constexpr uint32_t kVariableModified = 1;

/// The definition of a variable.
struct qorDVar_DATATYPE {
	char mID[32];
	char mName[32];
	int32_t mType;
	int32_t mCount; // elements
	float mMinimum;
	float mMaximum;
	char mText1[32]; // for example a unit
	char mText2[32]; // for example a display format
	int32_t mSize;   // bytes of the value: elements x element size
	int32_t mReserved;
};
static_assert(sizeof(qorDVar_DATATYPE) == 152);
static_assert(offsetof(qorDVar_DATATYPE, mName) == 32 && offsetof(qorDVar_DATATYPE, mType) == 64);
static_assert(offsetof(qorDVar_DATATYPE, mCount) == 68 && offsetof(qorDVar_DATATYPE, mMinimum) == 72);
static_assert(offsetof(qorDVar_DATATYPE, mText1) == 80 && offsetof(qorDVar_DATATYPE, mText2) == 112);
static_assert(offsetof(qorDVar_DATATYPE, mSize) == 144 && offsetof(qorDVar_DATATYPE, mReserved) == 148);

/// The head of a data set; `mCount` definitions follow.
struct qorDVar_DATASET {
	char mName[32];
	int32_t mCount;
};
static_assert(sizeof(qorDVar_DATASET) == 36 && offsetof(qorDVar_DATASET, mCount) == 32);

/// The descriptor of a value.
struct qorDVar_VALUE {
	char mID[32];
	int32_t mReserved;
	uint32_t mFlags;
	int32_t mOffset; // of the data from the start of the block, not aligned
	int32_t mSize;   // bytes
};
static_assert(sizeof(qorDVar_VALUE) == 48);
static_assert(offsetof(qorDVar_VALUE, mReserved) == 32 && offsetof(qorDVar_VALUE, mFlags) == 36);
static_assert(offsetof(qorDVar_VALUE, mOffset) == 40 && offsetof(qorDVar_VALUE, mSize) == 44);

/// The head of a value set; `mCount` descriptors and then the data of the values follow.
struct qorDVar_VALUESET {
	char mID[128];
	int32_t mCount;
	int32_t mTotalSize; // bytes of the whole block
};
static_assert(sizeof(qorDVar_VALUESET) == 136);
static_assert(offsetof(qorDVar_VALUESET, mCount) == 128 && offsetof(qorDVar_VALUESET, mTotalSize) == 132);

/// Tells whether `length` bytes are a sound data set: as long as its count says, all texts
/// terminated, no negative count, every value size the one of its type.
/// @return 0; 0x10000000 otherwise, also for null and an address that is no multiple of 4.
QOR_API int qorDVar_DataSetCheck(const void* block, size_t length);

/// Tells whether `length` bytes are a sound value set: a total size of `length`, all
/// identifiers terminated, and the data in the order of the descriptors, without gaps or
/// overlaps up to the end.
/// @return as `qorDVar_DataSetCheck`.
QOR_API int qorDVar_ValueSetCheck(const void* block, size_t length);

/// @return a data set without variables; null without memory.
QOR_API qorDVar_DATASET* qorDVar_DataSetAlloc(const char* name);
QOR_API void qorDVar_DataSetFree(qorDVar_DATASET* set);

/// @param newName null keeps the name.
/// @return a copy; null for null, an impossible count, or without memory.
QOR_API qorDVar_DATASET* qorDVar_DataSetMakeCopy(const qorDVar_DATASET* set, const char* newName);

/// Appends a definition. The block may move: `*set` and pointers to definitions change.
/// @return the new definition, valid until the next change; null, with the set as it was,
///         for a null set or identifier, an identifier that exists, a negative count, a value
///         or a block above 2147483647 bytes, or without memory.
QOR_API qorDVar_DATATYPE* qorDVar_DataSetAddVar(qorDVar_DATASET** set, const char* id, const char* name, int type,
    int count, float minimum, float maximum, const char* text1, const char* text2);

/// @return null outside the set.
QOR_API qorDVar_DATATYPE* qorDVar_DataSetGetVarPtr(qorDVar_DATASET* set, int index);
/// Walks the set. @return null when there is none.
QOR_API qorDVar_DATATYPE* qorDVar_DataSetGetVarPtrByID(qorDVar_DATASET* set, const char* id);

/// @return a value set without values; null without memory.
QOR_API qorDVar_VALUESET* qorDVar_ValueSetAlloc(const char* id);
/// Makes a value set for a schema: all values zero, in the schema's order.
/// @return null for a null schema, a negative count or size in it, more than 2147483647 bytes,
///         or without memory.
QOR_API qorDVar_VALUESET* qorDVar_ValueSetAlloc(const qorDVar_DATASET* set, const char* id);
/// @param markModified not 0: sets the modified bit of every value of the copy.
/// @return a copy; null for null, a block that is not sound for its total size, or without memory.
QOR_API qorDVar_VALUESET* qorDVar_ValueSetAllocAndCopy(const qorDVar_VALUESET* vs, int markModified);
QOR_API void qorDVar_ValueSetFree(qorDVar_VALUESET* vs);

/// Makes a new block of `*dest` and, behind its values, the value `id` of `src` with its
/// flags, and replaces `*dest`; the old block is freed. `src` may be `*dest`. An identifier
/// that `*dest` has already is appended all the same, and lookups keep finding the first.
/// @return 0; 0x10000000, with nothing changed, for null, an empty `src`, an unknown
///         identifier, a block that is not sound for its total size, more than 2147483647
///         bytes, or without memory.
QOR_API int qorDVar_ValueSetAppendCopyValue(qorDVar_VALUESET** dest, const qorDVar_VALUESET* src, const char* id);

/// @return null outside the set.
QOR_API qorDVar_VALUE* qorDVar_ValueSetGetVarPtr(qorDVar_VALUESET* vs, int index);
/// Walks the set. @return null when there is none.
QOR_API qorDVar_VALUE* qorDVar_ValueSetGetVarPtrByID(qorDVar_VALUESET* vs, const char* id);
/// The data of a value, not aligned: copy numbers with memcpy.
/// @return null for null, or a descriptor whose data do not lie among the data of the block.
QOR_API void* qorDVar_ValueSetGetVarValuePtr(qorDVar_VALUESET* vs, const qorDVar_VALUE* value);
QOR_API void* qorDVar_ValueSetGetVarValuePtrByID(qorDVar_VALUESET* vs, const char* id);

/// The same for blocks that are only read. (Templates, so that a bare null still calls those above.)
template <class Set, class = std::enable_if_t<std::is_same_v<Set, const qorDVar_DATASET>>>
const qorDVar_DATATYPE* qorDVar_DataSetGetVarPtr(Set* set, int index) {
	return qorDVar_DataSetGetVarPtr(const_cast<qorDVar_DATASET*>(set), index);
}
template <class Set, class = std::enable_if_t<std::is_same_v<Set, const qorDVar_DATASET>>>
const qorDVar_DATATYPE* qorDVar_DataSetGetVarPtrByID(Set* set, const char* id) {
	return qorDVar_DataSetGetVarPtrByID(const_cast<qorDVar_DATASET*>(set), id);
}
template <class Set, class = std::enable_if_t<std::is_same_v<Set, const qorDVar_VALUESET>>>
const qorDVar_VALUE* qorDVar_ValueSetGetVarPtr(Set* vs, int index) {
	return qorDVar_ValueSetGetVarPtr(const_cast<qorDVar_VALUESET*>(vs), index);
}
template <class Set, class = std::enable_if_t<std::is_same_v<Set, const qorDVar_VALUESET>>>
const qorDVar_VALUE* qorDVar_ValueSetGetVarPtrByID(Set* vs, const char* id) {
	return qorDVar_ValueSetGetVarPtrByID(const_cast<qorDVar_VALUESET*>(vs), id);
}
template <class Set, class = std::enable_if_t<std::is_same_v<Set, const qorDVar_VALUESET>>>
const void* qorDVar_ValueSetGetVarValuePtr(Set* vs, const qorDVar_VALUE* value) {
	return qorDVar_ValueSetGetVarValuePtr(const_cast<qorDVar_VALUESET*>(vs), value);
}
template <class Set, class = std::enable_if_t<std::is_same_v<Set, const qorDVar_VALUESET>>>
const void* qorDVar_ValueSetGetVarValuePtrByID(Set* vs, const char* id) {
	return qorDVar_ValueSetGetVarValuePtrByID(const_cast<qorDVar_VALUESET*>(vs), id);
}

/// Clears and then sets flags of a value; masks are of 32 bits.
/// @return 0; 0x10000000 for null, both masks 0, an empty set or an unknown identifier.
QOR_API int qorDVar_ValueSet_SetFlags(qorDVar_VALUESET* vs, const char* id, unsigned long clear, unsigned long set);

/// Copies the values of `sub`, in its order, into those of `dest` with the same identifier and
/// size and sets their modified bit. Values without such a partner are skipped.
/// @return 0; 0x10000000 for null or when `sub` is not sound for its total size (nothing is copied).
QOR_API int qorDVar_ValueSet_UpdateFromSubSet(qorDVar_VALUESET* dest, const qorDVar_VALUESET* sub);

/// Empties the value `id`, reads a whole file into it, terminates it and sets the modified bit.
/// @return 0; 0x10000000 for a null set, an unknown identifier or a value of 0 bytes (nothing is
///         changed), or for a file that is not there, is not shorter than the value or cannot
///         be read (the value is left empty, its flags as they were).
QOR_API int qorDVar_ValueSet_FillStrFromFile(qorDVar_VALUESET* vs, const char* id, const char* path);

/// Writes two upper-case hexadecimal digits a byte and a terminator.
/// @param out room for 2 x `size` + 1 characters, apart from `data`.
/// @return 0; 0x10000000, with nothing written, for null or a negative size.
QOR_API int qorDVar_Value_MakeHexString(char* out, const void* data, int size);

/// Decodes pairs of digits to at most `maxOut` bytes. Only "0" to "9" and "A" to "F" count;
/// any other character is a digit 0, lower-case letters included: writers of this format use
/// upper case, and readers may rely on the rest giving zeros.
/// @param length characters of `hex`; a last one without a partner is left out. Nothing is read
///        behind a terminator among them; the rest count as digits 0.
/// @return 0; 0x10000000, with nothing written, for null or a negative length or maximum.
QOR_API int qorDVar_Value_DecodeFromHexString(void* out, const char* hex, int length, int maxOut);

/// Logs the head of a value set and one line for each value that has a definition in
/// `schema`: strings up to 256 characters, type 13 as "%d,", type 31 as "%.5f,", other types
/// without their data. The type decides, as far as the value's size allows. Control characters
/// in texts of the block stand as escapes such as "\n". Lines too long for the log are cut. Null:
/// logs nothing. The set must last until the call returns, so a log callback leaves it alone.
QOR_API void qorDVar_ValueSetHdr_Debug(const qorDVar_VALUESET* vs, const qorDVar_DATASET* schema);
