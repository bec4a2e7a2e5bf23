#pragma once

#include <qor/platform/faults.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <new>

#include <gtest/gtest.h>

/// The whole program's operator new and the library's heap, which refuse one allocation on demand.
/// Included by one source of a program.
namespace test_support {

inline std::atomic<int> refuseNew{0}, newCalls{0}; // the number of the call to refuse; 0: none

inline void* allocate(std::size_t size, std::size_t alignment) noexcept {
	if (refuseNew != 0 && ++newCalls == refuseNew) return nullptr;
	auto* block = static_cast<char*>(std::malloc(size + alignment + sizeof(void*)));
	if (!block) return nullptr;
	char* start = block + sizeof(void*);
	start += (alignment - reinterpret_cast<std::uintptr_t>(start) % alignment) % alignment;
	reinterpret_cast<void**>(start)[-1] = block;
	return start;
}
inline void* allocateOrThrow(std::size_t size, std::size_t alignment = alignof(std::max_align_t)) {
	if (void* block = allocate(size, alignment)) return block;
	throw std::bad_alloc();
}
inline void release(void* block) noexcept {
	if (block) std::free(static_cast<void**>(block)[-1]);
}

/// Runs `operation` once for each of its allocations, with that one refused, then whole. No exception
/// may leave it. @param operation answers whether it did its work, which it must when nothing is refused.
inline void refuseEach(const char* name, const std::function<bool()>& operation) {
	SCOPED_TRACE(name);
	for (const bool heap : {false, true})
		for (int nth = 1, hit = 1; hit; ++nth) {
			newCalls = 0;
			heap ? platform::armFault(platform::FaultPoint::memory, nth) : refuseNew.store(nth);
			const auto whole = [&]() noexcept { return operation(); }();
			hit = (heap ? platform::faultCalls(platform::FaultPoint::memory) : newCalls.load()) >= nth;
			platform::armFault(platform::FaultPoint::memory, 0);
			refuseNew = 0;
			EXPECT_TRUE(whole || hit) << nth;
			EXPECT_TRUE(operation()) << "after " << nth;
			ASSERT_LT(nth, 500);
		}
}

} // namespace test_support

void* operator new(std::size_t size) { return test_support::allocateOrThrow(size); }
void* operator new(std::size_t size, std::align_val_t alignment) {
	return test_support::allocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
	return test_support::allocate(size, alignof(std::max_align_t));
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
	return test_support::allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* block, const std::nothrow_t&) noexcept { test_support::release(block); }
void operator delete(void* block) noexcept { test_support::release(block); }
void operator delete(void* block, std::size_t) noexcept { test_support::release(block); }
void operator delete(void* block, std::align_val_t) noexcept { test_support::release(block); }
void operator delete(void* block, std::size_t, std::align_val_t) noexcept { test_support::release(block); }
