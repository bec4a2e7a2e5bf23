#include "wait_support.h"

#include "qor/platform/clock.h"
#include "qor/platform/thread.h"

#include <atomic>
#include <gtest/gtest.h>

namespace platform {
namespace {

struct Seen {
	std::atomic<uint32_t> id{0};
	int priority = -100;
	uint64_t affinity = 0;
	WaitHandle until = nullptr;
};

unsigned look(void* argument) {
	Seen& seen = *static_cast<Seen*>(argument);
	seen.priority = currentThreadPriority();
	seen.affinity = currentThreadAffinity();
	const WaitHandle until = seen.until;
	seen.id = threadId(); // `seen` may be gone from here on
	if (until) wait(until, kLong);
	return 0;
}

TEST(Thread, HandleIsSignalledAtTheEnd) {
	const Owned until(createEvent(true, false));
	Seen seen;
	seen.until = until.get();
	uint32_t id = 0;
	const WaitHandle thread = startThread(look, &seen, 0, 0, &id);
	EXPECT_EQ(wait(thread, 20), kWaitTimeout);
	setEvent(seen.until);
	EXPECT_EQ(wait(thread, kLong), kWaitAcquired);
	EXPECT_EQ(wait(thread, 0), kWaitAcquired); // and stays so
	EXPECT_EQ(seen.id, id);
	EXPECT_NE(id, threadId());
	EXPECT_TRUE(closeHandle(thread));
	EXPECT_EQ(wait(thread, 0), kWaitFailed);
}

TEST(Thread, GoesOnWhenItsHandleIsClosedAtOnce) {
	for (int i = 0; i < 50; ++i) {
		Seen seen;
		EXPECT_TRUE(closeHandle(startThread(look, &seen)));
		for (uint32_t ms = 0; ms < kLong && seen.id == 0; ++ms) sleepMs(1);
		ASSERT_NE(seen.id, 0u);
	}
}

TEST(Thread, HasThePriorityAndAffinityGiven) {
	const uint64_t all = currentThreadAffinity(), lowest = all & (~all + 1), none = uint64_t{1} << 63;
	if (all & none) GTEST_SKIP() << "this machine has all 64 processors";
	const std::tuple<const char*, int, uint64_t, uint64_t> rows[] = {{"normal", 0, 0, all},
	    {"idle", -15, lowest, lowest}, {"time critical", 15, all, all}, {"above normal", 1, 0, all},
	    {"no level of the system", 7, 0, all}, {"one processor of this machine", 0, lowest | none, lowest},
	    {"no processor of this machine", 0, none, all}};
	ASSERT_NE(all, 0u);
	for (const auto& [name, priority, affinity, expected] : rows) {
		SCOPED_TRACE(name);
		Seen seen;
		const Owned thread(startThread(look, &seen, priority, affinity));
		ASSERT_EQ(wait(thread.get(), kLong), kWaitAcquired);
		EXPECT_EQ(seen.priority, priority);
		EXPECT_EQ(seen.affinity, expected);
	}
}

} // namespace
} // namespace platform
