#include "shared_block_internal.h"

#include "../platform/memory.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <new>

namespace core {

namespace {

/// Keeps the contents aligned for pointers.
constexpr std::size_t kHeaderSize = 16;

char* headerOf(const void* block) { return static_cast<char*>(const_cast<void*>(block)) - kHeaderSize; }

std::atomic_ref<std::uint32_t> users(const void* block) {
	return std::atomic_ref(*reinterpret_cast<std::uint32_t*>(headerOf(block)));
}

} // namespace

void* allocateShared(std::size_t bytes) {
	auto* header = static_cast<char*>(platform::allocate(kHeaderSize + bytes));
	if (!header) return nullptr;
	new (header) std::uint32_t(1);
	return header + kHeaderSize;
}

void addSharedUser(void* block) {
	if (block) users(block).fetch_add(1, std::memory_order_relaxed);
}

void releaseShared(void* block) {
	// The last user must see what the others did with the contents before.
	if (block && users(block).fetch_sub(1, std::memory_order_acq_rel) == 1) platform::release(headerOf(block));
}

bool isSoleUser(const void* block) { return users(block).load(std::memory_order_acquire) == 1; }

void* resizeShared(void* block, std::size_t used, std::size_t bytes) {
	if (block && isSoleUser(block)) {
		auto* header = static_cast<char*>(platform::reallocate(headerOf(block), kHeaderSize + bytes));
		return header ? header + kHeaderSize : nullptr;
	}
	void* own = allocateShared(bytes);
	if (!own) return nullptr;
	if (block) std::memcpy(own, block, used < bytes ? used : bytes);
	releaseShared(block);
	return own;
}

} // namespace core
