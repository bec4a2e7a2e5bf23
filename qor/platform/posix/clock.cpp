#include "../clock.h"

#include <cerrno>
#include <sched.h>
#include <time.h>

namespace platform {

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

} // namespace

int64_t counter() {
	timespec now;
	clock_gettime(CLOCK_MONOTONIC, &now);
	return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

double counterFrequency() { return static_cast<double>(kNanosecondsPerSecond); }

LocalTime localTime() {
	timespec now;
	clock_gettime(CLOCK_REALTIME, &now);
	tm local{};
	localtime_r(&now.tv_sec, &local);
	// A leap second counts as the second before it, as on Windows.
	const int second = local.tm_sec < 60 ? local.tm_sec : 59;
	return {local.tm_year + 1900, local.tm_mon + 1, local.tm_wday, local.tm_mday, local.tm_hour, local.tm_min, second,
	    static_cast<int>(now.tv_nsec / 1000000)};
}

void sleepMs(uint32_t milliseconds) {
	if (milliseconds == 0) {
		sched_yield();
		return;
	}
	// An absolute end, so that interrupting signals do not lengthen the sleep.
	const int64_t end = counter() + milliseconds * INT64_C(1000000);
	const timespec at{static_cast<time_t>(end / kNanosecondsPerSecond), static_cast<long>(end % kNanosecondsPerSecond)};
	while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr) == EINTR) {
	}
}

void yieldThread() { sched_yield(); }

} // namespace platform
