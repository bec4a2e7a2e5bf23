#if defined(_WIN32)
#include <windows.h>
#endif

#include "support/wait_until.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <qor/core/class_manager.h>
#include <qor/threads/multi_queue_instance.h>
#include <vector>

namespace {

// What the callback notes and does.
std::atomic<int> items{0}, inside{0};
std::atomic<bool> hold{false};
std::function<void(Cqor_MultiMQInstance*, const eqor_QUEUE_ITEM*)> onItem;

int callBack(Cqor_MultiMQInstance* multi, Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code) {
	EXPECT_EQ(worker->mInstance->mMultiOwner, multi);
	if (code != 0) return 0;
	++inside;
	while (hold) std::this_thread::sleep_for(std::chrono::milliseconds(1));
	if (onItem) onItem(multi, item);
	--inside;
	return ++items;
}

class MultiQueue : public testing::Test {
protected:
	~MultiQueue() override { hold = false, multi.Destroy(), onItem = nullptr; }
	const eqor_QUEUE_ITEM* add() { return multi.Add(0, 0, 0, nullptr, nullptr); }
	/// Makes instances of one held worker and fills them up, one after the other in turn.
	void fill(int count, int size) {
		hold = true;
		ASSERT_EQ(multi.Create(callBack, count, 1, size, 0, 0), 0);
		for (int i = 0; i < count * size; ++i) {
			const eqor_QUEUE_ITEM* item = add();
			if (i < count) pools[i] = item; // claims take the first free item
			EXPECT_EQ(item, pools[i % count] + i / count);
		}
		EXPECT_EQ(add(), nullptr);
		ASSERT_TRUE(test_support::eventually([&] { return inside == count; }));
	}
	void finish() {
		hold = false;
		for (int i = 0; auto* worker = multi.getWorker(i, 0); ++i) worker->mInstance->WaitForIdle(0xFFFFFFFF);
		hold = true;
	}

	const eqor_QUEUE_ITEM* pools[3] = {};
	Cqor_MultiMQInstance multi;
};

TEST_F(MultiQueue, DealsOutInTurnAndTheCounterMovesByOne) {
	fill(3, 1); // the counter is back at 0
	finish();
	EXPECT_EQ(add(), pools[0]);
	multi.getWorker(1, 0)->mInstance->Add(0, 0, 0, nullptr, nullptr); // full by another path
	EXPECT_EQ(add(), pools[2]);                                       // from 1 on; the counter is 2 now
	EXPECT_EQ(add(), nullptr);                                        // and stays
	finish();
	EXPECT_TRUE(add() == pools[2] && add() == pools[0]);
}

TEST_F(MultiQueue, ReportsItsUsage) {
	SIZE size;
	int instances = 7, workers = 7;
	EXPECT_EQ(multi.getWorkerCount(&size) + multi.getWorkerCount(static_cast<SIZE*>(nullptr)), 0);
	ASSERT_EQ(multi.Create(callBack, 2, 4, 8, 0, 0), 0);
	EXPECT_EQ(multi.getWorkerCount(&size) * 100 + size.cx * 10 + size.cy, 824);
	EXPECT_EQ(multi.getWorkerCount(&instances, &workers) * 100 + instances * 10 + workers, 824);
	for (const auto& [i, j] : {std::pair(-1, 0), {2, 0}, {0, -1}, {0, 4}}) EXPECT_EQ(multi.getWorker(i, j), nullptr);
	fill(2, 3);
	int usage[2];
	multi.getQueueUsage(nullptr), multi.getQueueUsage(usage);
	EXPECT_EQ(usage[0] * 10 + usage[1], 46); // two are with the workers
	multi.getWorkerUsage(nullptr), multi.getWorkerUsage(usage);
	EXPECT_EQ(usage[0] * 10 + usage[1], 22);
	hold = false;
	EXPECT_EQ(multi.Create(callBack, 2, 0, 5, 0, 0), 0); // instances that failed keep their places
	EXPECT_EQ(multi.getWorkerCount(&size) + size.cx, 2);
	EXPECT_TRUE(std::unique_ptr<Cmc>(qorMCGetManager()->classNew("Cqor_MultiMQInstance"))->istype(multi.gettype()));
}

TEST_F(MultiQueue, ProducersLoseNothingAndOneWorkerKeepsTheOrder) {
	for (const int workers : {1, 4}) {
		std::vector<unsigned> words[3]; // of each producer
		onItem = [&](auto*, auto* item) {
			if (workers == 1) words[item->mWord2].push_back(item->mWord1);
		};
		items = 0;
		ASSERT_EQ(multi.Create(callBack, 1, workers, 4, 0, 0), 0);
		std::vector<std::jthread> producers;
		for (unsigned p = 0; p < 3; ++p)
			producers.emplace_back([&, p] {
				for (unsigned i = 0; i < 3000; ++i) {
					while (!multi.Add(i, p, 0, nullptr, nullptr)) std::this_thread::yield();
					if (i % 100 == 0) multi.Lock(), std::this_thread::yield(), multi.Unlock();
				}
			});
		producers.clear();
		multi.Destroy(); // finishes what is queued
		EXPECT_EQ(items, 9000);
		for (unsigned i = 0; i < 9000 && workers == 1; ++i) ASSERT_EQ(words[i % 3].at(i / 3), i / 3);
	}
}

TEST_F(MultiQueue, DestroyReachesItemsBeyondTheSignalsOfAnInstance) {
	for (const int workers : {1, 2}) { // one takes without the lock
		hold = true, items = 0;
		ASSERT_EQ(multi.Create(callBack, 1, workers, 1200, 0, 0), 0);
		for (int i = 0; i < 1200; ++i) ASSERT_NE(add(), nullptr);
		hold = false;
		multi.Destroy();
		EXPECT_EQ(items, 1200);
	}
}

TEST_F(MultiQueue, DestroyDrainsWhileCallbacksUseTheObject) {
	for (const bool locked : {false, true}) {
		fill(1, 5);
		onItem = [&](Cqor_MultiMQInstance* object, const eqor_QUEUE_ITEM*) {
			object->Add(0, 1, 0, nullptr, nullptr);
			object->Destroy();                                              // refused
			EXPECT_EQ(object->Create(callBack, 1, 1, 1, 0, 0), 0x10000000); // refused
			object->Lock(), object->Unlock();
		};
		items = 0;
		if (locked) multi.Lock(); // callbacks wait for it already when Destroy begins
		hold = false;
		std::this_thread::sleep_for(std::chrono::milliseconds(locked ? 20 : 0));
		EXPECT_TRUE(!locked || items == 0); // their adds wait for it, too
		multi.Destroy();
		if (locked) multi.Unlock();
		EXPECT_GE(items, 5);
	}
}

} // namespace
