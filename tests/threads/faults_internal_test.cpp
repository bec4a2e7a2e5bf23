#include <gtest/gtest.h>
#include <qor/base/status.h>
#include <qor/core/runtime.h>
#include <qor/platform/faults.h>
#include <qor/platform/thread.h>
#include <qor/threads/clock.h>
#include <qor/threads/multi_queue_instance.h>
#include <qor/threads/queue_instance.h>
#include <qor/threads/semaphore_worker.h>
#include <qor/threads/timer.h>

namespace {

using platform::FaultPoint;

struct Faults : testing::Test {
	~Faults() override {
		for (auto point : {FaultPoint::memory, FaultPoint::thread, FaultPoint::waitObject})
			platform::armFault(point, 0);
	}
};

TEST_F(Faults, RefusedThreadLeavesNoWorker) {
	CstxSemaphore worker;
	ASSERT_EQ(worker.Create(0, 10, nullptr), kQorSuccess);
	platform::armFault(FaultPoint::thread, 1);
	EXPECT_EQ(worker.StartWorker(nullptr, -1, 0), kQorFailure);
	EXPECT_EQ(worker.GetWorkerState(), 0u);
	EXPECT_EQ(worker.StartWorker(nullptr, -1, 0), kQorSuccess);

	CmcUtilTimer timer;
	platform::armFault(FaultPoint::thread, 1);
	EXPECT_EQ(timer.Create(1, nullptr), kQorFailure);
	EXPECT_EQ(timer.WaitForEnd(0), kQorSuccess);

	for (int nth : {1, 2}) {
		CstxClock clock;
		ASSERT_EQ(clock.Create(nullptr, 100, 0, 1), kQorSuccess);
		platform::armFault(FaultPoint::thread, nth);
		EXPECT_TRUE(clock.Start() == kQorFailure && clock.Stop() == kQorFailure); // not running
		EXPECT_EQ(clock.Start(), kQorSuccess);
	}
}

std::atomic<int> started{0}, ended{0}, priority{0};
std::atomic<uint64_t> affinity{0};

int noteAndAdd(Cqor_MultiMQInstance* multi, Cqor_MQWorker*, eqor_QUEUE_ITEM*, int code) {
	if (code == 1) {
		priority = platform::currentThreadPriority();
		affinity = platform::currentThreadAffinity();
		++started;
		multi->Add(1, 2, 3, nullptr, nullptr);
	}
	ended += code == 2;
	return 0;
}

TEST_F(Faults, MultiQueueEndsTheWorkersOfAFailedInstance) {
	const uint64_t all = platform::currentThreadAffinity(), lowest = all & (~all + 1);
	Cqor_MultiMQInstance multi;
	platform::armFault(FaultPoint::thread, 2);
	ASSERT_EQ(multi.Create(noteAndAdd, 2, 2, 4, static_cast<int>(lowest), -2), kQorSuccess);
	platform::armFault(FaultPoint::thread, 0);
	EXPECT_EQ(ended, 1); // its callback may add, which must not wait for Create
	int usage[2];
	multi.getWorkerUsage(usage);
	EXPECT_EQ(usage[1], 2);
	multi.Destroy();
	EXPECT_TRUE(started == 3 && ended == 3);
	EXPECT_TRUE(priority == -2 && affinity == lowest);
}

TEST_F(Faults, InstanceIsMadeWholeOrNotAtAll) {
	for (auto point : {FaultPoint::memory, FaultPoint::thread, FaultPoint::waitObject})
		for (int nth = 1, failed = 1; failed; ++nth) {
			SCOPED_TRACE(nth);
			Cqor_MQInstance instance;
			platform::armFault(point, nth);
			const bool made = instance.Create(nullptr, 3, 4, 0, 0, 1) == kQorSuccess; // perhaps without trace buffers
			failed = platform::faultCalls(point) >= nth;
			platform::armFault(point, 0);
			EXPECT_TRUE(made || failed);
			EXPECT_EQ(instance.GetWorkerCount(), made ? 3 : 0);
			EXPECT_EQ(instance.Add(1, 2, 3, nullptr, nullptr) != nullptr, made);
			EXPECT_EQ(instance.Create(nullptr, 1, 1, 0, 0, 1), kQorSuccess);
		}
}

} // namespace
