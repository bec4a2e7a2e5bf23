#include "support/wait_until.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <qor/core/class_manager.h>
#include <qor/core/runtime.h>
#include <qor/threads/clock.h>
#include <qor/threads/timer.h>

namespace {

using test_support::eventually;
constexpr int kFailure = 0x10000000;

std::atomic<unsigned long> ticks, executions, lastCount;

int onTick(CstxClock*, double, unsigned long count, unsigned long) {
	lastCount = count;
	return static_cast<int>(++ticks);
}

int onExecution(CstxClock*, double, unsigned long, unsigned long) { return static_cast<int>(++executions); }

TEST(Clock, RefusesWhatItIsNotReadyFor) {
	CstxClock clock;
	for (int result : {clock.Create(onTick, 0, 0, 1), clock.Create(onTick, -5, 0, 1), clock.Start(), clock.Stop(),
	         clock.Reset(), clock.Destroy()})
		EXPECT_EQ(result, kFailure);
	ASSERT_EQ(clock.Create(onTick, 100, 0, 1), 0);
	for (int result : {clock.Stop(), clock.Reset()}) EXPECT_EQ(result, kFailure);
	EXPECT_TRUE(clock.GetTime() == 0 && clock.GetRawTime() > 0);
	EXPECT_TRUE(clock.Destroy() == 0 && clock.GetRawTime() == 0);
}

TEST(Clock, PeriodStartsWithTheFormerGranularity) {
	CstxClock clock;
	ASSERT_EQ(clock.Create(nullptr, 100, 0, 4), 0);
	EXPECT_DOUBLE_EQ(clock.GetEffectivePeriod(), 0.009);
	ASSERT_EQ(clock.Create(nullptr, 100, 0, 2), 0);
	EXPECT_DOUBLE_EQ(clock.GetEffectivePeriod(), 0.006);
	ASSERT_EQ(clock.Start(), 0);
	EXPECT_TRUE(eventually([&] { return clock.GetEffectivePeriod() == 1.0 / 100 - 2 * 0.001; }));
	clock.SetFrequency(0); // counts as 1 Hz
	EXPECT_TRUE(eventually([&] { return clock.GetEffectivePeriod() == 1.0 - 2 * 0.001; }));
}

TEST(Clock, TicksPausesAndStops) {
	ticks = executions = 0;
	CstxClock clock;
	ASSERT_EQ(clock.Create(onTick, 200, 0, 1), 0);
	clock.SetOnExecutionCallBack(onExecution);
	for (int start = 0; start < 2; ++start) ASSERT_EQ(clock.Start(), 0); // the second finds it running
	EXPECT_TRUE(eventually([] { return ticks >= 5 && executions >= 5; }));
	clock.Pause(7);
	std::this_thread::sleep_for(std::chrono::milliseconds(20)); // a callback under way
	const auto paused = std::pair(ticks.load(), executions.load());
	std::this_thread::sleep_for(std::chrono::milliseconds(50));
	EXPECT_EQ(std::pair(ticks.load(), executions.load()), paused);
	clock.Pause(0);
	ASSERT_EQ(clock.Create(onTick, 100, 0, 1), 0); // with a new event, while it runs
	EXPECT_TRUE(eventually([&] { return ticks > paused.first + 2 && lastCount == ticks - 1; }));
	EXPECT_EQ(clock.Reset(), 0);
	EXPECT_TRUE(eventually([] { return lastCount < 3; }));
	EXPECT_EQ(clock.Stop(), 0);
	const auto stopped = ticks.load();
	const double start = clock.GetRawTime();
	ASSERT_EQ(clock.Start(), 0); // again
	ASSERT_TRUE(eventually([&] { return ticks >= stopped + 5; }));
	EXPECT_GE(clock.GetRawTime() - start, 5 * 0.009 - 0.001); // never early; late by any load
}

class CountingTimer : public CmcUtilTimer {
public:
	~CountingTimer() override {
		Destroy();
		EXPECT_EQ(WaitForEnd(5000), 0);
	}
	int OnSignal() override { return ++mSignals; }
	std::atomic<int> mSignals{0};
};

TEST(Timer, SignalsAtStartAndThenEveryPeriod) {
	static std::atomic<int> calls;
	calls = 0;
	appRawInit("", 0);
	CountingTimer timer;
	ASSERT_EQ(timer.Create(0.02, [](CmcUtilTimer*, unsigned long, unsigned long, void*, void*) { return ++calls; }), 0);
	const auto start = std::chrono::steady_clock::now();
	ASSERT_TRUE(eventually([&] { return timer.mSignals >= 4; }));
	EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(55));
	timer.Destroy();
	ASSERT_EQ(timer.WaitForEnd(5000), 0);
	EXPECT_EQ(timer.mSignals, calls);
	timer.Signal();
	EXPECT_EQ(timer.mSignals, calls);
}

TEST(Timer, EndsWhenDestroyedAtOnce) {
	for (int i = 0; i < 6; ++i) {
		const std::unique_ptr<Cmc> made(qorMCGetManager()->classNew("CmcUtilTimer"));
		for (int start = 0; start <= i % 2; ++start)
			ASSERT_EQ(dynamic_cast<CmcUtilTimer&>(*made).Create(100, nullptr), 0);
	}
}

} // namespace
