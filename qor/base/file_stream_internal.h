#pragma once

#include "file.h"
#include "wait_guard.h"

#include <mutex>

namespace base {

/// Write streaming: the ring of buffers and the thread that writes them.
///
///     caller:  write -> current buffer -> queue -+      (never waits for the disk)
///                          ^                     v
///                     free, not busy        pending list -> semaphore
///                          ^                     v
///     writer:         mark free  <-  back end  <-  oldest, busy
///
/// A buffer belongs to the caller while it is neither queued nor busy, otherwise to the
/// writer. It enters the pending list on the caller's thread only and leaves it on the
/// writer's only (on the caller's once the writer has ended). The list is a ring of as many
/// places as there are buffers, made beforehand, with a counter for each end; so the waits
/// for the ring's mutex may be bounded, and going on without it does no harm.
///
/// Locks, outer first: `mTransfer` (one transfer of the back end at a time; `write` and
/// `next` never take it), the ring's mutex.
///
/// The writer's state goes from running to stop requested to ended. A writer that does not
/// come back from the back end in time is abandoned instead: from then on it owns this
/// object and the handle, writes what is queued, closes and frees both.
class FileStream : public estFILE_STREAM {
public:
	FileStream(CstFile* file, CstFileBackEnd backEnd, void* handle, CstFileCallBack callBack, uint32_t packSize)
	    : mFile(file), mBackEnd(backEnd), mHandle(handle), mCallBack(callBack), mPackSize(packSize) {}
	~FileStream();

	/// @return false without memory, or when the sizes make no ring.
	bool allocate(unsigned long bufferKiB, unsigned long count);
	/// @return false when the system refuses; there is no writer then.
	bool startWriter();
	/// @return false: abandoned, this object is no longer the caller's.
	bool stopWriter();
	/// Writes what is still queued, in order, when the writer has ended.
	void writePending();

	unsigned long write(const void* data, unsigned long n);
	estFILE_STREAM_BUFFER* next();
	/// Whether all of it reached the file.
	bool flush(estFILE_STREAM_BUFFER& buffer);
	bool owns(const estFILE_STREAM_BUFFER* buffer) const;
	static bool isWriters(const estFILE_STREAM_BUFFER& buffer);
	void markFree(estFILE_STREAM_BUFFER& buffer);

	unsigned long callBackEnd(unsigned long code, unsigned long b, void* p);
	void setCallBack(CstFileCallBack callBack) { mCallBack = callBack; }
	void setPackSize(uint32_t bytes) { mPackSize = bytes; }

private:
	static unsigned writerThread(void* stream);
	void runWriter();
	estFILE_STREAM_BUFFER* takeOldest();
	uint32_t writePieces(const unsigned char* data, uint32_t count);
	void notify(unsigned long code, unsigned long a, estFILE_STREAM_BUFFER& buffer);

	CstFile* mFile; // only passed on to the host's callback
	CstFileBackEnd mBackEnd;
	void* mHandle; // the back end's; owned once abandoned
	std::atomic<CstFileCallBack> mCallBack;
	std::atomic<uint32_t> mPackSize; // bytes
	OwnedHandle mOwnedMutex;
	OwnedHandle mOwnedSemaphore;
	OwnedHandle mThread;
	std::recursive_mutex mTransfer; // recursive: a callback may ask for size or position
	// Buffers that ever left and entered the pending list.
	std::atomic<uint64_t> mTaken = 0;
	std::atomic<uint64_t> mQueuedTotal = 0;
};

/// What a writer gets to come back from the back end: 30 ms and 100 times 100 ms. Tests lower it.
extern uint32_t streamStopBudgetMs;

} // namespace base
