#pragma once

#include <atomic>
#include <cstdint>

#if defined(__x86_64__) || defined(_M_X64)
#include <immintrin.h>
#endif

/// A lock of one word for sections of a few instructions. Not recursive, not tied to a thread.
///
/// What is expensive here is not the lock but the cache lines behind it that move from
/// processor to processor (over 100 ns each, ten times a section). So who finds the word held
/// stays away from it for about a microsecond, in which the other side gets many sections
/// done; taking turns section by section would be the slowest way for both. The word is
/// released by a plain store. A holder that lost its processor is waited for by sleeping,
/// whatever the priorities are.
namespace threads {

/// Tells the processor that this is a waiting loop.
inline void pauseProcessor() {
#if defined(__x86_64__) || defined(_M_X64)
	_mm_pause();
#elif defined(__aarch64__)
	__asm__ volatile("yield");
#endif
}

/// Stays off shared memory for `pauses` waiting instructions (10 to 50 ns each).
inline void stayAway(int pauses) {
	for (int i = 0; i < pauses; ++i) pauseProcessor();
}

/// Asks for a cache line that will be written soon.
inline void fetchLine(const void* address) {
#if defined(__GNUC__)
	__builtin_prefetch(address, 1);
#elif defined(_M_X64)
	_mm_prefetch(static_cast<const char*>(address), _MM_HINT_T0);
#endif
}

void lockContendedWord(std::atomic<uint32_t>& word);

inline bool tryLockWord(std::atomic<uint32_t>& word) {
	uint32_t free = 0;
	return word.compare_exchange_strong(free, 1, std::memory_order_acquire, std::memory_order_relaxed);
}

inline void lockWord(std::atomic<uint32_t>& word) {
	if (!tryLockWord(word)) lockContendedWord(word);
}

inline void unlockWord(std::atomic<uint32_t>& word) { word.store(0, std::memory_order_release); }

} // namespace threads
