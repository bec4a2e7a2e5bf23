#include "clock_device.h"

#include <chrono>

using plugin::Status;

ClockDevice::ClockDevice() {
	mProperties.addText("!vendorinfo", "qor");
	mProperties.addText("!modelname", "Simulated timing device");
	mProperties.addText("!manufacturerinfo", "UTC and a steady clock");
	mProperties.addText("!version", "1.0");
	mProperties.addText("!firmwareversion", "1.0");
	mProperties.addText("!deviceID", "simclock-0");
	mProperties.add("!time", [this] { return timeText(); });
	mProperties.addSetting("!genicam:float32:EventRate", mEventRate, 0.01, 10000.0);
}

Status ClockDevice::set(const std::string& key, const std::string& value) {
	mRestartPace = true;
	return mProperties.set(key, value);
}

Status ClockDevice::operate(const std::string& operation, const std::string&) {
	mRestartPace = true;
	const bool known = operation == "open" || operation == "close" || operation == "prepare" || operation == "start";
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
