#include "qor/platform/clock.h"

#include <algorithm>
#include <ctime>
#include <gtest/gtest.h>
#include <thread>

namespace platform {
namespace {

TEST(Clock, CounterRunsForwardInEveryThread) {
	EXPECT_GT(counterFrequency(), 0);
	int64_t last = counter();
	for (int i = 0; i < 20; ++i) {
		int64_t now = 0;
		std::thread([&] { now = counter(); }).join();
		EXPECT_GE(now, last);
		last = now;
	}
}

TEST(Clock, SleepsAtLeastTheTimeGiven) {
	for (const uint32_t ms : {0u, 1u, 20u, 120u}) {
		const int64_t start = counter();
		const std::time_t before = std::time(nullptr);
		sleepMs(ms);
		EXPECT_GE(counter() - start, ms * counterFrequency() / 1000);
		// The other clock keeps the counter's unit honest.
		EXPECT_LE((counter() - start) / counterFrequency(), static_cast<double>(std::time(nullptr) - before) + 1.1);
	}
	yieldThread();
}

TEST(Clock, LocalTimeIsTheCalendarOfTheMachine) {
	const std::time_t before = std::time(nullptr);
	const LocalTime now = localTime();
	const std::time_t after = std::time(nullptr);
	std::tm broken{};
	broken.tm_year = now.year - 1900;
	broken.tm_mon = now.month - 1;
	broken.tm_mday = now.day;
	broken.tm_hour = now.hour;
	broken.tm_min = now.minute;
	broken.tm_sec = now.second;
	broken.tm_isdst = std::localtime(&before)->tm_isdst;
	const std::time_t seconds = std::mktime(&broken);
	EXPECT_GE(seconds, before - 1); // the two clocks may differ by a tick
	EXPECT_LE(seconds, after);
	EXPECT_EQ(broken.tm_wday, now.dayOfWeek);
	EXPECT_EQ(std::clamp(now.millisecond, 0, 999), now.millisecond);
}

} // namespace
} // namespace platform
