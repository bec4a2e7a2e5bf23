#pragma once

#include <atomic>
#include <cstdint>
#include <time.h>

/// Sleeping on a word, and the short lock that is built on it.
namespace platform::posix {

/// The end of a wait: a moment of the monotonic clock, none at all, or at once.
class Deadline {
public:
	/// `kInfinite` never ends; 0 only tests.
	explicit Deadline(uint32_t timeoutMs);
	static Deadline never();

	bool onlyTests() const { return mKind == Kind::test; }
	bool passed() const;
	/// This deadline, or `ms` from now when that is earlier.
	Deadline atMost(uint32_t ms) const;
	/// Null without an end.
	const timespec* end() const { return mKind == Kind::never ? nullptr : &mEnd; }

private:
	enum class Kind : uint8_t { test, timed, never };
	Kind mKind = Kind::never;
	timespec mEnd{};
};

/// Sleeps while `word` is `expected`; may also return without a reason.
/// @return false when the deadline passed.
bool futexWait(const std::atomic<uint32_t>& word, uint32_t expected, const Deadline& deadline, bool shared = false);

/// Wakes up to `count` sleepers. Only the address counts: the word may be gone already.
void futexWake(const std::atomic<uint32_t>* word, int count, bool shared = false);

inline void pauseProcessor() {
#if defined(__x86_64__) || defined(__i386__)
	__builtin_ia32_pause();
#else
	std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
}

/// A lock of one word for sections of a few instructions. Locking needs nothing but the
/// word, so it may be taken in a slot whose object is long gone.
class Latch {
public:
	void lock() {
		uint32_t expected = 0;
		if (!mState.compare_exchange_strong(expected, 1, std::memory_order_acquire)) lockContended();
	}
	void unlock() {
		if (mState.exchange(0, std::memory_order_release) == 2) futexWake(&mState, 1);
	}

private:
	void lockContended();
	std::atomic<uint32_t> mState{0}; // 0 free, 1 taken, 2 taken and perhaps slept for
};

} // namespace platform::posix
