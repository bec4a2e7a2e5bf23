#pragma once

#include "../platform/export.h"

#include <cstddef>
#include <cstdint>

/// The flags of `CstmMemVector` and the arrays. Constants of exported classes stand in records
/// like this one, which are not exported: so they can be bound by reference on every system.
struct CstmMemVectorConstants {
	static constexpr unsigned long kAligned = 1;        ///< the data start at a multiple of 32
	static constexpr unsigned long kIndexWrapping = 16; ///< read by the arrays: an index past the end wraps
};

/// One resizable block of the heap, optionally starting at a multiple of 32.
///
/// A failed allocation leaves the block and its contents as they were. Not locked: one
/// thread at a time. The containers below build on it and keep the block to themselves.
///
/// The size is exact. The block behind it may be larger once it has grown, by as much again (from
/// 16 MiB on: by half), so that a change does not copy the contents each time; when the size
/// falls below a quarter of the block, the block follows.
class QOR_API CstmMemVector : public CstmMemVectorConstants {
public:
	explicit CstmMemVector(unsigned long flags = 0);
	~CstmMemVector();
	CstmMemVector(const CstmMemVector&) = delete;
	CstmMemVector& operator=(const CstmMemVector&) = delete;

	/// Replaces the block; the contents are undefined. Size 0 only frees.
	/// @return the data; null for size 0 and, with the old block still in place, without memory.
	void* mvAlloc(size_t size);

	/// Resizes the block, keeping the contents up to the smaller size. Size 0 frees it.
	/// @return the data, which may have moved; null for size 0 and, with nothing changed, without memory.
	void* mvRealloc(size_t size);

	/// Moves `count` bytes inside the block; the ranges may overlap.
	/// @return 0; 0x10000000 (nothing moved) when a range leaves the block.
	int mvLocalMemMove(size_t destination, size_t source, size_t count);

	/// @return 0 for the same bytes, otherwise the sign of the first difference; of two
	///         vectors that begin alike the shorter one is less.
	int mvCompare(const CstmMemVector& other) const;

	void* mvGetData() const { return mData; }
	/// Usable bytes.
	size_t mvGetSize() const { return static_cast<size_t>(mByteSize); }

protected:
	void mvRelease();
	/// Sets a size above 0 and moves the block where it has to. @return as `mvRealloc`.
	void* mvResize(size_t size);
	void mvSwap(CstmMemVector& other);

	uint32_t mFlags;
	void* mRawBlock = nullptr;      // what the allocator gave
	unsigned char* mData = nullptr; // the raw block, or the first multiple of 32 in it
	uint64_t mByteSize = 0;

private:
	static constexpr uint64_t kSmallestGrown = 64; // bytes of a block that has grown

	bool refit(size_t size);
	bool moveTo(uint64_t capacity);

	uint64_t mCapacity = 0; // bytes from mData on that are ours
};

/// The library's heap, for blocks that cross: what `CstFile::OpenFromMemory` or `CstMemFile::Open`
/// may have to make larger comes from here, and what `CstMemFile::GetBuffer` gave up goes back
/// here. With the runtime that the library was built with, these are `malloc` and `free`; a
/// host with another runtime (a debug build of Visual Studio) has no other way.
/// @return null without memory. A size of 0 gives a block that must be freed.
QOR_API void* stMemAlloc(size_t size);
/// Null does nothing.
QOR_API void stMemFree(void* block);

// The numbers of `stVirtualAlloc` and `stVirtualFree`.
inline constexpr unsigned long kVirtualCommit = 0x1000;
inline constexpr unsigned long kVirtualReserve = 0x2000;
inline constexpr unsigned long kVirtualDecommit = 0x4000;
inline constexpr unsigned long kVirtualRelease = 0x8000;
inline constexpr unsigned long kVirtualNoAccess = 1;
inline constexpr unsigned long kVirtualRead = 2;
inline constexpr unsigned long kVirtualReadWrite = 4;

/// Virtual memory of the system.
/// @return null when the system refuses.
QOR_API void* stVirtualAlloc(size_t size, void* address, unsigned long allocationType, unsigned long protection);
/// @return 1; 0 when the system refuses.
QOR_API int stVirtualFree(void* address, size_t size, unsigned long freeType);
