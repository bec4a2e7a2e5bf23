#include <gtest/gtest.h>
#include <qor/threads/message_queue.h>
#include <thread>

namespace {

constexpr int kFailure = 0x10000000;

TEST(MessageQueue, ClaimsFirstFit) {
	Cqor_MsgQueue queue;
	EXPECT_EQ(queue.GetFreeItem(0), nullptr);
	ASSERT_EQ(queue.Create(130), 0); // beyond two words of the map
	eqor_QUEUE_ITEM* const first = queue.GetFreeItem(0);
	for (int i = 1; i < 130; ++i) EXPECT_EQ(queue.GetFreeItem(0), first + i);
	EXPECT_EQ(queue.AddInts(1, 2, 3, 4, 5, 6, 7, 8, 9), kFailure);
	EXPECT_EQ(first[129].mState, 1);
	for (int i : {129, 64, 63, 7}) queue.FreeItem(first + i);
	EXPECT_EQ(first[129].mState, 0);
	for (int i : {7, 63, 64, 129}) EXPECT_EQ(queue.GetFreeItem(0), first + i);
	first->mWord1 = 5;
	queue.Reset();
	EXPECT_TRUE(queue.GetFreeItem(0) == first && first->mWord1 == 0);
}

TEST(MessageQueue, PassesItemsOnInOrder) {
	Cqor_MsgQueue queue;
	ASSERT_EQ(queue.Create(3), 0);
	for (int round = 0; round < 5; ++round) {
		ASSERT_EQ(queue.AddInts(1, 2, 3, 4, 5, 6, 7, 8, 0xFFFFFFFF), 0);
		ASSERT_EQ(queue.AddIntsAndFP(10, 2, 3, 4, 5, 0.5, 1.5, 2.5, 3.5), 0);
		ASSERT_EQ(queue.Add(20, 2, 3, 4, 5, nullptr, &queue), 0);
		eqor_QUEUE_ITEM* items[] = {queue.Get(), queue.Get(), queue.Get()};
		EXPECT_EQ(queue.Get(), nullptr);
		EXPECT_TRUE(items[0]->mIntegers[5] == -1 && items[1]->mReals[3] == 3.5 && items[2]->mPointer2 == &queue);
		for (auto* item : items) {
			EXPECT_EQ(item->mState, 3);
			queue.FreeItem(item);
		}
	}
}

TEST(MessageQueue, TakesForeignItems) {
	Cqor_MsgQueue home, other;
	ASSERT_EQ(home.Create(2) + other.Create(1), 0);
	eqor_QUEUE_ITEM* first = home.GetFreeItem(0);
	home.GetFreeItem(0);
	EXPECT_TRUE(other.AddToStack(nullptr) == -1 && other.AddToStack(first) == 1 && other.AddToStack(first) == -1);
	EXPECT_EQ(other.Add(1, 2, 3, 4, 5, nullptr, nullptr), 0); // claimed, no place to be pending
	EXPECT_TRUE(!other.GetFreeItem(0) && other.Get() == first && first->mState == 3);
	other.FreeItem(first);
	EXPECT_EQ(home.GetFreeItem(0), first); // free at home again
	EXPECT_EQ(home.GetFreeItem(0), nullptr);
}

TEST(MessageQueue, LockKeepsOthersOutAndIsPassedOn) {
	Cqor_MsgQueue queue;
	ASSERT_EQ(queue.Create(4), 0);
	eqor_QUEUE_ITEM* mine = queue.GetFreeItem(1);
	std::thread other([&] {
		queue.Unlock(); // not the owner: no effect
		queue.Add(2, 0, 0, 0, 0, nullptr, nullptr);
	});
	std::this_thread::sleep_for(std::chrono::milliseconds(30));
	EXPECT_EQ(queue.GetPendingCount(), 0);
	queue.Lock(); // recursive
	queue.Unlock();
	mine->mWord1 = 1;
	EXPECT_EQ(queue.AddToStack(mine), 1);
	queue.Unlock();
	other.join();
	EXPECT_EQ(queue.Get(), mine);
	EXPECT_EQ(queue.Get()->mWord1, 2u);
	while (queue.GetFreeItem(1)) queue.Unlock(); // without an item the lock is not kept
	std::thread([&] { queue.Lock(); }).join();
	queue.FreeItem(mine);
	EXPECT_EQ(queue.GetFreeItem(0), mine);
}

TEST(MessageQueue, LosesNothingUnderContention) {
	constexpr unsigned long kMessages = 8000;
	Cqor_MsgQueue queue;
	ASSERT_EQ(queue.Create(7), 0);
	std::thread producer([&] {
		for (unsigned long i = 0; i < kMessages; ++i) {
			while (queue.Add(i, 0, 0, 0, 0, nullptr, nullptr) != 0) std::this_thread::yield();
			if (i % 16 == 0) queue.Lock(), queue.Unlock();
		}
	});
	for (unsigned long i = 0; i < kMessages; std::this_thread::yield())
		while (eqor_QUEUE_ITEM* item = queue.Get()) {
			EXPECT_EQ(item->mWord1, i++);
			queue.FreeItem(item);
		}
	producer.join();
}

} // namespace
