#include "support/wait_until.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <qor/threads/queue_instance.h>
#include <vector>

namespace {

using test_support::eventually;
constexpr int kFailure = 0x10000000;

/// What the callback notes through the instance's owner pointer.
struct Host {
	std::vector<unsigned> words; // of one worker at a time
	std::atomic<int> started{0}, ended{0}, items{0}, inside{0};
	std::atomic<bool> hold{false};
	void (*onItem)(Host* host, Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item) = nullptr;

	static int callBack(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code) {
		auto* host = static_cast<Host*>(worker->mInstance->mOwner);
		if (code != 0) return ++(code == 1 ? host->started : host->ended);
		EXPECT_EQ(item->mState, 3);
		++host->inside;
		while (host->hold) std::this_thread::sleep_for(std::chrono::milliseconds(1));
		if (host->onItem) host->onItem(host, worker, item);
		--host->inside;
		return ++host->items;
	}
	static void note(Host* host, Cqor_MQWorker*, eqor_QUEUE_ITEM* item) { host->words.push_back(item->mWord1); }
};

std::unique_ptr<Cqor_MQInstance> make(Host& host, int workers, int size, int start = 1) {
	return std::unique_ptr<Cqor_MQInstance>(
	    Cqor_MQInstance::wCreate(&host, Host::callBack, workers, size, 0, 0, start));
}

TEST(QueueInstance, CreateDecidesWorkersAndPool) {
	Host host;
	Cqor_MQInstance none;
	EXPECT_EQ(none.Create(Host::callBack, 0, 10, 0, 0, 1), kFailure);
	const auto instance = make(host, 3, 0, 0);
	for (int i = 0; i < 3; ++i) {
		ASSERT_NE(instance->GetWorker(i), nullptr);
		EXPECT_EQ(instance->GetWorker(i)->mIndex, i);
		EXPECT_NE(instance->Add(1, 2, 3, nullptr, nullptr), nullptr);
	}
	for (int i : {-1, 3}) EXPECT_EQ(instance->GetWorker(i), nullptr);
	EXPECT_EQ(instance->Add(1, 2, 3, nullptr, nullptr), nullptr); // as many items as workers
	EXPECT_EQ(instance->WaitForIdle(10), kFailure);
	instance->StartWorkers();
	EXPECT_EQ(instance->WaitForIdle(0xFFFFFFFF), 0);
	EXPECT_EQ(host.items, 3);
	instance->Destroy();
	EXPECT_TRUE(host.started == 3 && host.ended == 3);
	EXPECT_EQ(make(host, 2, 2, 0)->DestroyWorkers(), 0);
}

TEST(QueueInstance, AddExCutsItsData) {
	Host host;
	const std::vector<unsigned char> data(5000, 0xAB);
	for (const int length : {5000, 1024, 1023, 1, 0, -3}) {
		SCOPED_TRACE(length);
		const auto instance = make(host, 1, 1, 0);
		const auto* item = instance->AddEx(1, 2, 3, &host, nullptr, data.data(), length, data.data(), 1024 - length);
		const auto copied = [](const uint8_t* block) {
			return static_cast<int>(std::count(block, block + 1024, 0xAB));
		};
		EXPECT_EQ(copied(item->mData1), std::clamp(length, 0, 1024));
		EXPECT_EQ(copied(item->mData2), std::clamp(1024 - length, 0, 1024));
	}
}

TEST(QueueInstance, WorkersRunInParallel) {
	Host host;
	host.hold = true;
	const auto instance = make(host, 4, 8);
	for (int i = 0; i < 6; ++i) ASSERT_NE(instance->Add(1, 0, 0, nullptr, nullptr), nullptr);
	EXPECT_TRUE(eventually([&] { return host.inside == 4; })); // each is woken although the others never finish
	int usage[2];
	instance->GetWorkerUsage(usage);
	instance->GetWorkerUsage(nullptr);
	EXPECT_EQ(std::pair(usage[0], usage[1]), std::pair(4, 4));
	EXPECT_EQ(instance->GetPendingCount(), 2);
	host.hold = false;
	EXPECT_EQ(instance->WaitForIdle(0xFFFFFFFF), 0);
	EXPECT_EQ(host.items, 6);
}

TEST(QueueInstance, SignalsBeyondTheMaximumLeaveItemsForLaterOnes) {
	Host host;
	const auto instance = make(host, 1, 1010, 0);
	for (int i = 0; i < 1005; ++i) instance->Add(1, 0, 0, nullptr, nullptr);
	instance->StartWorkers();
	ASSERT_TRUE(eventually([&] { return host.items == 1000; }));
	instance->Add(2, 0, 0, nullptr, nullptr);
	ASSERT_TRUE(eventually([&] { return host.items == 1001; }));
	EXPECT_EQ(instance->GetPendingCount(), 5);
}

TEST(QueueInstance, DestroyEndsManyWorkersSoonAndDropsWhatIsPending) {
	Host host;
	const auto start = std::chrono::steady_clock::now();
	for (int workers : {1, 70, 1, 2}) {
		const auto instance = make(host, workers, 4);
		instance->Add(1, 0, 0, nullptr, nullptr); // right behind the start
	}
	EXPECT_TRUE(host.started == 74 && host.ended == 74);
	EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
}

TEST(QueueInstance, DestroyFromACallbackTakesItsFullTimeAndHarmsNothing) {
	Host host;
	host.onItem = [](Host* self, Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item) {
		worker->mInstance->Destroy();
		Host::note(self, worker, item); // after the pool was given up
	};
	const auto start = std::chrono::steady_clock::now();
	auto instance = make(host, 2, 4);
	instance->Add(42, 0, 0, nullptr, nullptr);
	ASSERT_TRUE(eventually([&] { return host.items == 1; }));
	EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(4990));
	EXPECT_EQ(host.words.at(0), 42u);
	host.onItem = nullptr;
	ASSERT_EQ(instance->Create(Host::callBack, 1, 4, 0, 0, 1), 0); // as good as new
	instance->Add(43, 0, 0, nullptr, nullptr);
	EXPECT_EQ(instance->WaitForIdle(0xFFFFFFFF), 0);
	EXPECT_EQ(host.items, 2);
	EXPECT_EQ(host.ended, 1); // the abandoned one has no last call
}

} // namespace
