#pragma once

#include "variable_blocks.h"

namespace variable_sets {
class IdentifierIndex;
}

/// Owns one data set block and an index of its identifiers, so that ten thousand variables
/// are added and found without walks.
///
/// One thread at a time changes a set; any number may look up meanwhile nobody does.
/// Identifiers in the block are not to be edited: the index would not know.
class QOR_API CqorDVar_DataSet {
public:
	CqorDVar_DataSet();
	~CqorDVar_DataSet();
	CqorDVar_DataSet(const CqorDVar_DataSet&) = delete;
	CqorDVar_DataSet& operator=(const CqorDVar_DataSet&) = delete;

	/// Starts an empty set; the old block is freed in any case.
	/// @return 0; 0x10000000 without memory, then there is no block.
	int Alloc(const char* name);
	/// Takes a copy of a block from outside, at any address.
	/// @return 0; 0x10000000, with the set as it was, for a block that is not sound
	///         (`qorDVar_DataSetCheck`) or without memory.
	int CopyFromBlock(const void* block, size_t length);
	void Free();

	/// As `qorDVar_DataSetAddVar`; null also without a block.
	qorDVar_DATATYPE* AddVar(const char* id, const char* name, int type, int count, float minimum, float maximum,
	    const char* text1, const char* text2);
	/// Adds a string of `length` bytes, the terminator included, with the range 0.
	qorDVar_DATATYPE* AddVarStr(const char* id, const char* name, int length, const char* text1, const char* text2);

	/// @return null when there is none. Definitions move when a variable is added.
	qorDVar_DATATYPE* GetByIndex(int index) const;
	qorDVar_DATATYPE* GetByID(const char* id) const;

	/// The block, null without one. It moves when a variable is added and must not be freed
	/// or enlarged by others.
	qorDVar_DATASET* GetBlock() const;

private:
	void take(qorDVar_DATASET* block);

	qorDVar_DATASET* mBlock = nullptr;
	variable_sets::IdentifierIndex* mIndex = nullptr; // null: small set, or no memory; walked then
};

/// Owns one value set block and an index of its identifiers: a lookup costs the same in a
/// set of ten and of ten thousand variables.
///
/// Any number of threads may look up and read at once; different values may be written at
/// once, too. Making, copying, freeing and detaching belong to one thread while nobody else
/// uses the set. The index holds hints only: what it gives is compared with the block, and
/// what it does not know is searched by a walk. So an identifier that a host writes into the
/// block is found, but where it repeats another, either may be.
///
/// Typed access goes by element index: 4-byte elements from the start of the value's data.
/// It checks neither type nor element count, so that a host may treat neighbouring values as
/// one array; it never leaves the data of the block. Only `varStrFillFromFile` sets the
/// modified bit by itself.
///
/// Operations answer 0x10000000, getters 0 or null, without a block or the identifier.
class QOR_API CqorDVar_ValueSet {
public:
	/// Takes over a block of this library, which is freed with the set. One that is not sound
	/// for its total size is not taken: `GetBlock` is null then, and the block is still the
	/// caller's. For a block from outside see `CopyFromBlock`.
	explicit CqorDVar_ValueSet(qorDVar_VALUESET* block = nullptr);
	~CqorDVar_ValueSet();
	CqorDVar_ValueSet(const CqorDVar_ValueSet&) = delete;
	CqorDVar_ValueSet& operator=(const CqorDVar_ValueSet&) = delete;

	/// Each replaces the block, and with it all pointers into it.
	/// @return 0; 0x10000000, with the set as it was, for null, a set without a block, or as
	///         the functions on blocks.
	int AllocFromDataSet(const CqorDVar_DataSet* set, const char* id);
	/// @param id the copy's own; null keeps the one of `source`.
	/// @param markModified not 0: sets the modified bit of every value.
	int CopyFrom(const CqorDVar_ValueSet* source, const char* id, int markModified);
	/// Takes a copy of a block from outside, at any address; fails for one that is not sound
	/// (`qorDVar_ValueSetCheck`).
	int CopyFromBlock(const void* block, size_t length);
	void Free();

	/// The block, null without one, for reading and for the functions that change values. It
	/// must not be freed or replaced by others.
	qorDVar_VALUESET* GetBlock() const;
	/// Gives the block to the caller and leaves the set empty.
	qorDVar_VALUESET* Detach();
	/// Takes over a block as the constructor does, instead of the old one.
	/// @return 0; 0x10000000, with the set as it was, for null or a block that is not sound.
	int Attach(qorDVar_VALUESET* block);

	qorDVar_VALUE* GetByIndex(int index) const;
	qorDVar_VALUE* GetByID(const char* id) const;
	/// As `qorDVar_ValueSetGetVarValuePtr`.
	void* GetValuePtrByIndex(int index) const;
	void* GetValuePtrByID(const char* id) const;

	/// As `qorDVar_ValueSet_SetFlags`.
	int SetFlags(const char* id, unsigned long clear, unsigned long set);
	int SetModified(const char* id) { return SetFlags(id, 0, kVariableModified); }
	int ClearModified(const char* id) { return SetFlags(id, kVariableModified, 0); }

	/// As `qorDVar_ValueSetHdr_Debug`.
	int DebugLog(const qorDVar_DATASET* schema) const;
	int DebugLog(std::nullptr_t) const { return DebugLog(static_cast<const qorDVar_DATASET*>(nullptr)); }
	int DebugLog(const CqorDVar_DataSet* schema) const { return DebugLog(schema ? schema->GetBlock() : nullptr); }

	/// An element outside the data of the block is refused: 0x10000000, or 0 from a getter.
	/// Negative indexes reach the values before, never the descriptors.
	int varSetInt32(const char* id, int index, int value);
	int varGetInt32(const char* id, int index) const;
	float varGetFloat32(const char* id, int index) const;
	/// One to four consecutive elements, all or none.
	int varSetFloat32(const char* id, int index, float f1);
	int varSetFloat32(const char* id, int index, float f1, float f2);
	int varSetFloat32(const char* id, int index, float f1, float f2, float f3);
	int varSetFloat32(const char* id, int index, float f1, float f2, float f3, float f4);

	/// Formats a text into the value (with the log's directives). A text longer than the value
	/// runs on into the values behind it, so that neighbouring strings can be filled as one;
	/// it is cut at the end of the block and always terminated.
	/// @return 0; 0x10000000 also for a null format, a value at the very end of the block, or
	///         without memory for a text above 1,000 characters.
	int varStrFillFromString(const char* id, const char* format, ...);
	/// As `qorDVar_ValueSet_FillStrFromFile`.
	int varStrFillFromFile(const char* id, const char* path);
	/// Copies the text of a value, cut to `size` - 1 characters and terminated. Like a text
	/// that was filled in it ends at its terminator or at the end of the block.
	/// @return 0; 0x10000000, with `out` empty, without the value; also for a null `out` or a
	///         size below 1.
	int varStrGet(const char* id, char* out, int size) const;

private:
	int take(qorDVar_VALUESET* block);
	unsigned char* elements(const char* id, int index, int count) const;
	int setFloats(const char* id, int index, const float* values, int count);

	qorDVar_VALUESET* mBlock = nullptr;
	variable_sets::IdentifierIndex* mIndex = nullptr; // null: small set, or no memory; walked then
};
