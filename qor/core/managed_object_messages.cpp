#include "../platform/memory.h"
#include "managed_object_internal.h"

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
			base::callHost("report", [&] { report->mCallback(report->mContext, this, depth); });
	}
}

int Cmc::_mcDispatchMsg(unsigned long message, unsigned long a, unsigned long b, void* p, void* q, int depth) {
	core::ManagedWalk walk;
	int result = kQorSuccess;
	const auto visit = [&](Cmc* object, int at) {
		const auto entered = walk.enter(object);
		if (entered == core::ManagedWalk::Entered::noMemory) result = kQorFailure;
		if (entered != core::ManagedWalk::Entered::yes) return;
		if (at >= 0) object->handleBuiltInMessage(message, p, at);
		const bool stop = at >= 0 && walk.object() && base::callHost("Cmc::_mcOnDispatchMsg", [&] {
			return object->_mcOnDispatchMsg(message, a, b, p, q, at) != 0;
		});
		if (stop || !walk.object()) return walk.leave();
		walk.open();
	};
	visit(this, depth);
	while (walk.depth() > 0) {
		const int at = depth + walk.depth() - 1;
		if (Cmc* child = walk.next()) {
			visit(child, at + 1);
			continue;
		}
		Cmc* done = walk.object();
		if (done && at >= 0)
			base::callHost("Cmc::_mcOnPostDispatchMsg", [&] { done->_mcOnPostDispatchMsg(message, a, b, p, q, at); });
		walk.leave();
	}
	return result;
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

namespace {

/// What filters and callback of the header decide about an object.
int verdictOn(eqorMC_SEQHDR* header, Cmc* object) {
	const bool passes =
	    (!header->mType || object->istype(header->mType)) && (!header->mContext || object->isctx(header->mContext));
	if (!passes) return kSequenceChildrenOnly;
	if (!header->mCallback) return kSequenceAdd;
	return base::callHost("sequence filter", [&] { return header->mCallback(header, object); });
}

} // namespace

/// @param verdict receives what was decided about this object.
int Cmc::fillSequence(eqorMC_SEQHDR* header, int* verdict) {
	core::ManagedWalk walk;
	int result = kQorSuccess;
	const std::int32_t depth = header->mDepth; // of this object
	const auto visit = [&](Cmc* object) {
		const auto entered = walk.enter(object);
		if (entered == core::ManagedWalk::Entered::noMemory) result = kQorFailure;
		if (entered != core::ManagedWalk::Entered::yes) return;
		header->mDepth = depth + walk.depth() - 1;
		const int decided = verdictOn(header, object);
		if (walk.depth() == 1) *verdict = decided;
		if (!walk.object() || decided == kSequenceSkipBranch) return walk.leave();
		if (decided != kSequenceChildrenOnly) {
			auto* item = _mcAllocItemFromSeqHdr(header);
			if (item) *item = {object, depth + walk.depth() - 1};
			if (!item) result = kQorFailure;
		}
		if (decided == kSequenceAddLeaf) return walk.leave();
		walk.open();
	};
	visit(this);
	while (walk.depth() > 0 && result == kQorSuccess) {
		if (Cmc* child = walk.next()) {
			visit(child);
		} else {
			walk.leave();
		}
	}
	header->mDepth = depth;
	return result;
}
