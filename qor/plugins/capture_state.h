#pragma once

#include <atomic>
#include <cstdint>

/// What camera and timing device have in common.
namespace plugins {

/// State of a capture device. Recording, reading and preview are the host's bookkeeping.
enum CaptureState : uint32_t {
	kStateOnline = 2,
	kStateOpen = 4,
	kStatePrepared = 8,
	kStateAcquiring = 16,
	kStateRecording = 32,
	kStateReading = 64,
	kStatePreview = 128
};

/// A word of state bits; every thread may read and change it.
class StateFlags {
public:
	int has(uint32_t bit) const { return (mBits.load(std::memory_order_acquire) & bit) != 0; }
	void modify(uint32_t set, uint32_t clear) {
		auto bits = mBits.load(std::memory_order_relaxed);
		while (!mBits.compare_exchange_weak(bits, (bits & ~clear) | set, std::memory_order_acq_rel)) {
		}
	}
	void put(uint32_t bit, bool on) { on ? modify(bit, 0) : modify(0, bit); }

private:
	std::atomic<uint32_t> mBits{0};
};

inline constexpr int kDeviceStringSize = 128;

/// The device's description, read when it comes online; a longer text is cut at 127 characters.
struct DeviceStrings {
	char mVendor[kDeviceStringSize] = {};
	char mModelName[kDeviceStringSize] = {};
	char mManufacturerInfo[kDeviceStringSize] = {};
	char mVersion[kDeviceStringSize] = {};
	char mFirmwareVersion[kDeviceStringSize] = {};
	char mDeviceID[kDeviceStringSize] = {};
};

} // namespace plugins
