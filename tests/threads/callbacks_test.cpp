#include "support/wait_until.h"

#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <qor/core/runtime.h>
#include <qor/threads/clock.h>
#include <qor/threads/queue_instance.h>
#include <qor/threads/semaphore_worker.h>
#include <qor/threads/timer.h>

namespace {

using test_support::eventually;

std::atomic<int> calls, done;

/// What a callback does, once, to the object that calls it.
template <class Object>
struct Once {
	static inline std::atomic<void (*)(Object* object)> operation;
	static void call(Object* object) {
		++calls;
		if (const auto now = operation.exchange(nullptr)) now(object), ++done;
	}
};

/// Has each operation done in a callback of an object of its own. The last one deletes its object.
template <class Object, size_t N>
void inCallBack(void (*const (&operations)[N])(Object*), const std::function<Object*()>& make) {
	const auto start = std::chrono::steady_clock::now();
	for (size_t i = 0; i < N; ++i) {
		calls = done = 0;
		Once<Object>::operation = operations[i];
		Object* object = make();
		ASSERT_TRUE(eventually([] { return done == 1; }));
		if (i + 1 < N) delete object;
	}
	EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20)); // none waited for itself
}

int onTick(CstxClock* clock, double, unsigned long, unsigned long) { return Once<CstxClock>::call(clock), 0; }

TEST(CallBacks, ClockMayBeUsedInBoth) {
	static void (*const operations[])(CstxClock*) = {[](CstxClock* c) { EXPECT_EQ(c->Stop(), 0x10000000); },
	    [](CstxClock* c) { EXPECT_TRUE(c->Stop() != 0 && c->Start() == 0); }, [](CstxClock* c) { c->Destroy(); },
	    [](CstxClock* c) { c->Create(onTick, 100, 0, 1); },
	    [](CstxClock* c) { c->SetOnExecutionCallBack(nullptr), c->Reset(), c->Pause(1); },
	    [](CstxClock* c) { delete c; }};
	for (const bool paces : {false, true})
		inCallBack<CstxClock>(operations, [paces] {
			auto* clock = new CstxClock;
			EXPECT_EQ(clock->Create(paces ? nullptr : onTick, 200, 0, 1), 0);
			if (paces) clock->SetOnExecutionCallBack(onTick);
			EXPECT_EQ(clock->Start(), 0);
			return clock;
		});
}

int onTimer(CmcUtilTimer* timer, unsigned long, unsigned long, void*, void*) {
	return Once<CmcUtilTimer>::call(timer), 0;
}

TEST(CallBacks, TimerMayBeUsedOnItsThreadAndInSignal) {
	appRawInit("", 0);
	static void (*const operations[])(CmcUtilTimer*) = {[](CmcUtilTimer* t) { t->Destroy(); },
	    [](CmcUtilTimer* t) { EXPECT_EQ(t->Create(100, onTimer), 0); }, [](CmcUtilTimer* t) { t->Signal(); },
	    [](CmcUtilTimer* t) { delete t; }};
	for (const bool called : {false, true})
		inCallBack<CmcUtilTimer>(operations, [called] {
			auto* timer = new CmcUtilTimer;
			const auto now = called ? Once<CmcUtilTimer>::operation.exchange(nullptr) : nullptr;
			EXPECT_EQ(timer->Create(100, onTimer), 0);
			if (!called) return timer;
			eventually([] { return calls == 1; });
			timer->Destroy();
			EXPECT_EQ(timer->WaitForEnd(5000), 0);
			Once<CmcUtilTimer>::operation = now;
			timer->Signal(); // must not go on to OnSignal of a deleted one
			return timer;
		});
}

int onSemaphore(CstxSemaphore* worker, unsigned long code, unsigned long, unsigned long) {
	if (code == CstxSemaphore::kCallBackSignal) Once<CstxSemaphore>::call(worker);
	return 0;
}

TEST(CallBacks, SemaphoreWorkerMayBeUsedAndNeverWaitsForItself) {
	static void (*const operations[])(CstxSemaphore*) = {
	    [](CstxSemaphore* s) { EXPECT_EQ(s->StopWorker(), 0x10000000); },
	    [](CstxSemaphore* s) { EXPECT_EQ(s->StartWorker(onSemaphore, -1, 0), 0x10000000); },
	    [](CstxSemaphore* s) { s->Create(0, 5, nullptr); }, [](CstxSemaphore* s) { delete s; }};
	inCallBack<CstxSemaphore>(operations, [] {
		auto* worker = new CstxSemaphore;
		worker->Create(0, 10, nullptr);
		EXPECT_EQ(worker->StartWorker(onSemaphore, 5, 0), 0);
		worker->Release(1, nullptr);
		return worker;
	});
}

} // namespace
