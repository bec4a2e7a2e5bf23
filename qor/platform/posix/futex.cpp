#include "futex_internal.h"

#include "../wait.h"

#include <cerrno>
#include <climits>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform::posix {

namespace {

constexpr long kNanosecondsPerSecond = 1000000000;
constexpr int kLatchSpins = 50;

timespec now() {
	timespec result;
	clock_gettime(CLOCK_MONOTONIC, &result);
	return result;
}

timespec later(timespec from, uint32_t milliseconds) {
	from.tv_sec += milliseconds / 1000;
	from.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000;
	if (from.tv_nsec >= kNanosecondsPerSecond) {
		from.tv_nsec -= kNanosecondsPerSecond;
		++from.tv_sec;
	}
	return from;
}

bool before(const timespec& left, const timespec& right) {
	return left.tv_sec != right.tv_sec ? left.tv_sec < right.tv_sec : left.tv_nsec < right.tv_nsec;
}

} // namespace

Deadline::Deadline(uint32_t timeoutMs) {
	if (timeoutMs == kInfinite) return;
	mKind = timeoutMs == 0 ? Kind::test : Kind::timed;
	if (timeoutMs != 0) mEnd = later(now(), timeoutMs);
}

Deadline Deadline::never() { return Deadline(kInfinite); }

bool Deadline::passed() const {
	if (mKind == Kind::timed) return !before(now(), mEnd);
	return mKind == Kind::test;
}

Deadline Deadline::atMost(uint32_t ms) const {
	const Deadline other(ms);
	if (mKind == Kind::never) return other;
	return mKind == Kind::timed && before(other.mEnd, mEnd) ? other : *this;
}

bool futexWait(const std::atomic<uint32_t>& word, uint32_t expected, const Deadline& deadline, bool shared) {
	const int operation = FUTEX_WAIT_BITSET | (shared ? 0 : FUTEX_PRIVATE_FLAG);
	const long result = syscall(SYS_futex, &word, operation, expected, deadline.end(), nullptr, FUTEX_BITSET_MATCH_ANY);
	return result == 0 || errno != ETIMEDOUT;
}

void futexWake(const std::atomic<uint32_t>* word, int count, bool shared) {
	syscall(SYS_futex, word, FUTEX_WAKE | (shared ? 0 : FUTEX_PRIVATE_FLAG), count, nullptr, nullptr, 0);
}

void Latch::lockContended() {
	for (int i = 0; i < kLatchSpins; ++i) {
		pauseProcessor();
		uint32_t expected = 0;
		if (mState.compare_exchange_weak(expected, 1, std::memory_order_acquire, std::memory_order_relaxed)) return;
	}
	while (mState.exchange(2, std::memory_order_acquire) != 0) futexWait(mState, 2, Deadline::never());
}

} // namespace platform::posix
