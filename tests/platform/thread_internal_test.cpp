#include "qor/platform/clock.h"
#include "qor/platform/faults.h"
#include "qor/platform/machine.h"
#include "qor/platform/thread.h"
#include "qor/platform/wait.h"

#include <atomic>
#include <gtest/gtest.h>

namespace platform {
namespace {

constexpr uint32_t kLong = 20000;

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
	Seen seen;
	seen.until = createEvent(true, false);
	uint32_t id = 0;
	const WaitHandle thread = startThread(look, &seen, 0, 0, &id);
	EXPECT_EQ(wait(thread, 20), kWaitTimeout);
	setEvent(seen.until);
	EXPECT_EQ(wait(thread, kLong), kWaitAcquired);
	EXPECT_EQ(wait(thread, 0), kWaitAcquired); // and stays so
	EXPECT_EQ(seen.id, id);
	EXPECT_NE(id, threadId());
	EXPECT_TRUE(closeHandle(thread) && closeHandle(seen.until));
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

TEST(Thread, AbandonsItsMutexesBeforeItsHandleIsSignalled) {
	WaitHandle mutexes[] = {createMutex(false), createMutex(false, "qor-test-thread-mutex")};
	const ThreadFunction acquireAll = [](void* argument) -> unsigned {
		return waitAll(static_cast<WaitHandle*>(argument), 2, kLong);
	};
	const WaitHandle thread = startThread(acquireAll, mutexes);
	EXPECT_EQ(wait(thread, kLong), kWaitAcquired);
	for (WaitHandle mutex : mutexes) {
		EXPECT_EQ(wait(mutex, 0), kWaitAbandoned);
		closeHandle(mutex);
	}
	closeHandle(thread);
}

TEST(Thread, HasThePriorityAndAffinityGiven) {
	const uint64_t all = currentThreadAffinity();
	const uint64_t lowest = all & (~all + 1);
	const struct {
		const char* name;
		int priority;
		uint64_t affinity, expected;
	} rows[] = {
	    {"normal", 0, 0, all},
	    {"idle", -15, lowest, lowest},
	    {"time critical", 15, all, all},
	    {"above normal", 1, 0, all},
	    {"no level of the system", 7, 0, all},
	    {"one processor of this machine", 0, lowest | uint64_t{1} << 63, lowest},
	    {"no processor of this machine", 0, uint64_t{1} << 63, all},
	};
	ASSERT_NE(all, 0u);
	for (const auto& row : rows) {
		SCOPED_TRACE(row.name);
		if (all >> 63) GTEST_SKIP() << "this machine has all 64 processors";
		Seen seen;
		const WaitHandle thread = startThread(look, &seen, row.priority, row.affinity);
		ASSERT_EQ(wait(thread, kLong), kWaitAcquired);
		EXPECT_EQ(seen.priority, row.priority);
		EXPECT_EQ(seen.affinity, row.expected);
		closeHandle(thread);
	}
}

TEST(Thread, StartCanFail) {
	Seen seen;
	EXPECT_EQ(startThread(nullptr, &seen), nullptr);
	armFault(FaultPoint::thread, 1);
	EXPECT_EQ(startThread(look, &seen), nullptr);
	EXPECT_EQ(lastError(), 8u);
	const WaitHandle thread = startThread(look, &seen);
	EXPECT_EQ(wait(thread, kLong), kWaitAcquired);
	armFault(FaultPoint::thread, 0);
	closeHandle(thread);
}

} // namespace
} // namespace platform
