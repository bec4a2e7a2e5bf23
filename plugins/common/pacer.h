#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>

namespace plugin {

/// When the next frame is due: on an absolute schedule, so that a late wake-up does not move
/// the frames behind it. A lag is made up for without pauses; one of more than a second is
/// given up and the schedule starts anew.
class Pacer {
public:
	using Clock = std::chrono::steady_clock;

	/// Starts the schedule. `rate` in frames per second; 0: as fast as the machine gives.
	/// `burst` frames become due together, at the time of their last.
	void restart(double rate, int burst = 1) {
		mRate = rate;
		mBurst = std::max(burst, 1);
		mStart = Clock::now();
		mCount = 0;
	}

	bool isPaced() const { return mRate > 0; }

	/// The time of the next frame; the first is due at once.
	Clock::time_point next() {
		const auto slot = mBurst > 1 ? mCount / mBurst * mBurst + mBurst - 1 : mCount;
		++mCount;
		const auto due = mStart + std::chrono::nanoseconds(std::llround(static_cast<double>(slot) * 1e9 / mRate));
		if (Clock::now() - due > std::chrono::seconds(1)) {
			restart(mRate, mBurst);
			mCount = 1;
			return mStart;
		}
		return due;
	}

private:
	double mRate = 0;
	int mBurst = 1;
	Clock::time_point mStart = Clock::now();
	int64_t mCount = 0;
};

} // namespace plugin
