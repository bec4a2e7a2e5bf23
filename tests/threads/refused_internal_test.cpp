#include "support/refused_allocations.h"

#include <climits>
#include <qor/core/runtime.h>
#include <qor/threads/clock.h>
#include <qor/threads/multi_queue_instance.h>
#include <qor/threads/mutex.h>
#include <qor/threads/semaphore_worker.h>
#include <qor/threads/timer.h>

using test_support::refuseEach;

TEST(RefusedAllocations, EndAsTheStatedFailure) {
	appRawInit("", 0);
	refuseEach("queue", [] {
		Cqor_MsgQueue queue;
		return queue.Create(5) == 0 && queue.Add(1, 2, 3, 4, 5, nullptr, nullptr) == 0 && queue.Get();
	});
	refuseEach("instances", [] {
		Cqor_MultiMQInstance multi;
		return multi.Create(nullptr, 2, 1, 5, 0, 0) == 0 && multi.Add(1, 2, 3, nullptr, nullptr);
	});
	refuseEach("workers", [] {
		CstMutex mutex;
		CstxSemaphore semaphore;
		CstxClock clock;
		CmcUtilTimer timer;
		return mutex.Lock(0) == CstMutex::kAcquired && semaphore.Create(0, 5, nullptr) == 0 &&
		       semaphore.StartWorker(nullptr, 5, 0) == 0 && clock.Create(nullptr, 100, 0, 1) == 0 &&
		       clock.Start() == 0 && timer.Create(0.01, nullptr) == 0;
	});
}

TEST(RefusedAllocations, SizesThatNoMachineHasAreRefused) {
	Cqor_MsgQueue queue;
	Cqor_MQInstance instance;
	Cqor_MultiMQInstance multi;
	EXPECT_EQ(queue.Create(INT_MAX) & queue.Create(INT_MAX - 62) & queue.Create(-1), 0x10000000);
	EXPECT_EQ(
	    instance.Create(nullptr, 1, INT_MAX, 0, 0, 0) & instance.Create(nullptr, INT_MAX, 1, 0, 0, 0), 0x10000000);
	EXPECT_EQ(multi.Create(nullptr, INT_MAX, 1, 1, 0, 0), 0x10000000);
	EXPECT_TRUE(queue.GetCapacity() == 0 && instance.GetWorkerCount() == 0 && !multi.getWorker(0, 0));
}
