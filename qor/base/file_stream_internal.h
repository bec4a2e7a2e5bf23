#pragma once

#include "file.h"
#include "wait_guard.h"

#include <mutex>

namespace base {

struct FileOpenRecord;

/// An open file of a back end. The `CstFile` and the streams on it share it; the last of
/// them closes it, so an operation under way never loses its file to a callback.
class OpenedFile {
public:
	/// @return null without memory; otherwise the caller's, with nothing open yet.
	static OpenedFile* make(CstFileBackEnd backEnd);

	unsigned long open(FileOpenRecord& record);
	/// One call of the back end. Calls of several owners come one at a time; nothing else is
	/// ever done under that lock, so nobody waits for more than one transfer.
	unsigned long call(unsigned long code, unsigned long b, void* p);
	OpenedFile* share();
	void drop();

private:
	explicit OpenedFile(CstFileBackEnd backEnd) : mBackEnd(backEnd) {}

	CstFileBackEnd mBackEnd;
	void* mHandle = nullptr; // the back end's
	std::atomic<int> mReferences{1};
	std::mutex mCall;
};

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
/// Locks: that of the opened file around each single call of it, and the ring's mutex; never
/// both, and none over a callback.
///
/// The stream is owned by its file, by the writer while that runs, and by operations that call
/// back; it goes with the last of them. The writer's state goes from running to stop requested
/// to ended. A writer that does not come back from the back end in time, or that is stopped
/// from its own callback, is abandoned instead: it writes what is queued without any further
/// callback and goes.
class FileStream : public estFILE_STREAM {
public:
	/// @param opened may be null: a stream without a file loses what is written.
	/// @param writes starts a writer.
	/// @return null without memory or writer, or when the sizes make no ring.
	static FileStream* make(CstFile* file, OpenedFile* opened, CstFileCallBack callBack, uint32_t packSize,
	    unsigned long bufferKiB, unsigned long count, bool writes);
	FileStream* share();
	void drop();

	/// @return false: abandoned.
	bool stopWriter();
	/// The next buffer to be written, when the writer has ended; null behind the last.
	estFILE_STREAM_BUFFER* takeOldest();
	/// Bytes in buffers that are queued or being written.
	uint64_t unwrittenBytes() const;

	unsigned long write(const void* data, unsigned long n);
	estFILE_STREAM_BUFFER* next();
	/// What writing the buffer takes, in whole blocks.
	static uint32_t bytesToWrite(const estFILE_STREAM_BUFFER& buffer);
	/// Writes at most `limit` bytes of what the buffer holds by now, and empties it. @return bytes written.
	uint32_t writeOut(estFILE_STREAM_BUFFER& buffer, uint32_t limit);
	bool owns(const estFILE_STREAM_BUFFER* buffer) const;
	static bool isWriters(const estFILE_STREAM_BUFFER& buffer);
	void markFree(estFILE_STREAM_BUFFER& buffer);

	/// Whether the calling thread is a writer inside the host's callback for that file.
	static bool isCallingFor(const CstFile* file);

	void setCallBack(CstFileCallBack callBack) { mCallBack = callBack; }
	void setPackSize(uint32_t bytes) { mPackSize = bytes; }

private:
	FileStream(CstFile* file, OpenedFile* opened, CstFileCallBack callBack, uint32_t packSize)
	    : mFile(file), mOpened(opened ? opened->share() : nullptr), mCallBack(callBack), mPackSize(packSize) {}
	~FileStream();
	bool allocate(unsigned long bufferKiB, unsigned long count);
	bool startWriter();
	static unsigned writerThread(void* stream);
	void runWriter();
	void flush(estFILE_STREAM_BUFFER& buffer);
	uint32_t writePieces(const unsigned char* data, uint32_t count);
	void notify(unsigned long code, unsigned long a, estFILE_STREAM_BUFFER& buffer);

	CstFile* mFile;      // only passed on to the host's callback
	OpenedFile* mOpened; // may be null
	std::atomic<CstFileCallBack> mCallBack;
	std::atomic<uint32_t> mPackSize; // bytes
	std::atomic<int> mReferences{1};
	OwnedHandle mOwnedMutex;
	OwnedHandle mOwnedSemaphore;
	OwnedHandle mThread;
	// Buffers that ever left and entered the pending list.
	std::atomic<uint64_t> mTaken = 0;
	std::atomic<uint64_t> mQueuedTotal = 0;
};

/// What a writer gets to come back from the back end: 30 ms and 100 times 100 ms. Tests lower it.
extern uint32_t streamStopBudgetMs;

} // namespace base
