#pragma once

#include "../platform/types.h"
#include "linear_array.h"

#include <atomic>
#include <cstdarg>

class CstFile;

namespace base {
class FileStream;
class ObjectWatch;
class OpenedFile;
struct FileOpenRecord;
} // namespace base

/// What a host learns of a file's operations: one of the `kCallBack...` codes of
/// `CstFileConstants` with its `a` and `p`. The result is ignored.
///
/// A call may do anything with its file, its destruction included; no lock is held over it, and
/// the operation that called goes on with what it finds. Two exceptions:
/// - While `Open` and its kin, `Close` or `PrepareForStreaming` are under way (in their calls
///   before the last), the file cannot be opened or armed anew: `Open` and
///   `PrepareForStreaming` answer `kFileNotOpen` there and do nothing.
/// - 10 and 11 come from the writer's thread while it runs, beside the thread that uses the file.
///   Getters, `Seek` and `SetCallBack` may be called there; the rest does nothing and answers as
///   for a closed file (`Close` and `FinishStreaming`: 0). Destroying the file is left to a host
///   that does not use it meanwhile: the writer then writes what is queued without further
///   calls and closes it.
///   What is still queued when `FinishStreaming` has stopped the writer, and what `FlushBuffer`
///   writes, is reported on the caller's thread.
using CstFileCallBack = unsigned long (*)(
    CstFile* file, unsigned long code, unsigned long reserved, unsigned long a, void* p);

/// What serves the calls of a file: operation codes 1 open, 2 close, 3 write, 4 read, 5 size,
/// 6 current position, 7 seek.
using CstFileBackEnd = unsigned long (*)(
    void* handle, unsigned long code, unsigned long a, unsigned long b, unsigned long c, void* p);

/// One buffer of a stream. This record and the next are made by the library alone, and fixed.
struct estFILE_STREAM_BUFFER {
	uint32_t mCapacity = 0; // bytes, a multiple of 4096
	unsigned char* mData = nullptr;
	std::atomic<uint32_t> mBusy = 0; // 1 while the writer owns it
	std::atomic<uint32_t> mFree = 0; // bytes
	uint32_t mIndex = 0;
	std::atomic<uint32_t> mQueued = 0; // times in the pending list
};

/// The streaming record of a file. Hosts read it and use the buffers of read streaming; with
/// write streaming everything but `mBuffers`, `mBufferCount` and the block belongs to the file.
struct estFILE_STREAM {
	enum : uint32_t { kNone = 0, kRunning = 1, kStopRequested = 2, kEnded = 3, kAbandoned = 4 };

	estFILE_STREAM_BUFFER* mBuffers = nullptr;
	uint32_t mBufferCount = 0;
	unsigned char* mBlock = nullptr; // holds all buffers, in order
	size_t mBlockSize = 0;           // bytes
	estFILE_STREAM_BUFFER* mCurrent = nullptr;
	uint32_t mCurrentIndex = 0;
	std::atomic<uint32_t> mWriterState = kNone;
	platform::WaitHandle mMutex = nullptr;
	platform::WaitHandle mSemaphore = nullptr; // counts queued buffers
	CstmLinearArray mPending{sizeof(estFILE_STREAM_BUFFER*)};
	std::atomic<uint64_t> mLostBytes = 0; // see `CstFile::GetLostBytes`
};

/// The numbers of `CstFile` and its callback.
struct CstFileConstants {
	// Results.
	static constexpr unsigned long kFileUnknownCode = 0x100003E8;
	static constexpr unsigned long kFileNoHandle = 0x100003E9; ///< opening memory: no block
	static constexpr unsigned long kFileNotOpen = 0x10000000;  ///< also every refusal of the system to open
	static constexpr unsigned long kFileNoMemory = 0x100003EA; ///< also: the writer cannot be started

	// Streaming modes.
	static constexpr unsigned long kReadStreaming = 1;
	static constexpr unsigned long kWriteStreaming = 2;

	// Dispositions.
	static constexpr unsigned long kCreateNew = 1;    ///< fails for a file that is there
	static constexpr unsigned long kCreateAlways = 2; ///< replaces it
	static constexpr unsigned long kOpenExisting = 3;
	static constexpr unsigned long kOpenAlways = 4; ///< opens or makes
	static constexpr unsigned long kTruncateExisting = 5;

	static constexpr unsigned long kAccessRead = 0x80000000;
	static constexpr unsigned long kAccessWrite = 0x40000000;
	static constexpr unsigned long kAccessReadWrite = 0xC0000000;

	// What others may open the file for meanwhile.
	static constexpr unsigned long kShareNone = 0;
	static constexpr unsigned long kShareRead = 1;
	static constexpr unsigned long kShareWrite = 2;
	static constexpr unsigned long kShareReadWrite = 3;

	// Origins of seeks.
	static constexpr unsigned long kSeekBegin = 0;
	static constexpr unsigned long kSeekCurrent = 1;
	static constexpr unsigned long kSeekEnd = 2;

