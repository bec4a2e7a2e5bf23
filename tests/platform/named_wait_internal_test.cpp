#include "process_roles.h"
#include "wait_support.h"

#include "qor/platform/clock.h"

#include <gtest/gtest.h>
#include <thread>

/// Named objects, within one process and between two.
namespace platform {
namespace {

constexpr uint32_t kAlreadyExists = 183;

int playVisitor(const std::string& name) {
	const Owned mutex(openMutex((name + "m").c_str())), semaphore(openSemaphore((name + "s").c_str())),
	    event(createEvent(true, false, (name + "e").c_str()));
	if (!mutex || !semaphore || !event || lastError() != kAlreadyExists) return 1;
	if (wait(event.get(), 0) != kWaitAcquired) return 2;
	if (wait(mutex.get(), 30) != kWaitTimeout || releaseMutex(mutex.get())) return 3;
	int32_t previous = 0;
	if (!releaseSemaphore(semaphore.get(), 2, &previous) || previous != 1) return 4;
	if (releaseSemaphore(semaphore.get(), 1, nullptr) || openEvent((name + "s").c_str())) return 5;
	return resetEvent(event.get()) ? 0 : 6;
}

/// Ends with a mutex owned and everything open, as a killed process does.
int playVictim(const std::string& name) {
	const WaitHandle mutex = openMutex((name + "m").c_str()), own = createSemaphore(1, 1, (name + "own").c_str());
	if (wait(mutex, kLong) != kWaitAcquired || wait(own, 0) != kWaitAcquired) return 1;
	if (!setEvent(openEvent((name + "e").c_str()))) return 2;
	sleepMs(100); // the other process waits for the mutex by now
	return 0;
}

using test_support::runRole;
const test_support::RoleOf gVisitor("visitor", playVisitor), gVictim("victim", playVictim);

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
	EXPECT_EQ(createMutex(false, name.c_str()), nullptr);
	EXPECT_EQ(lastError(), 6u);
	EXPECT_EQ(openEvent(name.c_str()), nullptr);
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

TEST(NamedObjects, AreSharedBetweenProcesses) {
	const std::string name = uniqueName();
	const Owned mutex(createMutex(true, (name + "m").c_str())), semaphore(createSemaphore(1, 3, (name + "s").c_str())),
	    event(createEvent(true, true, (name + "e").c_str()));
	ASSERT_EQ(runRole("visitor", name), 0);
	for (int i = 0; i < 4; ++i) EXPECT_EQ(wait(semaphore.get(), 0), i < 3 ? kWaitAcquired : kWaitTimeout);
	EXPECT_EQ(wait(event.get(), 0), kWaitTimeout);
	EXPECT_TRUE(releaseMutex(mutex.get()));
}

TEST(NamedObjects, SurviveAProcessThatEndsWithThem) {
	const std::string name = uniqueName();
	const Owned mutex(createMutex(false, (name + "m").c_str())), ready(createEvent(true, false, (name + "e").c_str()));
	std::thread victim([&] { EXPECT_EQ(runRole("victim", name), 0); });
	EXPECT_EQ(wait(ready.get(), kLong), kWaitAcquired);
	EXPECT_EQ(wait(mutex.get(), kLong), kWaitAbandoned);
	EXPECT_TRUE(releaseMutex(mutex.get()));
	EXPECT_EQ(wait(mutex.get(), 0), kWaitAcquired);
	victim.join();
	// What only that process had is gone, and made anew with its initial values.
	EXPECT_EQ(openSemaphore((name + "own").c_str()), nullptr);
	EXPECT_EQ(wait(Owned(createSemaphore(1, 1, (name + "own").c_str())).get(), 0), kWaitAcquired);
}

} // namespace
} // namespace platform
