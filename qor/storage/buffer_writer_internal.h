#pragma once

#include "../base/wait_guard.h"
#include "../platform/types.h"

#include <atomic>
#include <condition_variable>
#include <mutex>

class CmsSession;
class CmsStorage;
class Cqor_MQInstance;
struct emsSTORAGE_BUFFER;

namespace storage_parts {

/// A first-in first-out chain of buffers through their `mNext`. A buffer is in one at most.
struct BufferChain {
	emsSTORAGE_BUFFER* mFirst = nullptr;
	emsSTORAGE_BUFFER* mLast = nullptr;

	void append(emsSTORAGE_BUFFER* buffer);
	emsSTORAGE_BUFFER* takeFirst();
};

/// Takes full buffers to the disk, in the order in which they were posted.
///
///     post --> waiting chain --> storage queue --> write (queue worker) --> written chain --> commit (list thread)
///                                                  index records, frames                      index to the medium,
///                                                                                             list saved, buffer free
///
/// The list thread exists so that the disk does not stand still while the session list is
/// saved: what gathers in the written chain meanwhile is committed together. A buffer stays
/// "being written" until a saved list counts its frames, so the order that a crash may
/// rely on holds: frames and index records first, then the list, then the buffer is reused.
/// Where the list cannot be saved, buffers are kept until it can, until their session has no
/// other buffer left, or until somebody waits and one more save has failed.
///
/// A flush of the index file that fails may have lost any record that was written since the
/// last good one, also those of buffers behind the one that is committed. Each buffer knows
/// how many flushes had failed when its records were written: when more have failed since,
/// they are written again before the next flush.
///
/// Locks: the waiting mutex is taken inside the session mutex; the queue's own inside it.
/// The written mutex may be taken inside the session mutex; nothing is taken inside it. None
/// is held over a transfer.
class BufferWriter {
public:
	BufferWriter(CmsStorage& storage, Cqor_MQInstance& queue) : mStorage(storage), mQueue(queue) {}
	~BufferWriter() { stop(); }
	BufferWriter(const BufferWriter&) = delete;
	BufferWriter& operator=(const BufferWriter&) = delete;

	/// Starts the list thread. @return false when the system refuses.
	bool start();
	/// Waits until all is written, then ends the list thread.
	void stop();

	/// Takes over a full buffer. One that finds no place in the queue waits in the chain;
	/// the worker makes places as it works, so none is ever lost to a full queue.
	void post(emsSTORAGE_BUFFER* buffer);
	/// What the worker does with a buffer.
	void write(emsSTORAGE_BUFFER* buffer);
	/// Fills free places of the queue from the chain.
	void postWaiting();

	/// Returns when every buffer that was posted until now is free again, however many follow.
	void waitUntilWritten();
	/// The same for all buffers of a session, which posts no more.
	void waitUntilFree(const std::atomic<int>& onTheirWay);
	/// Frees the oldest buffer that is kept for this session because of an unsaved list.
	/// @return whether there was one.
	bool releaseKept(const CmsSession* session);

private:
	static unsigned listThread(void* writer);
	void commitUntilStopped();
	void commit(BufferChain batch);
	bool storeIndexRecords(const BufferChain& batch);
	bool writeIndexRecords(emsSTORAGE_BUFFER& buffer);
	static void reportIndexFailure(const emsSTORAGE_BUFFER& buffer);
	long long writeFrames(emsSTORAGE_BUFFER& buffer);
	long long moveToTarget(emsSTORAGE_BUFFER& buffer, long long bytes);
	void markLostFrames(emsSTORAGE_BUFFER& buffer, long long bytesMoved);
	template <typename Condition>
	void waitFor(Condition condition);
	void settle(BufferChain batch, bool saved);
	void release(emsSTORAGE_BUFFER* buffer);

	CmsStorage& mStorage;
	Cqor_MQInstance& mQueue;

	std::mutex mWaitingMutex; // mWaiting
	BufferChain mWaiting;     // posted, no place in the queue yet
	std::atomic<unsigned long long> mPosted{0};

	std::mutex mWrittenMutex; // all up to mStopping
	BufferChain mWritten;     // on the target, not yet in the saved list
	BufferChain mKept;        // the same, and the list could not be saved
	unsigned long long mReleased = 0;
	int mWaiters = 0;
	bool mStopping = false;
	std::condition_variable mWorkChanged; // for the list thread
	std::condition_variable mReleasedChanged;
	std::atomic<unsigned> mFailedFlushes{0};
	base::OwnedHandle mThread;
};

} // namespace storage_parts
