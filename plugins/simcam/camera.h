#pragma once

#include "../common/device.h"
#include "../common/frame_ring.h"
#include "../common/properties.h"
#include "faults.h"

#include <utility>

/// The simulated camera: a sensor of 4096 x 3072 pixels whose frames can be checked byte by
/// byte (frame_pattern.h), at any rate the machine gives.
///
/// A region may be changed at any time, also between two frames, as long as its frames fit
/// into the buffers. The device keeps its numbering within one "prepare": the first frame has
/// number 0, and a number that never arrives was lost on purpose (faults.h).
class Camera : public plugin::Device {
public:
	/// `index` tells cameras apart: device id, seed.
	explicit Camera(int index);

protected:
	const char* siotype() const override { return QOR_SIO_TYPE_CAMERA; }
	std::optional<std::string> get(const std::string& key) override { return mProperties.get(key); }
	plugin::Status set(const std::string& key, const std::string& value) override;
	plugin::Status operate(const std::string& operation, const std::string& argument) override;
	plugin::Status refusal(const std::string& operation) override;
	unsigned long takeEvent() override { return static_cast<unsigned long>(std::exchange(mFaults.event, 0)); }
	bool misbehave(const plugin::Command& command, char* reply, int* answer) override;
	bool turn(std::unique_lock<std::mutex>& lock) override;

private:
	struct Region {
		int x = 0;
		int y = 0;
		int width = 1280;
		int height = 1024;
		int horizontal = 1; // every n-th pixel
		int vertical = 1;   // every n-th line
	};

	void addIdentity(int index);
	void addGeometry();
	void addExposure();
	void addFeatures();
	void addRegionKey(const std::string& key, int Region::*member, const std::string& feature);
	plugin::Status setRegion(const Region& region);
	plugin::Status parseRegion(const std::string& text, int count);
	plugin::Status setPixelFormat(const std::string& name);
	plugin::Status setFault(const std::string& text);
	plugin::Status allocate(const std::string& argument);

	int columns() const { return mRegion.width / mRegion.horizontal; }
	int lines() const { return mRegion.height / mRegion.vertical; }
	int frameBytes(const Region& region, int bytesPerPixel) const;
	int frameBytes() const { return frameBytes(mRegion, mBytesPerPixel); }
	uint64_t contents() const;

	bool isDue(std::unique_lock<std::mutex>& lock);
	qorSIO_VCAP_FRAME_INFO* takeFrame(long long number);

	plugin::Properties mProperties;
	plugin::FrameRing mRing;
	Region mRegion;
	int mBytesPerPixel = 1;
	int mExposure = 1000; // microseconds
	int mGain = 0;
	double mFrameRate = 100;
	int mPacketSize = 1500;
	int mSeed = 1;
	int mFrameLimit = 0; // 0: none
	Faults mFaults;

	plugin::Pacer mPacer;
	plugin::Pacer::Clock::time_point mBirth = plugin::Pacer::Clock::now();
	std::optional<plugin::Pacer::Clock::time_point> mDue; // of the frame being waited for
	bool mRestartPace = true;
	long long mNextNumber = 0;
	long long mDelivered = 0;
};
