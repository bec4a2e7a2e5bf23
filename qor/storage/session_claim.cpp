#include "session_claim_internal.h"

#include "session.h"

#include <cstring>

namespace storage_parts {

namespace {

/// Bytes of the target that the frames of a record take.
long long bytesOf(const emsSTORAGE_SESSION& record) {
	if (record.mBytesWritten < 0) return kUnknownEnd;
	const long long counted =
	    hasUsableSizes(record) ? saturatedProduct(record.mFrameCount, record.mAlignedFrameSize) : 0;
	return std::max<long long>(record.mBytesWritten, counted);
}

const char* faultOf(const emsSTORAGE_SESSION& record, long long end, long long heldBytes) {
	constexpr long long kIndexes = 1ll << 32;
	const bool hasFrames = record.mFrameCount > 0 || record.mBytesWritten > 0;
	if (!hasUsableSizes(record) || (!record.mFrameSize && hasFrames)) return "frame sizes";
	if (static_cast<long long>(record.mFirstIndex) + record.mFrameCount > kIndexes) return "frame count";
	if (record.mStoragePos < 0 || record.mStoragePos % kFrameAlignment || record.mBytesWritten < 0 ||
	    end == kUnknownEnd) {
		return "position";
	}
	if (heldBytes != kUnknownSize && end > heldBytes) return "frames beyond the end of the data target";
	return nullptr;
}

/// The frames whose place is known: those that were written, and that the target still holds.
long long framesThere(const emsSTORAGE_SESSION& record, long long heldBytes) {
	const long long aligned = record.mAlignedFrameSize;
	if (!aligned || !hasUsableSizes(record) || record.mBytesWritten < 0 || record.mStoragePos < 0 ||
	    record.mStoragePos % kFrameAlignment) {
		return 0;
	}
	const long long end = heldBytes != kUnknownSize ? heldBytes : kUnknownEnd;
	const long long room = std::max(0ll, end - record.mStoragePos);
	return std::min<long long>(record.mFrameCount, std::min<long long>(record.mBytesWritten, room) / aligned);
}

} // namespace

bool hasUsableSizes(const emsSTORAGE_SESSION& record) {
	const uint32_t frame = record.mFrameSize, aligned = record.mAlignedFrameSize;
	return frame <= kMaximumFrameSize && aligned >= frame && aligned - frame < kFrameAlignment &&
	       aligned % kFrameAlignment == 0;
}

long long placeOfFrame(const emsSTORAGE_SESSION& record, long long number) {
	if (record.mStoragePos < 0 || number < 0) return kUnknownEnd;
	return saturatedSum(record.mStoragePos, saturatedProduct(number, record.mAlignedFrameSize));
}

void SessionClaim::include(long long begin, long long bytes) {
	if (bytes <= 0) return;
	const bool isFirst = mEnd <= mBegin;
	mBegin = isFirst ? begin : std::min(mBegin, begin);
	mEnd = std::max(mEnd, saturatedSum(begin, bytes));
}

SessionClaim claimOf(const emsSTORAGE_SESSION& record, long long heldBytes, long long targetBytes) {
	SessionClaim claim;
	if (isEmptyRecord(record)) {
		claim.mFault = "it is empty, and where its frames stand is not known";
		claim.mEnd = kUnknownEnd;
		return claim;
	}
	const long long bytes = bytesOf(record);
	// A negative position is a damaged one: the frames may stand anywhere.
	claim.include(std::max<long long>(record.mStoragePos, 0), record.mStoragePos < 0 && bytes ? kUnknownEnd : bytes);
	claim.mFault = faultOf(record, claim.mEnd, heldBytes);
	claim.mFramesThere = framesThere(record, heldBytes);

	// The first index stands in the record twice. Frames by their bytes, where these say more.
	const bool countable = hasUsableSizes(record) && record.mAlignedFrameSize && record.mBytesWritten > 0;
	const long long frames =
	    std::max<long long>(record.mFrameCount, countable ? record.mBytesWritten / record.mAlignedFrameSize : 0);
	if (frames == 0) return claim;
	claim.mFirstIndex = std::min(record.mFirstIndex, record.mFirstIndex2);
	claim.mEndIndex = std::max(record.mFirstIndex, record.mFirstIndex2) + frames;
	// Every frame takes a page at least, so its number is never above its page's. A number that
	// no page of the target has must not drag those of later sessions along.
	if (targetBytes > 0 && claim.mEndIndex > targetBytes / kFrameAlignment) {
		claim.mEndIndex = std::min(claim.mEndIndex, std::min(claim.mEnd, targetBytes) / kFrameAlignment);
		if (!claim.mFault) claim.mFault = "first index";
	}
	return claim;
}

bool isEmptyRecord(const emsSTORAGE_SESSION& record) {
	static constexpr emsSTORAGE_SESSION kEmpty{};
	return std::memcmp(&record, &kEmpty, sizeof(record)) == 0;
}

} // namespace storage_parts
