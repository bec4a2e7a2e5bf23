#include "process_roles.h"
#include "qor/platform/clock.h"
#include "qor/platform/folder.h"
#include "qor/platform/thread.h"
#include "wait_support.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

namespace platform {
namespace {

constexpr uint32_t kInvalidHandle = 6;

uint32_t waitElsewhere(WaitHandle handle, uint32_t timeoutMs = 0) {
	uint32_t result = 0;
	std::thread([&] { result = wait(handle, timeoutMs); }).join();
	return result;
}

TEST(WaitHandles, EveryFunctionRefusesNullClosedAndForeign) {
	const Owned event(createEvent(true, true));
	int local = 0;
	const std::pair<std::string, WaitHandle> handles[] = {{"null", nullptr},
	    {"foreign", reinterpret_cast<WaitHandle>(&local)}, {"invalid", reinterpret_cast<WaitHandle>(intptr_t{-1})},
	    {"closed", createEvent(true, true)}};
	for (const auto& [name, handle] : handles) {
		SCOPED_TRACE(name);
		// Closed as late as possible: Windows gives the number to whatever is opened next.
		if (name == "closed") closeHandle(handle);
		setLastError(0);
		EXPECT_EQ(wait(handle, 0), kWaitFailed);
		EXPECT_EQ(lastError(), kInvalidHandle);
		EXPECT_FALSE(releaseMutex(handle) || releaseSemaphore(handle, 1, nullptr));
		EXPECT_FALSE(setEvent(handle) || resetEvent(handle) || pulseEvent(handle) || closeHandle(handle));
		const WaitHandle both[] = {event.get(), handle};
		EXPECT_EQ(waitAll(both, 2, 0), kWaitFailed);
	}
}

TEST(WaitHandles, RefuseOperationsOfAnotherKind) {
	for (const auto& name : privateAndNamed()) {
		const Owned mutex(createMutex(false, (name.empty() ? name : name + "m").c_str()));
		const Owned semaphore(createSemaphore(0, 2, name.c_str())), event(createEvent(true, false));
		for (const auto* other : {&semaphore, &event}) EXPECT_FALSE(releaseMutex(other->get()));
		for (const auto* other : {&mutex, &event}) EXPECT_FALSE(releaseSemaphore(other->get(), 1, nullptr));
		for (const auto* other : {&mutex, &semaphore})
			EXPECT_FALSE(setEvent(other->get()) || resetEvent(other->get()) || pulseEvent(other->get()));
		EXPECT_EQ(wait(semaphore.get(), 0), kWaitTimeout);
	}
}

TEST(Mutex, IsRecursiveAndReleasedOnlyByItsOwner) {
	for (const auto& name : privateAndNamed()) {
		SCOPED_TRACE(name);
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

TEST(Mutex, OfAnEndedThreadIsAbandonedOnceItsHandleIsSignalled) {
	const Owned own(createMutex(false)), named(createMutex(false, uniqueName().c_str()));
	WaitHandle mutexes[] = {own.get(), named.get()};
	const ThreadFunction acquireAll = [](void* all) -> unsigned {
		return waitAll(static_cast<WaitHandle*>(all), 2, 0);
	};
	EXPECT_EQ(wait(Owned(startThread(acquireAll, mutexes)).get(), kLong), kWaitAcquired);
	for (WaitHandle mutex : mutexes) {
		EXPECT_EQ(wait(mutex, 0), kWaitAbandoned);
		EXPECT_EQ(wait(mutex, 0), kWaitAcquired); // only once
		EXPECT_TRUE(releaseMutex(mutex) && releaseMutex(mutex));
		EXPECT_EQ(waitElsewhere(mutex), kWaitAcquired);
	}
}

TEST(Semaphore, CountsUpToItsMaximum) {
	// Initial value, maximum, permits released; whether it is made, whether released; permits afterwards.
	static constexpr std::tuple<int32_t, int32_t, int32_t, bool, bool, int> rows[] = {{-1, 1, 1, false, false, 0},
	    {0, 0, 1, false, false, 0}, {3, 2, 1, false, false, 0}, {1, 3, 2, true, true, 3}, {1, 3, 3, true, false, 1},
	    {INT32_MAX - 1, INT32_MAX, 1, true, true, 4}, {2, INT32_MAX, INT32_MAX - 1, true, false, 2},
	    {1, 3, 0, true, false, 1}, {1, 3, -1, true, false, 1}};
	for (const auto& [initial, maximum, count, made, released, expected] : rows) {
		for (const auto& name : privateAndNamed()) {
			SCOPED_TRACE(testing::Message() << initial << " of " << maximum << " and " << count << name);
			const Owned semaphore(createSemaphore(initial, maximum, name.c_str()));
			ASSERT_EQ(semaphore != nullptr, made);
			if (!made) continue;
			int32_t previous = -7;
			EXPECT_EQ(releaseSemaphore(semaphore.get(), count, &previous), released);
			EXPECT_EQ(previous, released ? initial : -7);
			int permits = 0;
			while (permits < 4 && wait(semaphore.get(), 0) == kWaitAcquired) ++permits;
			EXPECT_EQ(permits, expected);
		}
	}
}

TEST(Semaphore, OneReleaseEndsSeveralWaits) {
	const Owned semaphore(createSemaphore(0, 10));
	std::vector<std::jthread> waiters;
	for (int i = 0; i < 3; ++i) waiters.emplace_back([&] { EXPECT_EQ(wait(semaphore.get(), kLong), kWaitAcquired); });
	const int64_t start = counter();
	EXPECT_EQ(wait(semaphore.get(), 50), kWaitTimeout);
	EXPECT_GE((counter() - start) / counterFrequency(), 0.04);
	EXPECT_TRUE(releaseSemaphore(semaphore.get(), 3, nullptr));
}

TEST(Event, AutoResetIsClearedByAWaitAndManualResetStays) {
	for (const bool manual : {false, true}) {
		for (const auto& name : privateAndNamed()) {
			SCOPED_TRACE((manual ? "manual " : "automatic ") + name);
			const Owned event(createEvent(manual, true, name.c_str()));
			for (int i = 0; i < 2; ++i) {
				EXPECT_EQ(wait(event.get(), 0), kWaitAcquired);
				EXPECT_EQ(wait(event.get(), 0), manual ? kWaitAcquired : kWaitTimeout);
				EXPECT_TRUE(setEvent(event.get()) && setEvent(event.get()));
				EXPECT_TRUE(i ? pulseEvent(event.get()) : resetEvent(event.get())); // nobody waits
				EXPECT_EQ(wait(event.get(), 10), kWaitTimeout);
				EXPECT_TRUE(setEvent(event.get()) && setEvent(event.get()));
			}
		}
	}
}

TEST(Event, ReleasesThoseWhoWaitAndKeepsNothing) {
	const auto setAndReset = [](WaitHandle event) { return setEvent(event) && resetEvent(event); };
	const std::tuple<const char*, bool, bool (*)(WaitHandle)> rows[] = {
	    {"automatic ", false, pulseEvent}, {"manual ", true, pulseEvent}, {"set ", true, setAndReset}};
	for (const auto& [kind, manual, release] : rows) {
		for (const auto& name : privateAndNamed()) {
			SCOPED_TRACE(kind + name);
			const Owned event(createEvent(manual, false, name.c_str()));
			std::atomic<int> started{0}, released{0};
			std::vector<std::jthread> waiters;
			for (int i = 0; i < 4; ++i) {
				waiters.emplace_back([&] {
					++started;
					if (wait(event.get(), kLong) == kWaitAcquired) ++released;
				});
			}
			while (started < 4) sleepMs(1);
			for (int calls = 1; released < 4 && calls < 1000; ++calls) {
				EXPECT_TRUE(release(event.get()));
				sleepMs(10);
				EXPECT_LE(released, manual ? 4 : calls);
			}
			EXPECT_EQ(released, 4);
			EXPECT_EQ(wait(event.get(), 0), kWaitTimeout);
		}
	}
}

/// The result of a wait during which the handle is closed, and `then` is done. Where a loaded machine
/// lets the wait begin after that, it fails rightly, and is tried again with more time.
uint32_t waitDuringClose(const std::function<WaitHandle()>& make, bool timesOut, const std::function<void()>& then) {
	uint32_t result = kWaitFailed;
	for (uint32_t pause = 50; result == kWaitFailed && pause < 10000; pause *= 4) {
		const WaitHandle handle = make();
		const Owned closed(createEvent(true, false));
		std::atomic<bool> started{false};
		std::thread waiter([&] {
			started = true;
			result = wait(handle, timesOut ? 5 * pause : kLong);
			wait(closed.get(), kLong);
			EXPECT_EQ(wait(handle, 0), kWaitFailed); // the next one
			EXPECT_EQ(lastError(), kInvalidHandle);
		});
		while (!started) sleepMs(1);
		sleepMs(pause);
		EXPECT_TRUE(closeHandle(handle));
		then();
		setEvent(closed.get());
		waiter.join();
	}
	return result;
}

TEST(Close, LeavesAWaitInProgressAlone) {
	EXPECT_EQ(waitDuringClose([] { return createSemaphore(0, 1); }, true, [] {}), kWaitTimeout);
	const std::string name = uniqueName();
	const Owned other(createSemaphore(0, 1, name.c_str()));
	const auto open = [&] { return openSemaphore(name.c_str()); };
	const auto release = [&] { releaseSemaphore(other.get(), 1, nullptr); };
	EXPECT_EQ(waitDuringClose(open, false, release), kWaitAcquired);
}

TEST(Close, LeavesAMutexToTheThreadThatWaitsWhenItsOwnerEnds) {
	const Owned acquired(createEvent(false, false)), end(createEvent(false, false));
	std::thread owner;
	const auto make = [&] {
		WaitHandle mutex = nullptr;
		owner = std::thread([&] {
			mutex = createMutex(true);
			setEvent(acquired.get());
			wait(end.get(), kLong);
		});
		wait(acquired.get(), kLong);
		return mutex;
	};
	const auto endOwner = [&] {
		setEvent(end.get());
		owner.join();
	};
	EXPECT_EQ(waitDuringClose(make, false, endOwner), kWaitAbandoned);
}

TEST(WaitAll, AcquiresEverythingOrNothing) {
	const Owned mutex(createMutex(false)), semaphore(createSemaphore(2, 2)), automatic(createEvent(false, true)),
	    manual(createEvent(true, false));
	const WaitHandle all[] = {mutex.get(), semaphore.get(), automatic.get(), manual.get()};
	for (const uint32_t ms : {0, 50}) EXPECT_EQ(waitAll(all, 4, ms), kWaitTimeout);
	EXPECT_FALSE(releaseSemaphore(semaphore.get(), 1, nullptr)); // still full
	EXPECT_FALSE(releaseMutex(mutex.get()));
	EXPECT_EQ(waitElsewhere(mutex.get()), kWaitAcquired);
	EXPECT_EQ(waitAll(all, 4, 0), kWaitTimeout); // which leaves the mutex abandoned
	std::thread later([&] {
		sleepMs(30);
		setEvent(manual.get());
	});
	EXPECT_EQ(waitAll(all, 4, kLong), kWaitAbandoned);
	later.join();
	EXPECT_EQ(wait(semaphore.get(), 0), kWaitAcquired);
	for (const auto* taken : {&semaphore, &automatic}) EXPECT_EQ(wait(taken->get(), 0), kWaitTimeout);
	EXPECT_TRUE(releaseMutex(mutex.get()));
	EXPECT_EQ(waitAll(all, 1, 0), kWaitAcquired);
}

TEST(WaitAll, TakesOneTo64Objects) {
	std::vector<Owned> owners;
	std::vector<WaitHandle> handles;
	for (int i = 0; i <= kMaximumWaitObjects; ++i) {
		owners.emplace_back(createEvent(true, true));
		handles.push_back(owners.back().get());
	}
	EXPECT_EQ(waitAll(handles.data(), kMaximumWaitObjects, 0), kWaitAcquired);
	for (const int count : {kMaximumWaitObjects + 1, 0, -1}) EXPECT_EQ(waitAll(handles.data(), count, 0), kWaitFailed);
	EXPECT_EQ(waitAll(nullptr, 1, 0), kWaitFailed);
}

TEST(Contention, LosesNoPermitAndNoExclusion) {
	for (const auto& name : privateAndNamed()) {
		const Owned mutex(createMutex(false, name.c_str())), semaphore(createSemaphore(0, 100000));
		constexpr int kThreads = 8, kRounds = 1500; // every second thread takes what its neighbour gave
		int sum = 0;                                // plain: the mutex protects it
		const auto run = [&](bool gives) {
			for (int round = 0; round < kRounds; ++round) {
				if (gives) releaseSemaphore(semaphore.get(), 1, nullptr);
				while (!gives && wait(semaphore.get(), round % 3) == kWaitTimeout)
					yieldThread(); // races with a release
				if (wait(mutex.get(), kLong) != kWaitAcquired) return;
				++sum;
				if (round % 64 == 0) yieldThread();
				releaseMutex(mutex.get());
			}
		};
		std::vector<std::jthread> threads;
		for (int i = 0; i < kThreads; ++i) threads.emplace_back(run, i % 2 == 0);
		threads.clear();
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
		// Windows may give the number again, to be hit by a call on the old object.
		const bool again = next.get() == old && kPathSeparator == '\\';
		EXPECT_TRUE(again || wait(next.get(), 0) == kWaitTimeout);
	}
	stop = true;
	user.join();
	closeHandle(shared);
}

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

TEST(Thread, GoesOnWhenItsHandleIsClosedAtOnce) {
	for (int i = 0; i < 50; ++i) {
		Seen seen;
		EXPECT_TRUE(closeHandle(startThread(look, &seen)));
		for (uint32_t ms = 0; ms < kLong && seen.id == 0; ++ms) sleepMs(1);
		ASSERT_NE(seen.id, 0u);
	}
}

TEST(Thread, HasThePriorityAndAffinityGivenAndSignalsItsEnd) {
	const uint64_t all = currentThreadAffinity(), lowest = all & (~all + 1), none = uint64_t{1} << 63;
	if (all & none) GTEST_SKIP() << "this machine has all 64 processors";
	const std::tuple<const char*, int, uint64_t, uint64_t> rows[] = {{"normal", 0, 0, all},
	    {"idle", -15, lowest, lowest}, {"time critical", 15, all, all}, {"above normal", 1, 0, all},
	    {"no level of the system", 7, 0, all}, {"one processor of this machine", 0, lowest | none, lowest},
	    {"no processor of this machine", 0, none, all}};
	ASSERT_NE(all, 0u);
	for (const auto& [name, priority, affinity, expected] : rows) {
		SCOPED_TRACE(name);
		const Owned until(createEvent(true, false));
		Seen seen{.until = until.get()};
		uint32_t id = 0;
		const Owned thread(startThread(look, &seen, priority, affinity, &id));
		EXPECT_EQ(wait(thread.get(), 10), kWaitTimeout);
		setEvent(until.get());
		for (int i = 0; i < 2; ++i) ASSERT_EQ(wait(thread.get(), kLong), kWaitAcquired); // and stays so
		EXPECT_TRUE(seen.id == id && id != threadId());
		EXPECT_EQ(seen.priority, priority);
		EXPECT_EQ(seen.affinity, expected);
	}
}

constexpr uint32_t kAlreadyExists = 183;

/// Ends with a mutex owned and everything open, as a killed process does.
int playVictim(const std::string& name) {
	const WaitHandle mutex = openMutex((name + "m").c_str()), own = createSemaphore(1, 1, (name + "own").c_str());
	if (wait(mutex, kLong) != kWaitAcquired || wait(own, 0) != kWaitAcquired) return 1;
	int32_t previous = 0;
	if (!releaseSemaphore(openSemaphore((name + "s").c_str()), 2, &previous) || previous != 1) return 2;
	if (!setEvent(openEvent((name + "e").c_str())) || openEvent((name + "s").c_str())) return 3;
	sleepMs(100); // the other process waits for the mutex by now
	return 0;
}

using test_support::runRole;
const test_support::RoleOf gVictim("victim", playVictim);

TEST(NamedObjects, AreOpenedAgainWithTheirOwnValues) {
	const std::string name = uniqueName();
	EXPECT_EQ(openSemaphore(name.c_str()), nullptr);
	EXPECT_EQ(lastError(), 2u);
	Owned first(createSemaphore(1, 2, name.c_str()));
	EXPECT_EQ(lastError(), 0u);
	Owned second(createSemaphore(5, 9, name.c_str()));
	ASSERT_TRUE(first && second);
	EXPECT_EQ(lastError(), kAlreadyExists);
	EXPECT_EQ(wait(second.get(), 0), kWaitAcquired);
	EXPECT_EQ(wait(first.get(), 0), kWaitTimeout);
	EXPECT_FALSE(releaseSemaphore(second.get(), 3, nullptr));
	EXPECT_TRUE(!openEvent(name.c_str()) && !createMutex(false, name.c_str()) && lastError() == kInvalidHandle);
	first.reset();
	EXPECT_TRUE(Owned(openSemaphore(name.c_str())));
	second.reset();
	EXPECT_EQ(openSemaphore(name.c_str()), nullptr); // went with its last handle
}

TEST(NamedObjects, HaveAnyNameAndNoneIsPrivate) {
	const std::string name = uniqueName();
	const std::string names[] = {name + "a", name + "A", name + "a b\xE4%s/..:*", name + std::string(150, 'x')};
	Owned made[4];
	for (int i = 0; i < 4; ++i) {
		made[i].reset(createEvent(true, i % 2, names[i].c_str()));
		EXPECT_TRUE(made[i] && lastError() != kAlreadyExists) << names[i];
	}
	for (int i = 0; i < 4; ++i) {
		EXPECT_EQ(wait(Owned(openEvent(names[i].c_str())).get(), 0), i % 2 ? kWaitAcquired : kWaitTimeout) << names[i];
	}
	static constexpr std::pair<const char*, uint32_t> refused[] = {
	    {"Other\\", 3}, {"\\", 161}, {"Local\\\\", 123}, {"Local\\a\\", 3}, {"local\\", 3}};
	for (const auto& [prefix, error] : refused) {
		const std::string bad = prefix + name;
		EXPECT_TRUE(!createMutex(false, bad.c_str()) && lastError() == error) << bad;
		EXPECT_TRUE(!createSemaphore(0, 1, bad.c_str()) && !openEvent(bad.c_str()) && lastError() == error) << bad;
	}
	const std::string longest(259, 'x'), tooLong(260, 'x');
	EXPECT_TRUE(Owned(createMutex(false, longest.c_str())) && !createMutex(false, tooLong.c_str()));
	EXPECT_EQ(lastError(), 206u);
	EXPECT_TRUE(!openSemaphore(tooLong.c_str()) && !createEvent(true, true, tooLong.c_str()));
	EXPECT_TRUE(Owned(openEvent(("Local\\" + names[0]).c_str())));
	EXPECT_FALSE(Owned(openEvent(("Global\\" + names[0]).c_str())));
	const Owned empty(createEvent(true, true, "")), other(createEvent(true, false, ""));
	EXPECT_EQ(wait(other.get(), 0), kWaitTimeout);
	EXPECT_TRUE(!openMutex(nullptr) && !openEvent(""));
}

TEST(NamedObjects, AMutexClosedWhileOwnedIsAbandonedWithItsThread) {
	const std::string name = uniqueName();
	const Owned kept(createMutex(false, name.c_str()));
	std::thread([&] { EXPECT_EQ(wait(Owned(openMutex(name.c_str())).get(), 0), kWaitAcquired); }).join();
	EXPECT_EQ(wait(kept.get(), kLong), kWaitAbandoned);
}

TEST(NamedObjects, SurviveAProcessThatEndsWithThem) {
	const std::string name = uniqueName();
	const Owned mutex(createMutex(false, (name + "m").c_str())), semaphore(createSemaphore(1, 3, (name + "s").c_str())),
	    ready(createEvent(true, false, (name + "e").c_str()));
	std::thread victim([&] { EXPECT_EQ(runRole("victim", name), 0); });
	EXPECT_EQ(wait(ready.get(), kLong), kWaitAcquired);
	EXPECT_EQ(wait(mutex.get(), kLong), kWaitAbandoned);
	EXPECT_TRUE(releaseMutex(mutex.get()));
	EXPECT_EQ(wait(mutex.get(), 0), kWaitAcquired);
	victim.join();
	for (int i = 0; i < 4; ++i) EXPECT_EQ(wait(semaphore.get(), 0), i < 3 ? kWaitAcquired : kWaitTimeout);
	// What only that process had is gone, and made anew with its initial values.
	EXPECT_EQ(openSemaphore((name + "own").c_str()), nullptr);
	EXPECT_EQ(wait(Owned(createSemaphore(1, 1, (name + "own").c_str())).get(), 0), kWaitAcquired);
}

} // namespace
} // namespace platform
