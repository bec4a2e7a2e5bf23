#include "persistent_array.h"

#include "status.h"

#include <climits>
#include <new>

CstmPersistentLinearArray::CstmPersistentLinearArray(unsigned long elementSize)
    : CstmLinearArray(sizeof(CstmLinearArray*)),
      mElementSize(elementSize > UINT32_MAX ? 0 : static_cast<uint32_t>(elementSize)) {}

CstmPersistentLinearArray::~CstmPersistentLinearArray() { FreeAllBuffers(); }

int CstmPersistentLinearArray::AddBuffer(unsigned long elements) {
	if (elements == 0) elements = kDefaultPage;
	if (mElementsPerPage != 0) elements = mElementsPerPage;
	if (mElementSize == 0 || elements > INT_MAX || elements > UINT32_MAX - mAvailable) return kQorFailure;

	auto* added = new (std::nothrow) CstmLinearArray(mElementSize, kAligned);
	if (!added) return kQorFailure;
	auto** place = added->laAdd(static_cast<int>(elements), 1) ? static_cast<CstmLinearArray**>(laAdd(1)) : nullptr;
	if (!place) {
		delete added;
		return kQorFailure;
	}
	*place = added;
	mElementsPerPage = static_cast<uint32_t>(elements);
	mAvailable += mElementsPerPage;
	return kQorSuccess;
}

void* CstmPersistentLinearArray::AddItem(unsigned long pageSizeHint) {
	if (mNext == mPageEnd) {
		if (mHandedOut == mAvailable && AddBuffer(pageSizeHint) != kQorSuccess) return nullptr;
		const auto* holder = page(static_cast<int>(mHandedOut / mElementsPerPage));
		mNext = static_cast<unsigned char*>(holder->mvGetData());
		mPageEnd = mNext + holder->mvGetSize();
	}
	auto* element = mNext;
	mNext += mElementSize;
	++mHandedOut;
	return element;
}

void* CstmPersistentLinearArray::GetItem(unsigned long index) const {
	if (index >= mHandedOut) return nullptr;
	const auto* holder = page(static_cast<int>(index / mElementsPerPage));
	return holder->laGetAddress(static_cast<int>(index % mElementsPerPage));
}

void CstmPersistentLinearArray::FreeAllBuffers() {
	for (int i = 0; i < mItemCount; ++i) delete page(i);
	laClear();
	mHandedOut = 0;
	mAvailable = 0;
	mNext = mPageEnd = nullptr;
}

CstmLinearArray* CstmPersistentLinearArray::page(int index) const {
	return *static_cast<CstmLinearArray**>(laGetAddress(index));
}
