#include "line_buffer_array.h"

#include "../platform/memory.h"
#include "status.h"

#include <algorithm>

CstmRawObjLineArray::CstmRawObjLineArray(unsigned long unitSize)
    : CstmLinearArray(sizeof(LineBuffer)), mUnitSize(static_cast<uint32_t>(unitSize)) {}

CstmRawObjLineArray::~CstmRawObjLineArray() { Release(); }

void* CstmRawObjLineArray::insertBuffer(int index, unsigned long elements) {
	if (elements > UINT32_MAX) return nullptr;
	const uint64_t bytes = static_cast<uint64_t>(elements) * mUnitSize;
	if (bytes > SIZE_MAX / 2) return nullptr;
	// The buffer first: the list never holds an item without one.
	void* data = platform::allocate(static_cast<size_t>(bytes));
	if (!data) return nullptr;
	auto* item = static_cast<LineBuffer*>(laInsert(index, 1));
	if (!item) {
		platform::release(data);
		return nullptr;
	}
	*item = {data, static_cast<uint32_t>(elements)};
	return data;
}

int CstmRawObjLineArray::Append(unsigned long elements) {
	return insertBuffer(mItemCount, elements) ? kQorSuccess : kQorFailure;
}

int CstmRawObjLineArray::InsertAt(int index, unsigned long elements) {
	if (index < 0) return kQorFailure;
	return insertBuffer(std::min(index, mItemCount), elements) ? kQorSuccess : kQorFailure;
}

int CstmRawObjLineArray::DeleteAt(int index) {
	const auto* item = static_cast<LineBuffer*>(laGetAddress(index));
	if (!item) return kQorFailure;
	platform::release(item->mData);
	laDelete(index, 1);
	return kQorSuccess;
}

void* CstmRawObjLineArray::GetLineBuffer(int index) const {
	const auto* item = static_cast<LineBuffer*>(laGetAddress(index));
	return item ? item->mData : nullptr;
}

unsigned long CstmRawObjLineArray::GetLineBufferCount(int index) const {
	const auto* item = static_cast<LineBuffer*>(laGetAddress(index));
	return item ? item->mCount : 0;
}

size_t CstmRawObjLineArray::GetLineBufferByteSize(int index) const {
	return static_cast<size_t>(GetLineBufferCount(index)) * mUnitSize;
}

void CstmRawObjLineArray::Release() {
	for (int i = 0; i < mItemCount; ++i) platform::release(GetLineBuffer(i));
	laClear();
}
