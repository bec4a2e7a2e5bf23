#pragma once

#include "linear_array.h"

/// A list of separately allocated line buffers. A buffer keeps its address until it is
/// deleted, whatever happens to the list. Not locked.
class QOR_API CstmRawObjLineArray : public CstmLinearArray {
public:
	/// @param unitSize bytes per element
	explicit CstmRawObjLineArray(unsigned long unitSize);
	~CstmRawObjLineArray();

	/// Adds a buffer of `elements` elements with undefined contents at the end.
	/// @return 0; 0x10000000, with nothing changed, without memory.
	int Append(unsigned long elements);
	/// The same before `index`; an index at or past the end appends.
	/// @return as `Append`, 0x10000000 also for a negative index.
	int InsertAt(int index, unsigned long elements);
	/// Frees a buffer and takes it out of the list. @return 0; 0x10000000 for a bad index.
	int DeleteAt(int index);

	int GetCount() const { return mItemCount; }
	/// @return null for a bad index.
	void* GetLineBuffer(int index) const;
	/// Elements and bytes of a buffer; 0 for a bad index.
	unsigned long GetLineBufferCount(int index) const;
	size_t GetLineBufferByteSize(int index) const;

	/// Frees every buffer and the list.
	void Release();

protected:
	struct LineBuffer {
		void* mData;
		uint32_t mCount; // elements
	};
	static_assert(sizeof(LineBuffer) == 16);

	// An item without its buffer must not come to be, so these are not for callers.
	using CstmLinearArray::laAdd;
	using CstmLinearArray::laDelete;
	using CstmLinearArray::laInsert;

	/// Makes room for a buffer before `index` (0 to the count). @return its data; null without memory.
	void* insertBuffer(int index, unsigned long elements);

	uint32_t mUnitSize; // bytes
};
