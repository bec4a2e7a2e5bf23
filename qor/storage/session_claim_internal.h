#pragma once

#include "storage_index.h"

#include <algorithm>
#include <limits>

struct emsSTORAGE_SESSION;

namespace storage_parts {

inline constexpr long long kUnknownEnd = std::numeric_limits<long long>::max();

/// `a` + `b` for an `a` that is not negative, at most `kUnknownEnd`.
inline long long saturatedSum(long long a, long long b) { return a > kUnknownEnd - b ? kUnknownEnd : a + b; }
/// The same for `count` x `size`.
inline long long saturatedProduct(long long count, long long size) {
	return size && count > kUnknownEnd / size ? kUnknownEnd : count * size;
}

/// Whether the aligned size is the frame size rounded up, and neither passes its limit.
bool hasUsableSizes(const emsSTORAGE_SESSION& record);

/// Where frame `number` of a session would stand; `kUnknownEnd` for what no target can hold.
long long placeOfFrame(const emsSTORAGE_SESSION& record, long long number);

/// What a record that was read from a session list owns, whether it can be believed or not.
///
/// A record that is damaged hides where its frames stand, so everything that one of its
/// fields says is taken for occupied: nothing may be recorded there before somebody decides
/// that the frames are not wanted.
struct SessionClaim {
	const char* mFault = nullptr; // why the record cannot be true; null when it may be
	long long mFramesThere = 0;   // from the first one on, what can be played
	// On the target; an empty span claims nothing, `kUnknownEnd` everything behind its begin.
	long long mBegin = 0;
	long long mEnd = 0;
	// In the index file.
	long long mFirstIndex = 0;
	long long mEndIndex = 0;

	/// Also covers `bytes` at `begin`.
	void include(long long begin, long long bytes);
};

inline constexpr long long kUnknownSize = -1;

/// @param heldBytes   what the target held when it was opened; `kUnknownSize`: nothing is held against it.
/// @param targetBytes what it holds now that it was extended; at least `heldBytes`.
SessionClaim claimOf(const emsSTORAGE_SESSION& record, long long heldBytes, long long targetBytes);

/// Whether a record holds nothing at all: no frames, no size, no text. In a file it is a page that was lost.
bool isEmptyRecord(const emsSTORAGE_SESSION& record);

} // namespace storage_parts
