#include "../platform/memory.h"
#include "mem_vector_internal.h"
#include "status.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr size_t kAlignment = 32;
constexpr size_t kAlignmentReserve = 1024; // bytes an aligned raw block is larger

size_t reserveOf(uint32_t flags) { return flags & CstmMemVector::kAligned ? kAlignmentReserve : 0; }

/// Where the data start in a raw block.
unsigned char* dataOf(void* raw, uint32_t flags) {
	auto address = reinterpret_cast<uintptr_t>(raw);
	if (flags & CstmMemVector::kAligned) address = (address + kAlignment - 1) & ~(kAlignment - 1);
	return reinterpret_cast<unsigned char*>(address);
}

/// No block is larger, so the reserve can be added and pointers subtracted.
constexpr size_t kLargestBlock = SIZE_MAX / 2 - kAlignmentReserve;

constexpr uint64_t kWorthAnother = 65536; // refused room behind the contents that another try does without

/// The capacity a growing block gets, so that growing by small steps costs the same each.
uint64_t roomBehind(uint64_t capacity, uint64_t smallest) {
	constexpr uint64_t kDoubled = 16 << 20;
	return std::max(smallest, capacity + (capacity < kDoubled ? capacity : capacity / 2));
}

} // namespace

CstmMemVector::CstmMemVector(unsigned long flags) : mFlags(static_cast<uint32_t>(flags)) {}

CstmMemVector::~CstmMemVector() { mvRelease(); }

void* CstmMemVector::mvAlloc(size_t size) {
	if (size > kLargestBlock) return nullptr;
	if (size == 0) {
		mvRelease();
		return nullptr;
	}
	void* raw = platform::allocate(size + reserveOf(mFlags));
	if (!raw) return nullptr;
	mvRelease();
	mRawBlock = raw;
	mData = dataOf(raw, mFlags);
	mCapacity = mByteSize = size;
	return mData;
}

void* CstmMemVector::mvRealloc(size_t size) {
	if (!mRawBlock || size == 0) return mvAlloc(size);
	return mvResize(size);
}

/// Another block for a size that the one there does not fit.
bool CstmMemVector::refit(size_t size) {
	if (!mRawBlock) return mvAlloc(size) != nullptr;
	if (size > kLargestBlock) return false;
	if (size > mCapacity) {
		const uint64_t wanted = std::max<uint64_t>(size, roomBehind(mCapacity, kSmallestGrown));
		return moveTo(wanted) || (wanted - size >= kWorthAnother && moveTo(size));
	}
	moveTo(std::max<uint64_t>(size * 2, kSmallestGrown)); // a refusal only leaves the block as large as it is
	return true;
}

/// Changes the block; the contents stay up to the smaller of size and capacity.
/// @return false, with nothing changed, without memory.
bool CstmMemVector::moveTo(uint64_t capacity) {
	if (capacity > kLargestBlock) return false;
	const auto oldDistance = mData - static_cast<unsigned char*>(mRawBlock);
	void* raw = platform::reallocate(mRawBlock, static_cast<size_t>(capacity) + reserveOf(mFlags));
	if (!raw) return false;
	// The allocator kept the distance from the start of the raw block, the boundary may not.
	auto* data = dataOf(raw, mFlags);
	auto* contents = static_cast<unsigned char*>(raw) + oldDistance;
	if (data != contents) std::memmove(data, contents, static_cast<size_t>(std::min(capacity, mByteSize)));
	mRawBlock = raw;
	mData = data;
	mCapacity = capacity;
	return true;
}

int CstmMemVector::mvLocalMemMove(size_t destination, size_t source, size_t count) {
	const auto fits = [&](size_t start) { return start <= mByteSize && count <= mByteSize - start; };
	if (!fits(destination) || !fits(source)) return kQorFailure;
	if (count > 0) std::memmove(mData + destination, mData + source, count);
	return kQorSuccess;
}

int CstmMemVector::mvCompare(const CstmMemVector& other) const {
	const auto common = static_cast<size_t>(std::min(mByteSize, other.mByteSize));
	if (common > 0) {
		if (const int difference = std::memcmp(mData, other.mData, common)) return difference;
	}
	return mByteSize < other.mByteSize ? -1 : mByteSize > other.mByteSize;
}

void CstmMemVector::mvRelease() {
	platform::release(mRawBlock);
	mRawBlock = nullptr;
	mData = nullptr;
	mByteSize = 0;
	mCapacity = 0;
}

void CstmMemVector::mvSwap(CstmMemVector& other) {
	std::swap(mFlags, other.mFlags);
	std::swap(mRawBlock, other.mRawBlock);
	std::swap(mData, other.mData);
	std::swap(mByteSize, other.mByteSize);
	std::swap(mCapacity, other.mCapacity);
}

void* stMemAlloc(size_t size) { return platform::allocate(size); }

void stMemFree(void* block) { platform::release(block); }

void* stVirtualAlloc(size_t size, void* address, unsigned long allocationType, unsigned long protection) {
	return platform::virtualAllocate(size, address, allocationType, protection);
}

int stVirtualFree(void* address, size_t size, unsigned long freeType) {
	return platform::virtualFree(address, size, freeType) ? 1 : 0;
}
