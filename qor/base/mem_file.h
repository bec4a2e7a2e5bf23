#pragma once

#include "../platform/export.h"

#include <cstdarg>
#include <cstdint>

struct CstMemFileConstants {
	// Origins of seeks.
	static constexpr unsigned long kSeekBegin = 0;
	static constexpr unsigned long kSeekCurrent = 1;
	static constexpr unsigned long kSeekEnd = 2;
};

/// A file in memory: bytes with one read and write position.
///
/// It owns a heap block, or works over a caller's buffer. The contents grow exactly as far as
/// writes reach; the owned block behind them may be larger by as much again (from 16 MiB on:
/// by half), a caller's buffer never is. All sizes and positions are 32-bit; growth past
/// 2147483647 bytes is refused. A failed call leaves contents and position as they were. One
/// thread at a time.
///
/// A seek from the start is limited by the size only, so a negative offset gives a position
/// below 0, reported in 32 bits (-5 is 0xFFFFFFFB). Nothing is read or written there.
class QOR_API CstMemFile : public CstMemFileConstants {
public:
	CstMemFile();
	~CstMemFile();
	CstMemFile(const CstMemFile&) = delete;
	CstMemFile& operator=(const CstMemFile&) = delete;

	/// Starts an owned file of `size` zeroed bytes at position 0. A block owned before is
	/// not freed: whoever took it with `GetBuffer` frees it (`stMemFree`), others call `Close` first.
	/// @param data receives the contents (null for size 0 and on failure); may be null.
	/// @return 0; 0x10000000 without memory or for a size above 2147483647.
	int Create(unsigned long size, void** data = nullptr);

	/// Works over the caller's buffer, at position 0; a block owned before is not freed. The
	/// buffer stays the caller's and outlives its use here. A write past its size
	/// reallocates it all the same, so only a block of `stMemAlloc` may be written past its size; it
	/// is then the block `GetBuffer` gives, still the caller's to free.
	/// @return 0; 0x10000000 for null with a size or a size above 2147483647.
	int Open(void* buffer, unsigned long size);

	/// Frees owned contents and leaves the file empty. @return 0.
	int Close();

	/// @param origin one of `kSeek...`; any other leaves the position.
	/// Where `kSeekCurrent` and `kSeekEnd` lead is kept within 0 to size.
	/// @return the new position.
	unsigned long Seek(long offset, unsigned long origin);

	/// Copies up to `count` bytes and moves on; a null destination only moves on. @return bytes read.
	unsigned long Read(void* destination, unsigned long count);
	/// The same after going to `position`; past the size it goes to the end and reads nothing.
	unsigned long ReadAt(void* destination, unsigned long count, unsigned long position);

	/// The next `count` bytes in place, moving on behind them; valid until the file grows.
	/// @return null, without moving, at the end or when fewer remain.
	void* GetReadPtrAdv(unsigned long count);

	/// Writes at the position and moves on. `source` null writes zeros, and may lie in this file.
	/// @param where receives the address of the written bytes, valid until the file grows;
	///        null on failure. May be null.
	/// @return count; 0 when the file cannot grow.
	unsigned long Write(const void* source, unsigned long count, void** where = nullptr);
	/// Writes at the end.
	unsigned long Append(const void* source, unsigned long count, void** where = nullptr);
	/// Writes at `position`, or at the end when that lies past it.
	unsigned long WriteAt(const void* source, unsigned long count, unsigned long position, void** where = nullptr);

	/// Write formatted text without a terminator; `WriteTextLine` adds "\r\n". The wide forms
	/// write two bytes per character. Text longer than 65,535 bytes is cut; a line keeps its end.
	/// @return bytes written; 0 also for a null format.
	unsigned long WriteText(const char* format, ...);
	unsigned long WriteText(const wchar_t* format, ...);
	unsigned long WriteTextLine(const char* format, ...);
	unsigned long WriteTextLine(const wchar_t* format, ...);

	unsigned long GetCurrentPos() const { return mPosition; }
	unsigned long GetSize() const { return static_cast<unsigned long>(mSize); }
	/// @param size receives the bytes of contents; may be null. @return the contents, null without any.
	void* GetBuffer(unsigned long* size = nullptr) const;
	/// @return null at or past the size.
	void* GetPtrAtAbsolutePos(unsigned long position) const;

private:
	void start(unsigned char* data, unsigned long size, bool borrowed);
	bool grow(uint64_t size);
	bool growAround(uint64_t size, const void** source);
	unsigned long writeFrom(uint32_t position, const void* source, unsigned long count, void** where);
	bool needText();
	unsigned long writeNarrow(const char* format, va_list arguments, bool line);
	unsigned long writeWide(const wchar_t* format, va_list arguments, bool line);

	unsigned char* mData = nullptr;
	int32_t mSize = 0;
	uint32_t mPosition = 0;
	int32_t mBorrowed = 0;  // 1: the data belong to the caller
	uint32_t mCapacity = 0; // bytes of an owned block
	char* mText = nullptr;  // made by the first text
};
