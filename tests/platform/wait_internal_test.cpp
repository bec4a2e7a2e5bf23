#include "qor/platform/clock.h"
#include "qor/platform/faults.h"
#include "qor/platform/machine.h"
#include "qor/platform/thread.h"
#include "qor/platform/wait.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace platform {
namespace {

constexpr uint32_t kLong = 20000; // ms; reached only by a fault
constexpr uint32_t kInvalidHandle = 6;

struct Closer {
	void operator()(WaitObject* handle) const { closeHandle(handle); }
};
using Owned = std::unique_ptr<WaitObject, Closer>;

uint32_t waitElsewhere(WaitHandle handle, uint32_t timeoutMs = 0) {
	uint32_t result = 0;
	std::thread([&] { result = wait(handle, timeoutMs); }).join();
	return result;
}

/// Lets a thread end while it owns the mutex.
void abandon(WaitHandle mutex) { EXPECT_EQ(waitElsewhere(mutex, kLong), kWaitAcquired); }

bool reaches(const std::atomic<int>& value, int expected) {
	for (uint32_t i = 0; i < kLong && value != expected; ++i) sleepMs(1);
	return value == expected;
}

std::string uniqueName(const char* what) {
	static int number = 0;
	return "qor test " + std::to_string(processId()) + "/" + std::to_string(++number) + "/" + what;
}

/// Threads in one wait each.
class Waiters {
public:
	Waiters(WaitHandle handle, int count) {
		for (int i = 0; i < count; ++i) {
			mThreads.emplace_back([this, handle] {
				++mStarted;
				if (wait(handle, kLong) == kWaitAcquired) ++released;
			});
		}
		reaches(mStarted, count);
		sleepMs(20); // they count as waiting once inside; no test is sound only because of this
	}
	~Waiters() {
		for (auto& thread : mThreads) thread.join();
	}
	std::atomic<int> released{0};

private:
	std::atomic<int> mStarted{0};
	std::vector<std::thread> mThreads;
};

TEST(WaitHandles, EveryFunctionRefusesNullClosedAndForeign) {
	const Owned event(createEvent(true, true));
	int local = 0;
	const struct {
		const char* name;
		WaitHandle handle;
	} handles[] = {{"null", nullptr}, {"foreign", reinterpret_cast<WaitHandle>(&local)},
	    {"invalid", reinterpret_cast<WaitHandle>(intptr_t{-1})}, {"closed", createEvent(true, true)}};
	for (const auto& row : handles) {
		SCOPED_TRACE(row.name);
		// Closed as late as possible: Windows gives the number to whatever is opened next.
		if (row.name == std::string("closed")) closeHandle(row.handle);
		setLastError(0);
		EXPECT_EQ(wait(row.handle, 0), kWaitFailed);
		EXPECT_EQ(lastError(), kInvalidHandle);
		EXPECT_FALSE(releaseMutex(row.handle));
		EXPECT_FALSE(releaseSemaphore(row.handle, 1, nullptr));
		EXPECT_FALSE(setEvent(row.handle));
		EXPECT_FALSE(resetEvent(row.handle));
		EXPECT_FALSE(pulseEvent(row.handle));
		EXPECT_FALSE(closeHandle(row.handle));
		const WaitHandle both[] = {event.get(), row.handle};
		EXPECT_EQ(waitAll(both, 2, 0), kWaitFailed);
	}
}

TEST(WaitHandles, RefuseOperationsOfAnotherKind) {
	const Owned mutex(createMutex(false)), semaphore(createSemaphore(0, 2)), event(createEvent(true, false));
	const std::string name = uniqueName("kind");
	const Owned named(createSemaphore(0, 2, name.c_str()));
	for (WaitHandle handle : {semaphore.get(), event.get(), named.get()}) EXPECT_FALSE(releaseMutex(handle));
	for (WaitHandle handle : {mutex.get(), event.get()}) EXPECT_FALSE(releaseSemaphore(handle, 1, nullptr));
	for (WaitHandle handle : {mutex.get(), semaphore.get(), named.get()}) {
		EXPECT_FALSE(setEvent(handle) || resetEvent(handle) || pulseEvent(handle));
	}
	EXPECT_EQ(wait(semaphore.get(), 0), kWaitTimeout);
}

TEST(WaitHandles, CreationCanFail) {
	const std::function<WaitHandle()> calls[] = {[] { return createMutex(true); }, [] { return createSemaphore(0, 1); },
	    [] { return createEvent(false, false); }, [] { return createSemaphore(0, 1, uniqueName("").c_str()); }};
	for (const auto& call : calls) {
		armFault(FaultPoint::waitObject, 2);
		const Owned first(call()), second(call()), third(call());
		EXPECT_TRUE(first && !second && third);
		EXPECT_EQ(faultCalls(FaultPoint::waitObject), 3);
		armFault(FaultPoint::waitObject, 0);
	}
}

TEST(Mutex, IsRecursiveAndReleasedOnlyByItsOwner) {
	for (const char* kind : {"private", "named"}) {
		SCOPED_TRACE(kind);
		const std::string name = *kind == 'n' ? uniqueName("mutex") : "";
		const Owned mutex(createMutex(true, name.c_str()));
		EXPECT_EQ(wait(mutex.get(), kInfinite), kWaitAcquired);
		EXPECT_EQ(wait(mutex.get(), 0), kWaitAcquired);
		std::thread([&] { EXPECT_FALSE(releaseMutex(mutex.get())); }).join();
		for (int i = 0; i < 3; ++i) {
			EXPECT_EQ(waitElsewhere(mutex.get(), i ? 0 : 30), kWaitTimeout);
			EXPECT_TRUE(releaseMutex(mutex.get()));
		}
		EXPECT_FALSE(releaseMutex(mutex.get())); // nobody owns it
		std::thread([&] { EXPECT_TRUE(wait(mutex.get(), 0) == kWaitAcquired && releaseMutex(mutex.get())); }).join();
	}
}

TEST(Mutex, OfAnEndedThreadIsAbandonedOnce) {
	for (const char* kind : {"private", "named"}) {
		SCOPED_TRACE(kind);
		const std::string name = *kind == 'n' ? uniqueName("abandoned") : "";
		const Owned mutex(createMutex(false, name.c_str()));
		abandon(mutex.get());
		EXPECT_EQ(wait(mutex.get(), kLong), kWaitAbandoned);
		EXPECT_EQ(wait(mutex.get(), 0), kWaitAcquired);
		EXPECT_TRUE(releaseMutex(mutex.get()) && releaseMutex(mutex.get()));
		EXPECT_EQ(waitElsewhere(mutex.get()), kWaitAcquired);
	}
}

TEST(Semaphore, CountsUpToItsMaximum) {
	static constexpr struct {
		const char* name;
		int32_t initial, maximum, count;
		bool made, released;
		int permits; // afterwards
	} rows[] = {
	    {"negative initial", -1, 1, 1, false, false, 0},
	    {"no maximum", 0, 0, 1, false, false, 0},
	    {"initial above maximum", 3, 2, 1, false, false, 0},
	    {"to the maximum", 1, 3, 2, true, true, 3},
	    {"past the maximum", 1, 3, 3, true, false, 1},
	    {"largest", 0x7FFFFFFE, 0x7FFFFFFF, 1, true, true, 4},
	    {"past the largest", 2, 0x7FFFFFFF, 0x7FFFFFFE, true, false, 2},
	    {"nothing", 1, 3, 0, true, false, 1},
	    {"less", 1, 3, -1, true, false, 1},
	};
	for (const auto& row : rows) {
		for (const bool isNamed : {false, true}) {
			SCOPED_TRACE(std::string(row.name) + (isNamed ? " named" : ""));
			const std::string name = isNamed ? uniqueName("semaphore") : "";
			const Owned semaphore(createSemaphore(row.initial, row.maximum, name.c_str()));
			ASSERT_EQ(semaphore != nullptr, row.made);
			if (!row.made) continue;
			int32_t previous = -7;
			EXPECT_EQ(releaseSemaphore(semaphore.get(), row.count, &previous), row.released);
			EXPECT_EQ(previous, row.released ? row.initial : -7);
			int permits = 0;
			while (permits < 4 && wait(semaphore.get(), 0) == kWaitAcquired) ++permits;
			EXPECT_EQ(permits, row.permits);
		}
	}
}

TEST(Semaphore, OneReleaseEndsSeveralWaits) {
	const Owned semaphore(createSemaphore(0, 10));
	{
		Waiters waiters(semaphore.get(), 3);
		EXPECT_TRUE(releaseSemaphore(semaphore.get(), 5, nullptr));
	}
	EXPECT_TRUE(wait(semaphore.get(), 0) == kWaitAcquired && wait(semaphore.get(), 0) == kWaitAcquired);
	const int64_t start = counter();
	EXPECT_EQ(wait(semaphore.get(), 50), kWaitTimeout);
	EXPECT_GE((counter() - start) / counterFrequency(), 0.04);
}

TEST(Event, AutoResetIsClearedByAWaitAndManualResetStays) {
	for (const bool manual : {false, true}) {
		for (const bool isNamed : {false, true}) {
			SCOPED_TRACE(testing::Message() << "manual " << manual << " named " << isNamed);
			const std::string name = isNamed ? uniqueName("event") : "";
			const Owned event(createEvent(manual, true, name.c_str()));
			const uint32_t again = manual ? kWaitAcquired : kWaitTimeout;
			EXPECT_EQ(wait(event.get(), 0), kWaitAcquired);
			EXPECT_EQ(wait(event.get(), 0), again);
			EXPECT_TRUE(setEvent(event.get()) && setEvent(event.get()) && resetEvent(event.get()));
			EXPECT_EQ(wait(event.get(), 10), kWaitTimeout);
			EXPECT_TRUE(setEvent(event.get()) && setEvent(event.get()));
			EXPECT_EQ(wait(event.get(), 0), kWaitAcquired);
			EXPECT_EQ(wait(event.get(), 0), again);
			EXPECT_TRUE(setEvent(event.get()) && pulseEvent(event.get())); // nobody waits
			EXPECT_EQ(wait(event.get(), 0), kWaitTimeout);
		}
	}
}

TEST(Event, PulseReleasesThoseWhoWaitAndLeavesNothing) {
	for (const bool manual : {false, true}) {
		for (const bool isNamed : {false, true}) {
			SCOPED_TRACE(testing::Message() << "manual " << manual << " named " << isNamed);
			const std::string name = isNamed ? uniqueName("pulse") : "";
			const Owned event(createEvent(manual, false, name.c_str()));
			Waiters waiters(event.get(), 4);
			int pulses = 0;
			while (waiters.released < 4 && pulses < 1000) {
				EXPECT_TRUE(pulseEvent(event.get()));
				++pulses;
				sleepMs(10);
				EXPECT_LE(waiters.released, manual ? 4 : pulses);
			}
			EXPECT_EQ(waiters.released, 4);
			EXPECT_EQ(wait(event.get(), 0), kWaitTimeout);
			setEvent(event.get());
		}
	}
}

TEST(Event, SetReachesThoseWhoWaitThoughAResetFollows) {
	for (const bool isNamed : {false, true}) {
		const std::string name = isNamed ? uniqueName("set") : "";
		const Owned event(createEvent(true, false, name.c_str()));
		Waiters waiters(event.get(), 3);
		for (int i = 0; i < 1000 && waiters.released < 3; ++i) {
			EXPECT_TRUE(setEvent(event.get()) && resetEvent(event.get()));
			sleepMs(10);
		}
		EXPECT_EQ(waiters.released, 3);
		setEvent(event.get());
	}
}

TEST(Close, LeavesAWaitAloneUntilItsTimeOut) {
	const WaitHandle semaphore = createSemaphore(0, 1);
	std::thread waiter([&] {
		EXPECT_EQ(wait(semaphore, 300), kWaitTimeout);
		EXPECT_EQ(wait(semaphore, kInfinite), kWaitFailed);
		EXPECT_EQ(lastError(), kInvalidHandle);
	});
	sleepMs(50);
	EXPECT_TRUE(closeHandle(semaphore));
	waiter.join();
}

TEST(Close, LeavesAWaitToTheOtherHandle) {
	const std::string name = uniqueName("other handle");
	const WaitHandle semaphore = createSemaphore(0, 1, name.c_str());
	const Owned other(openSemaphore(name.c_str()));
	std::thread waiter([&] { EXPECT_EQ(wait(semaphore, kLong), kWaitAcquired); });
	sleepMs(50);
	EXPECT_TRUE(closeHandle(semaphore) && releaseSemaphore(other.get(), 1, nullptr));
	waiter.join();
}

TEST(Mutex, GoesToAWaiterWhenItsOwnerEnds) {
	for (const bool closed : {false, true}) {
		const WaitHandle mutex = createMutex(false);
		const Owned acquired(createEvent(true, false)), end(createEvent(true, false));
		std::thread owner([&] {
			wait(mutex, kLong);
			setEvent(acquired.get());
			wait(end.get(), kLong);
		});
		ASSERT_EQ(wait(acquired.get(), kLong), kWaitAcquired);
		std::thread waiter([&] { EXPECT_EQ(wait(mutex, kLong), kWaitAbandoned); });
		sleepMs(50);
		EXPECT_TRUE(!closed || closeHandle(mutex));
		setEvent(end.get());
		owner.join();
		waiter.join();
		if (!closed) closeHandle(mutex);
	}
}

TEST(WaitAll, AcquiresEverythingOrNothing) {
	const Owned mutex(createMutex(false)), semaphore(createSemaphore(2, 2)), automatic(createEvent(false, true)),
	    manual(createEvent(true, false));
	const WaitHandle all[] = {mutex.get(), semaphore.get(), automatic.get(), manual.get()};
	EXPECT_EQ(waitAll(all, 4, 0), kWaitTimeout);
	EXPECT_EQ(waitAll(all, 4, 50), kWaitTimeout);
	EXPECT_FALSE(releaseSemaphore(semaphore.get(), 1, nullptr)); // still full
	EXPECT_FALSE(releaseMutex(mutex.get()));
	abandon(mutex.get());
	EXPECT_EQ(waitAll(all, 4, 0), kWaitTimeout); // which leaves the mutex abandoned
	std::thread later([&] {
		sleepMs(30);
		setEvent(manual.get());
	});
	EXPECT_EQ(waitAll(all, 4, kLong), kWaitAbandoned);
	later.join();
	EXPECT_EQ(wait(semaphore.get(), 0), kWaitAcquired);
	EXPECT_EQ(wait(semaphore.get(), 0), kWaitTimeout);
	EXPECT_EQ(wait(automatic.get(), 0), kWaitTimeout);
	EXPECT_TRUE(releaseMutex(mutex.get()));
	EXPECT_EQ(waitAll(all, 1, 0), kWaitAcquired);
}

TEST(WaitAll, TakesOneTo64Objects) {
	const Owned event(createEvent(true, true));
	std::vector<Owned> owners;
	std::vector<WaitHandle> handles;
	for (int i = 0; i <= kMaximumWaitObjects; ++i) {
		owners.emplace_back(createEvent(true, true));
		handles.push_back(owners.back().get());
	}
	EXPECT_EQ(waitAll(handles.data(), kMaximumWaitObjects, 0), kWaitAcquired);
	EXPECT_EQ(waitAll(handles.data(), kMaximumWaitObjects + 1, 0), kWaitFailed);
	EXPECT_EQ(waitAll(handles.data(), 0, 0), kWaitFailed);
	EXPECT_EQ(waitAll(nullptr, 1, 0), kWaitFailed);
}

TEST(Contention, LosesNoPermitAndNoExclusion) {
	for (const bool isNamed : {false, true}) {
		const std::string name = isNamed ? uniqueName("contended") : "";
		const Owned mutex(createMutex(false, name.c_str())), semaphore(createSemaphore(0, 100000));
		constexpr int kThreads = 4, kRounds = 1500;
		int sum = 0; // plain: the mutex protects it
		std::vector<std::thread> threads;
		for (int i = 0; i < kThreads; ++i) {
			threads.emplace_back([&] {
				for (int round = 0; round < kRounds; ++round) {
					releaseSemaphore(semaphore.get(), 1, nullptr);
					if (wait(mutex.get(), kLong) != kWaitAcquired) return;
					++sum;
					if (round % 64 == 0) yieldThread();
					releaseMutex(mutex.get());
				}
			});
			threads.emplace_back([&] {
				for (int round = 0; round < kRounds; ++round) {
					// Short time-outs race with the releases.
					while (wait(semaphore.get(), round % 3) == kWaitTimeout) {
					}
				}
			});
		}
		for (auto& thread : threads) thread.join();
		EXPECT_EQ(sum, kThreads * kRounds);
		EXPECT_EQ(wait(semaphore.get(), 0), kWaitTimeout);
	}
}

TEST(Contention, ClosingAndReusingNeverTouchesTheNextObject) {
	std::atomic<bool> stop{false};
	std::atomic<WaitHandle> shared{createSemaphore(0, 1)};
	std::thread user([&] {
		while (!stop) {
			releaseSemaphore(shared, 1, nullptr);
			wait(shared, 0);
		}
	});
	for (int i = 0; i < 3000; ++i) {
		const WaitHandle old = shared.exchange(createSemaphore(0, 1));
		EXPECT_TRUE(closeHandle(old));
		const Owned next(createSemaphore(0, 1));
		EXPECT_EQ(wait(next.get(), 0), kWaitTimeout);
	}
	stop = true;
	user.join();
	closeHandle(shared);
}

} // namespace
} // namespace platform
