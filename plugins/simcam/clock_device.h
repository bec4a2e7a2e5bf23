#pragma once

#include "../common/device.h"
#include "../common/properties.h"

/// The simulated timing device: tells the time and reports time events at a steady rate.
///
/// Its time has the parts year, month, day, hour, minute (UTC), milliseconds of the minute and
/// seconds since the device was made.
class ClockDevice : public plugin::Device {
public:
	ClockDevice();

protected:
	const char* siotype() const override { return QOR_SIO_TYPE_TIMING_DEVICE; }
	std::optional<std::string> get(const std::string& key) override { return mProperties.get(key); }
	plugin::Status set(const std::string& key, const std::string& value) override;
	plugin::Status operate(const std::string& operation, const std::string& argument) override;
	bool turn(std::unique_lock<std::mutex>& lock) override;

private:
	std::string timeText() const;

	plugin::Properties mProperties;
	double mEventRate = 10; // events per second
	plugin::Pacer mPacer;
	plugin::Pacer::Clock::time_point mBirth = plugin::Pacer::Clock::now();
	std::optional<plugin::Pacer::Clock::time_point> mDue;
	bool mRestartPace = true;
};
