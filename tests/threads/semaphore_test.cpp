#include "support/wait_until.h"

#include <array>
#include <atomic>
#include <gtest/gtest.h>
#include <mutex>
#include <qor/core/runtime.h>
#include <qor/threads/mutex.h>
#include <qor/threads/semaphore_worker.h>
#include <string>
#include <vector>

namespace {

using test_support::eventually;
constexpr int kFailure = 0x10000000;

TEST(Mutex, IsRecursiveExclusiveNamedAndPassedOn) {
	CstMutex mutex(nullptr, 1, "qor_threads_test_mutex"); // owned
	CstMutex same(nullptr, 0, "qor_threads_test_mutex");
	const auto lockInOther = [&](unsigned long timeoutMs) {
		int result = 0;
		std::thread([&] { result = same.Lock(timeoutMs); }).join();
		return result;
	};
	EXPECT_EQ(mutex.Lock(0xFFFFFFFF), 0);
	EXPECT_EQ(mutex.Unlock(), 0);
	std::thread([&] { EXPECT_EQ(mutex.Unlock(), 0); }).join(); // not the owner: no effect
	EXPECT_EQ(lockInOther(5), 0x102);
	mutex.Unlock();
	EXPECT_EQ(lockInOther(1000), 0);
	EXPECT_EQ(mutex.Lock(1000), 0x80); // its owner ended
}

TEST(Semaphore, CountsUpToItsMaximum) {
	CstSemaphore semaphore;
	long previous = 77;
	EXPECT_TRUE(semaphore.Release(1, &previous) == kFailure && semaphore.Wait(0) == -1);
	ASSERT_EQ(semaphore.Create(1, 3, nullptr), 0);
	EXPECT_TRUE(semaphore.Release(3, &previous) == kFailure && previous == 77);
	EXPECT_TRUE(semaphore.Release(2, &previous) == 0 && previous == 1);
	for (int expected : {0, 0, 0, 0x102}) EXPECT_EQ(semaphore.Wait(0), expected);
	appLogActivateMemList(true);
	EXPECT_EQ(semaphore.Create(5, 3, nullptr), kFailure);
	appLogActivateMemList(false);
	EXPECT_TRUE(
	    std::string(appLogGetMemListItem(0)).ends_with("ERROR> CstxSemaphore::Create() HANDLE=0000000000000000"));
	EXPECT_EQ(semaphore.Wait(0), -1);
}

using Call = std::array<unsigned long, 3>; // code, a, b

std::mutex callsMutex;
std::vector<Call> calls;
std::atomic<int> answer;

int record(CstxSemaphore*, unsigned long code, unsigned long a, unsigned long b) {
	std::lock_guard lock(callsMutex);
	calls.push_back({code, a, b});
	return code == 4 ? answer.load() : 9; // only the answer to code 4 may matter
}

bool callsBecome(const std::vector<Call>& expected) {
	return eventually([&] {
		std::lock_guard lock(callsMutex);
		return calls == expected;
	});
}

TEST(SemaphoreWorker, CallsForEveryReleaseAndEndsAsAnswered) {
	using Calls = std::vector<Call>;
	answer = 1;
	const Calls released = {{1, 0, 0}, {3, 0, 0}, {3, 1, 0}, {3, 2, 0}, {2, 0, 0}};
	const Calls failed = {{1, 0, 0}, {4, 0, 0}, {2, 0, 0}}, timedOut = {{1, 0, 0}, {4, 1, 0}, {2, 0, 0}};
	for (const auto& expected : {released, failed, timedOut}) {
		const bool stopped = expected == released;
		calls.clear();
		CstxSemaphore worker; // without a semaphore every wait fails
		if (expected != failed) worker.Create(0, 1000, nullptr);
		ASSERT_EQ(worker.StartWorker(record, stopped ? -1 : 5, 0), 0);
		if (stopped) worker.Release(3, nullptr);
		ASSERT_TRUE(callsBecome(Calls(expected.begin(), expected.end() - stopped)));
		EXPECT_EQ(worker.GetWorkerState(), stopped ? 1u : 3u);
		EXPECT_TRUE(worker.StopWorker() == 0 && worker.GetWorkerState() == 0);
		EXPECT_TRUE(callsBecome(expected));
	}
	for (int i = 0; i < 10; ++i) { // a stop right behind the start is never missed
		CstxSemaphore worker;
		worker.Create(0, 10, nullptr);
		for (int start = 0; start <= i % 2; ++start) ASSERT_EQ(worker.StartWorker(nullptr, -1, 0), 0);
	}
}

TEST(SemaphoreWorker, MayBeDeletedByItsLastCall) {
	static std::atomic<bool> started, deleted;
	started = deleted = false;
	auto* worker = new CstxSemaphore;
	const auto end = [](CstxSemaphore* sender, unsigned long code, unsigned long, unsigned long) {
		if (code != 2) return 1;
		eventually([] { return started.load(); }); // nothing may run beside the destructor
		delete sender;
		deleted = true;
		return 0;
	};
	ASSERT_EQ(worker->StartWorker(end, 5, 0), 0);
	started = true;
	EXPECT_TRUE(eventually([] { return deleted.load(); }));
}

} // namespace
