#pragma once

#include "session.h"
#include "session_claim_internal.h"

#include <atomic>
#include <cstdint>

namespace storage_parts {

inline constexpr long long kNoLimit = std::numeric_limits<long long>::max();

/// The counters while they count; relaxed, as nothing is ordered by them.
struct LiveCounters {
	std::atomic<unsigned long long> mOverflowFrames{0};
	std::atomic<unsigned long long> mRefusedFrames{0};
	std::atomic<unsigned long long> mShortWrites{0};
	std::atomic<unsigned long long> mLostFrames{0};
	std::atomic<unsigned long long> mFailedIndexWrites{0};

	void clear();
	/// All but the failed list saves.
	void copyTo(emsSTORAGE_COUNTERS* out) const;
};

/// What a session does behind its interface. Everything is under the session mutex, except
/// where said.
struct SessionParts {
	using Counter = std::atomic<unsigned long long> LiveCounters::*;

	explicit SessionParts(CmsSession& owner) : mOwner(owner) {}

	/// Starts as a session of the host's own making.
	void startAnew();
	/// Finds out how far the session can go, and keeps others from going there. Any thread, without the
	/// session mutex.
	void reserve();
	/// Frames may stand behind these by the next one.
	void endReservation();
	bool takesFrames() const;
	void storeFrame(const void* frame, double time);
	void queueCurrentBuffer();
	/// Queues the frames left in the current buffer. Any thread.
	void flushCurrentBuffer();
	/// Frees a buffer that waits for a list that can be saved. @return whether there was one.
	bool takeKeptBuffer();
	/// Any thread, without the session mutex.
	void waitForOwnBuffers();
	int readFrame(void* buffer, const emsSTORAGE_SESSION& record, long long frameNumber, unsigned int* frameBytes);
	/// Any thread.
	void count(Counter which, unsigned long long number);

	/// The record as the list file gets it. Any thread.
	emsSTORAGE_SESSION savedRecord() const;
	/// For a record from a file: what it claims, and which of its frames can be played.
	/// @param heldBytes, targetBytes as in `claimOf`.
	void judge(long long heldBytes, long long targetBytes);
	/// The same and what later buffers have added. Any thread.
	SessionClaim claim() const;
	/// Frames that stand where they are found. Any thread.
	unsigned int writtenFrameCount() const;
	/// A buffer's frames are on the target. @return whether they count as written. Any thread.
	bool bufferWritten(const emsSTORAGE_BUFFER& buffer, bool indexed);
	/// Why the session takes no frames at all; null when it does.
	const char* refusal() const;

	CmsSession& mOwner;
	uint32_t mUnwritten = 0; // frames of the record's count whose data and index are not on the disk
	/// Frames that fit before another session's. Set by `SessionListParts::reserve`, which any
	/// session that is reserved later may lower; until then nobody knows it.
	long long mFrameLimit = kNoLimit;
	std::atomic<bool> mLimitKnown{false};
	bool mReserved = false;          // the places behind the last frame are kept free by others
	bool mClosed = false;            // index records were lost: frames behind them could not be found
	bool mLoaded = false;            // the record came from a list file
	SessionClaim mClaim;             // of a loaded record
	std::atomic<int> mOnTheirWay{0}; // buffers queued or being written; any thread
	LiveCounters mCounters;          // any thread
};

} // namespace storage_parts
