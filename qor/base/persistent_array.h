#pragma once

#include "linear_array.h"

struct CstmPersistentLinearArrayConstants {
	static constexpr unsigned long kDefaultPage = 65536; ///< elements
};

/// An array whose elements never move: they stand in pages of one size, and only the list
/// of pages is resized. Elements start zeroed; an address is valid until `FreeAllBuffers`.
/// Making an element is nearly always an addition. Not locked.
class QOR_API CstmPersistentLinearArray : public CstmLinearArray, public CstmPersistentLinearArrayConstants {
public:
	/// @param elementSize bytes
	explicit CstmPersistentLinearArray(unsigned long elementSize);
	~CstmPersistentLinearArray();

	/// Adds a page. The first one fixes the elements per page for the life of the array
	/// (0: `kDefaultPage`), also beyond `FreeAllBuffers`; later counts are ignored.
	/// @return 0; 0x10000000, with nothing changed, for an element size of 0 or without memory.
	int AddBuffer(unsigned long elements);

	/// The next element not yet handed out, from a new page if need be.
	/// @param pageSizeHint elements per page, if this makes the first page (0: `kDefaultPage`)
	/// @return null when `AddBuffer` fails.
	void* AddItem(unsigned long pageSizeHint = 0);

	/// @return an element handed out before; null for any other index.
	void* GetItem(unsigned long index) const;

	/// Elements handed out.
	unsigned long GetCount() const { return mHandedOut; }

	/// Releases every page; all addresses become invalid.
	void FreeAllBuffers();

private:
	using CstmLinearArray::laAdd;
	using CstmLinearArray::laDelete;
	using CstmLinearArray::laInsert;

	CstmLinearArray* page(int index) const;

	uint32_t mElementSize; // bytes
	uint32_t mElementsPerPage = 0;
	uint32_t mHandedOut = 0;
	uint32_t mAvailable = 0; // elements of all pages
	// The next element and the end of its page; equal when a page has to be begun.
	unsigned char* mNext = nullptr;
	unsigned char* mPageEnd = nullptr;
};
