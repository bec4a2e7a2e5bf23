#pragma once

#include <cstdint>

namespace platform {

/// A moment of the local calendar.
struct LocalTime {
	int year = 0;
	int month = 1;     // 1 to 12
	int dayOfWeek = 0; // Sunday is 0
	int day = 1;       // 1 to 31
	int hour = 0;
	int minute = 0;
	int second = 0;
	int millisecond = 0;
};

/// The high-resolution counter: monotonic, the same for every thread of the process.
int64_t counter();

/// Counter ticks per second; fixed while the system runs and greater than 0.
double counterFrequency();

LocalTime localTime();

/// Suspends the calling thread for at least `milliseconds`; 0 only gives up the time slice.
void sleepMs(uint32_t milliseconds);

/// Lets another ready thread run.
void yieldThread();

} // namespace platform