	// Codes of the callback; `a` and `p` are 0 where nothing is said.
	static constexpr unsigned long kCallBackOpened = 1;
	static constexpr unsigned long kCallBackClosed = 2;
	static constexpr unsigned long kCallBackWrite = 3; ///< a: bytes, p: data
	static constexpr unsigned long kCallBackRead = 4;  ///< a: bytes, p: buffer
	static constexpr unsigned long kCallBackSeek = 5;  ///< a: origin, p: the offset as a pointer-sized number
	static constexpr unsigned long kCallBackPrepareBegin = 6;
	static constexpr unsigned long kCallBackPrepareEnd = 7;
	static constexpr unsigned long kCallBackFinishBegin = 8;
	static constexpr unsigned long kCallBackFinishEnd = 9;
	static constexpr unsigned long kCallBackFlushBegin = 10;   ///< a: bytes to write, p: buffer
	static constexpr unsigned long kCallBackFlushEnd = 11;     ///< a: bytes written, p: buffer
	static constexpr unsigned long kCallBackOpenFailed = 4096; ///< a: 1, p: the error
};

/// A file of the operating system (or a raw volume), or a block of memory, behind one set of
/// calls, with optional write streaming.
///
/// Nothing throws or logs: transfers and positions answer 0 on failure, opens and streaming
/// set-up answer 0 or one of the `kFile...` codes. One thread at a time uses a file; write
/// streaming adds a writer thread of its own. A relative path counts from the folder that is
/// current when the file is opened; only the open file is kept.
///
/// **Write streaming.** `PrepareForStreaming` makes a ring of page-aligned buffers. `Write`
/// copies into the current one and never waits for the disk; a full buffer is queued, and
/// the writer thread writes queued buffers in order, each rounded up to a multiple of 4096
/// bytes. `FinishStreaming` queues the last buffer, stops the writer and then writes what is
/// still queued, so that everything accepted reaches the file. Sizes and positions that are
/// asked for meanwhile are answered between two single writes (of `SetWriteStreamPackSize`
/// bytes at most); a seek moves what the writer writes next.
class QOR_API CstFile : public CstFileConstants {
public:
	CstFile();
	~CstFile();
	CstFile(const CstFile&) = delete;
	CstFile& operator=(const CstFile&) = delete;

	/// Closes what is open and opens a file of the system.
	/// @param disposition `kCreateNew` to `kTruncateExisting`
	/// @param access      `kAccessRead`, `kAccessWrite`, or both
	/// @param share       what others may open it for meanwhile: `kShareNone` to `kShareReadWrite`
	/// @return 0; an error code, with nothing open.
	unsigned long Open(const char* path, unsigned long disposition, unsigned long access, unsigned long share);
	unsigned long OpenReadOnly(const char* path);
	/// Opens an existing file, volume or disk for reading and writing and marks it as a disk.
	unsigned long OpenDisk(const char* path);
	/// Makes a new file, replacing an old one.
	unsigned long Create(const char* path, unsigned long access, unsigned long share);

	/// Opens the caller's block, of at most 2147483647 bytes, at position 0. The block is never
	/// freed here, but a write past its size reallocates it: a caller who lets the file grow
	/// passes a block of `stMemAlloc`. A seek from the start is limited by the size only; at the
	/// position below 0 that a negative offset gives, nothing is read or written.
	unsigned long OpenFromMemory(void* block, unsigned long size);

	/// Ends streaming and closes. @return 0.
	unsigned long Close();

	/// Writes at the current position. A null `data` writes zeros into memory and into streams.
	///
	/// With write streaming a result below n does not say what was lost: a write that reaches
	/// the end of its buffer answers with the bytes that went to the next buffer (so 0 when it
	/// fits exactly), and 0 with the rest lost when the next buffer has no room for it. A
	/// write always fits when it is not longer than the free bytes plus one free buffer.
	/// @return bytes accepted; 0 when nothing is open or read streaming is prepared.
	unsigned long Write(const void* data, unsigned long n);
	/// Reads at the current position. In memory a null buffer skips.
	/// @return bytes read; 0 when nothing is open or write streaming is active.
	unsigned long Read(void* buffer, unsigned long n);

	/// @param origin `kSeekBegin`, `kSeekCurrent` or `kSeekEnd`
	/// @return the new position (of `Seek` its low 32 bits); 0 on failure.
	unsigned long Seek(long offset, unsigned long origin);
	long long Seek64(long long offset, unsigned long origin);
	/// The short forms give the low 32 bits. 0 on failure.
	unsigned long GetSize() const;
	long long GetSize64() const;
	unsigned long GetCurrentPos() const;
	long long GetCurrentPos64() const;

