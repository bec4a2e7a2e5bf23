#include <gtest/gtest.h>
#include <qor/base/status.h>
#include <qor/core/runtime.h>
#include <qor/platform/faults.h>
#include <qor/threads/clock.h>
#include <qor/threads/queue_instance.h>
#include <qor/threads/semaphore_worker.h>
#include <qor/threads/timer.h>

namespace {

using platform::FaultPoint;

class Faults : public testing::Test {
protected:
	void TearDown() override {
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
		EXPECT_EQ(clock.Start(), kQorFailure);
		EXPECT_EQ(clock.Stop(), kQorFailure); // not running
		EXPECT_EQ(clock.Start(), kQorSuccess);
	}
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
