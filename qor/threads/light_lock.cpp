#include "light_lock_internal.h"

#include "../platform/clock.h"

namespace threads {

namespace {

constexpr int kPauses = 30;
constexpr int kLooks = 8;  // before the time slice is given up
constexpr int kYields = 8; // before sleeping

} // namespace

void lockContendedWord(std::atomic<uint32_t>& word) {
	for (int turn = 0;; ++turn) {
		if (turn < kLooks)
			stayAway(kPauses);
		else if (turn < kLooks + kYields)
			platform::yieldThread();
		else
			platform::sleepMs(1);
		if (word.load(std::memory_order_relaxed) == 0 && tryLockWord(word)) return;
	}
}

} // namespace threads
