#include "clock_device.h"

#include <chrono>

using plugin::Status;

ClockDevice::ClockDevice() {
	mProperties.addText(QOR_SIO_KEY_VENDOR_INFO, "qor");
	mProperties.addText(QOR_SIO_KEY_MODEL_NAME, "Simulated timing device");
	mProperties.addText(QOR_SIO_KEY_MANUFACTURER_INFO, "UTC and a steady clock");
	mProperties.addText(QOR_SIO_KEY_VERSION, "1.0");
	mProperties.addText(QOR_SIO_KEY_FIRMWARE_VERSION, "1.0");
	mProperties.addText(QOR_SIO_KEY_DEVICE_ID, "simclock-0");
	mProperties.add(QOR_SIO_KEY_TIME, [this] { return timeText(); });
	mProperties.addSetting("!genicam:float32:EventRate", mEventRate, 0.01, 10000.0);
}

Status ClockDevice::set(const std::string& key, const std::string& value) {
	mRestartPace = true;
	return mProperties.set(key, value);
}

Status ClockDevice::operate(const std::string& operation, const std::string&) {
	mRestartPace = true;
	const bool known = operation == QOR_SIO_OP_OPEN || operation == QOR_SIO_OP_CLOSE ||
	                   operation == QOR_SIO_OP_PREPARE || operation == QOR_SIO_OP_START;
	return known ? plugin::kOk : plugin::kUnknown;
}

std::string ClockDevice::timeText() const {
	using namespace std::chrono;
	const auto now = system_clock::now();
	const auto day = floor<days>(now);
	const year_month_day date(day);
	const hh_mm_ss time(floor<milliseconds>(now - day));
	const double age = duration<double>(plugin::Pacer::Clock::now() - mBirth).count();
	const auto millisecond = duration_cast<milliseconds>(time.seconds() + time.subseconds()).count();
	return std::to_string(static_cast<int>(date.year())) + '/' + std::to_string(static_cast<unsigned>(date.month())) +
	       '/' + std::to_string(static_cast<unsigned>(date.day())) + '/' + std::to_string(time.hours().count()) + '/' +
	       std::to_string(time.minutes().count()) + '/' + std::to_string(millisecond) + '/' + plugin::decimal(age);
}

bool ClockDevice::turn(std::unique_lock<std::mutex>& lock) {
	if (mRestartPace) {
		mPacer.restart(mEventRate);
		mDue.reset();
		mRestartPace = false;
	}
	if (!mDue) mDue = mPacer.next();
	if (plugin::Pacer::Clock::now() < *mDue) {
		sleepUntil(lock, *mDue);
		return true;
	}
	mDue.reset();
	report(lock, qorSIO_EVENT_DATA);
	return true;
}