	/// Which kind was opened last, also after closing.
	bool IsOSFile() const;
	bool IsMemFile() const;
	bool IsDiskFile() const { return mDiskFile; }
	bool IsOpen() const { return mHandle != nullptr; }
	/// The back end's own, for telling files apart; null when closed.
	void* GetHandle() const { return mHandle; }
	/// The block of an open memory file, which growth may have moved; null for other files.
	void* GetMemoryBlock() const;
	/// Null without streaming; valid until `FinishStreaming`.
	const estFILE_STREAM* GetStreamInfo() const;

	/// Null: none. When it returns, a call of the former function may still be running on the
	/// writer's thread; no further one begins, but for one that the writer was about to make.
	void SetCallBack(CstFileCallBack callBack);
	/// The largest single write of the writer in bytes, 131072 from the start; 0 is ignored.
	void SetWriteStreamPackSize(unsigned long bytes);

	/// Ends earlier streaming and makes `count` buffers of `bufferKiB` x 1024 bytes, rounded up
	/// to a multiple of 4096.
	/// @param mode `kReadStreaming` (the caller uses the buffers as it likes; `Write` is
	///        refused), `kWriteStreaming` (`Read` is refused), or both
	/// @return 0; `kFileNoMemory`, without streaming, for no buffers, without memory or writer
	///         thread; `kFileNotOpen` in the calls where the callback says so.
	unsigned long PrepareForStreaming(unsigned long bufferKiB, unsigned long count, unsigned long mode);
	unsigned long PrepareForWriteStreaming(unsigned long bufferKiB) {
		return PrepareForStreaming(bufferKiB, 2, kWriteStreaming);
	}

	/// Writes what is queued and ends streaming. The writer gets 10 seconds to come back from
	/// the write it is in. If the device does not answer for that long, the writer keeps the
	/// open file and the buffers, finishes and closes on its own, and this file is closed.
	/// `GetLostBytes` tells whether all of it reached the file.
	/// @return 0.
	unsigned long FinishStreaming();
	/// Bytes given to `Write` with streaming, or standing in flushed buffers, that did not reach the
	/// file: a disk that did not take them, the rest of a write that found no next buffer, and
	/// what was left to a writer that did not come back (which may still write it). A write that
	/// was refused as a whole is not counted. Stays until the next `PrepareForStreaming`.
	unsigned long long GetLostBytes() const;

	/// Queues the current buffer and goes to the next.
	/// @return the next buffer; null without write streaming, when all buffers are queued
	///         already, or when the writer has the next one (the current one is queued then).
	estFILE_STREAM_BUFFER* FlushToNextBuffer();
	/// Writes a buffer of this file's stream and empties it. One that is queued or being
	/// written is left to the writer.
	/// @return 0, whatever the file took of it (see `GetLostBytes`); 0x10000000 for no buffer.
	unsigned long FlushBuffer(estFILE_STREAM_BUFFER* buffer);
	/// Empties a buffer. @return 0; 0x10000000 for no buffer or one that is queued or being written.
	unsigned long ResetBuffer(estFILE_STREAM_BUFFER* buffer);

	/// Write formatted text without a terminator; `WriteTextLine` adds "\r\n". The wide forms
	/// write two bytes per character. Text longer than 1,023 bytes is cut; a line keeps its end.
	/// @return as `Write`; 0 also for a null format.
	unsigned long WriteText(const char* format, ...);
	unsigned long WriteText(const wchar_t* format, ...);
	unsigned long WriteTextLine(const char* format, ...);
	unsigned long WriteTextLine(const wchar_t* format, ...);

private:
	class Change;

	bool notify(unsigned long code, unsigned long a = 0, void* p = nullptr);
	unsigned long openWith(CstFileBackEnd backEnd, base::FileOpenRecord& record, bool disk);
	unsigned long callBackEnd(unsigned long code, unsigned long b, void* p) const;
	void closeNow();
	bool isWriterCalling() const;
	bool endAll(bool* closed);
	void forgetFile();
	bool finish();
	bool endStreaming();
	bool flushHere(base::FileStream& stream, estFILE_STREAM_BUFFER& buffer, bool here);
	bool writeStreaming() const { return (mStreamFlags & kWriteStreaming) != 0; }
	unsigned long writeNarrow(const char* format, va_list arguments, bool line);
	unsigned long writeWide(const wchar_t* format, va_list arguments, bool line);

	void* mHandle = nullptr; // the back end's; null when closed
	CstFileBackEnd mBackEnd = nullptr;
	uint32_t mStreamFlags = 0;
	// Also read and set by the writer's callback:
	std::atomic<base::FileStream*> mStream{nullptr}; // the record that `GetStreamInfo` shows
	std::atomic<CstFileCallBack> mCallBack{nullptr};
	uint32_t mWritePackSize = 0x20000; // bytes
	bool mDiskFile = false;
	base::OpenedFile* mOpened = nullptr;   // null when closed
	base::ObjectWatch* mWatches = nullptr; // operations with a callback under way
	int mChanges = 0;                      // of them those during which the file cannot be opened
	unsigned long long mLostBytes = 0;     // of the last stream
	void* mSpare[4] = {};
};
