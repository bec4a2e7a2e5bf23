#include "../platform/memory.h"
#include "managed_object.h"

namespace {

constexpr int kSequenceGrowth = 1000;

bool growSequence(eqorMC_SEQHDR* header) {
	if (header->mCapacity > INT32_MAX - kSequenceGrowth) return false;
	const auto capacity = header->mCapacity + kSequenceGrowth;
	void* items = platform::reallocate(header->mItems, capacity * sizeof *header->mItems);
	if (!items) return false;
	header->mItems = static_cast<eqorMC_SEQITEM*>(items);
	header->mCapacity = capacity;
	return true;
}

} // namespace

int Cmc::_mcOnDispatchMsg(unsigned long, unsigned long, unsigned long, void*, void*, int) { return 0; }
int Cmc::_mcOnPostDispatchMsg(unsigned long, unsigned long, unsigned long, void*, void*, int) { return 0; }

void Cmc::handleBuiltInMessage(unsigned long message, void* p, int depth) {
	if (message == kMessageUnselect) {
		const auto* type = static_cast<const char*>(p);
		if (!type || istype(type)) _mcSelect(0);
	} else if (message == kMessageReport && p) {
		const auto* report = static_cast<const eqorMC_REPORT*>(p);
		if (report->mCallback && (!report->mType || istype(report->mType)))
			report->mCallback(report->mContext, this, depth);
	}
}

int Cmc::_mcDispatchMsg(unsigned long message, unsigned long a, unsigned long b, void* p, void* q, int depth) {
	if (depth >= 0) {
		handleBuiltInMessage(message, p, depth);
		if (_mcOnDispatchMsg(message, a, b, p, q, depth)) return 0;
	}
	// The count is read anew each time: a handler may remove children.
	for (int i = 0; i < mChildCount; ++i) mChildren[i]->_mcDispatchMsg(message, a, b, p, q, depth + 1);
	if (depth >= 0) _mcOnPostDispatchMsg(message, a, b, p, q, depth);
	return 0;
}

int Cmc::_mcUnselectAll(const char* type) {
	return _mcDispatchMsg(kMessageUnselect, 0, 0, const_cast<char*>(type), nullptr, 0);
}

int Cmc::_mcReport(void* context, const char* type, int (*callback)(void* context, Cmc* object, int depth)) {
	if (!callback) return kQorFailure;
	eqorMC_REPORT report{context, type, callback};
	return _mcDispatchMsg(kMessageReport, 0, 0, &report, nullptr, 0);
}

eqorMC_SEQHDR* Cmc::_mcAllocSeqHdr(int capacity) {
	if (capacity < 0) capacity = 0;
	void* block = platform::allocate(sizeof(eqorMC_SEQHDR));
	if (!block) return nullptr;
	auto* header = new (block) eqorMC_SEQHDR;
	header->mItems = static_cast<eqorMC_SEQITEM*>(platform::allocate(capacity * sizeof(eqorMC_SEQITEM)));
	if (!header->mItems) {
		platform::release(header);
		return nullptr;
	}
	header->mCapacity = capacity;
	return header;
}

void Cmc::_mcFreeSeqHdr(eqorMC_SEQHDR* header) {
	if (!header) return;
	platform::release(header->mItems);
	platform::release(header);
}

void Cmc::_mcInitSeqHdr(eqorMC_SEQHDR* header) {
	if (!header) return;
	eqorMC_SEQHDR empty;
	empty.mItems = header->mItems;
	empty.mCapacity = header->mCapacity;
	*header = empty;
}

eqorMC_SEQITEM* Cmc::_mcAllocItemFromSeqHdr(eqorMC_SEQHDR* header) {
	if (!header || header->mCount < 0) return nullptr;
	if (header->mCount >= header->mCapacity && !growSequence(header)) return nullptr;
	return &header->mItems[header->mCount++];
}

int Cmc::_mcfillseq(eqorMC_SEQHDR* header) {
	if (!header) return kQorFailure;
	int verdict = kSequenceAdd;
	if (fillSequence(header, &verdict) != kQorSuccess) return kQorFailure;
	return verdict == kSequenceSkipBranch || verdict == kSequenceAddLeaf ? 0 : header->mCount;
}

/// @param verdict receives what was decided about this object.
int Cmc::fillSequence(eqorMC_SEQHDR* header, int* verdict) {
	const bool passes = (!header->mType || istype(header->mType)) && (!header->mContext || isctx(header->mContext));
	*verdict = passes ? kSequenceAdd : kSequenceChildrenOnly;
	if (passes && header->mCallback) *verdict = header->mCallback(header, this);
	if (*verdict == kSequenceSkipBranch) return kQorSuccess;
	if (*verdict != kSequenceChildrenOnly) {
		auto* item = _mcAllocItemFromSeqHdr(header);
		if (!item) return kQorFailure;
		*item = {this, header->mDepth};
	}
	if (*verdict == kSequenceAddLeaf) return kQorSuccess;
	int result = kQorSuccess;
	++header->mDepth;
	for (int i = 0; i < mChildCount && result == kQorSuccess; ++i) {
		int childVerdict;
		result = mChildren[i]->fillSequence(header, &childVerdict);
	}
	--header->mDepth;
	return result;
}
