#include "camera.h"

#include "frame_pattern.h"

#include <array>
#include <chrono>

using plugin::Status;

namespace {

constexpr int kSensorWidth = 4096;
constexpr int kSensorHeight = 3072;
constexpr int kMaximumBuffers = 4096;
constexpr double kMaximumFrameRate = 1000000;

std::string feature(const char* kind, const std::string& name) { return "!genicam:" + std::string(kind) + ":" + name; }

} // namespace

Camera::Camera(int index) : mSeed(index + 1) {
	addIdentity(index);
	addGeometry();
	addExposure();
	addFeatures();
}

void Camera::addIdentity(int index) {
	mProperties.addText(QOR_SIO_KEY_VENDOR_NAME, "qor");
	mProperties.addText(QOR_SIO_KEY_MODEL_NAME, "Simulated camera");
	mProperties.addText(QOR_SIO_KEY_MANUFACTURER_INFO, "frames that can be checked byte by byte");
	mProperties.addText(QOR_SIO_KEY_VERSION, "1.0");
	mProperties.addText(QOR_SIO_KEY_FIRMWARE_VERSION, "1.0");
	mProperties.addText(QOR_SIO_KEY_DEVICE_ID, "simcam-" + std::to_string(index));
	mProperties.addAlias(feature("str", "DeviceVendorName"), QOR_SIO_KEY_VENDOR_NAME);
	mProperties.addAlias(feature("str", "DeviceModelName"), QOR_SIO_KEY_MODEL_NAME);
	mProperties.addAlias(feature("str", "DeviceID"), QOR_SIO_KEY_DEVICE_ID);
}

void Camera::addRegionKey(const std::string& key, int Region::*member, const std::string& name) {
	mProperties.addNumber(key, mRegion.*member, [this, member](const std::string& text) {
		auto region = mRegion;
		return plugin::parseNumber(text, &(region.*member)) ? setRegion(region) : plugin::kBadValue;
	});
	mProperties.addAlias(feature("int32", name), key);
}

void Camera::addGeometry() {
	mProperties.addConstant(QOR_SIO_KEY_MAX_WIDTH, kSensorWidth);
	mProperties.addConstant(QOR_SIO_KEY_MAX_HEIGHT, kSensorHeight);
	mProperties.addAlias(feature("int32", "WidthMax"), QOR_SIO_KEY_MAX_WIDTH);
	mProperties.addAlias(feature("int32", "HeightMax"), QOR_SIO_KEY_MAX_HEIGHT);
	addRegionKey(QOR_SIO_KEY_WIDTH, &Region::width, "Width");
	addRegionKey(QOR_SIO_KEY_HEIGHT, &Region::height, "Height");
	addRegionKey(QOR_SIO_KEY_X, &Region::x, "OffsetX");
	addRegionKey(QOR_SIO_KEY_Y, &Region::y, "OffsetY");
	mProperties.add(QOR_SIO_KEY_ROI, nullptr, [this](const std::string& text) { return parseRegion(text, 4); });
	mProperties.add(QOR_SIO_KEY_ROI_EX, nullptr, [this](const std::string& text) { return parseRegion(text, 6); });
	mProperties.add(QOR_SIO_KEY_FRAME_BYTE_SIZE, [this] { return std::to_string(frameBytes()); });
	mProperties.addAlias(feature("int32", "PayloadSize"), QOR_SIO_KEY_FRAME_BYTE_SIZE);
	mProperties.add(QOR_SIO_KEY_PIX_FORMAT, [this] { return std::string(mBytesPerPixel == 1 ? "Mono8" : "Mono16"); });
	mProperties.add(
	    feature("str", "PixelFormat"), [this] { return std::string(mBytesPerPixel == 1 ? "Mono8" : "Mono16"); },
	    [this](const std::string& name) { return setPixelFormat(name); });
	mProperties.addText(QOR_SIO_KEY_PIX_FORMAT_CONVERSION, "none");
}

void Camera::addExposure() {
	mProperties.addSetting(QOR_SIO_KEY_EXPOSURE, mExposure, 1, 10000000);
	mProperties.addConstant(QOR_SIO_KEY_MIN_EXPOSURE, 1);
	mProperties.addConstant(QOR_SIO_KEY_MAX_EXPOSURE, 10000000);
	mProperties.addSetting(QOR_SIO_KEY_GAIN, mGain, 0, 48);
	mProperties.addConstant(QOR_SIO_KEY_MIN_GAIN, 0);
	mProperties.addConstant(QOR_SIO_KEY_MAX_GAIN, 48);
	mProperties.addNumber(QOR_SIO_KEY_FRAME_RATE, mFrameRate, [this](const std::string& text) {
		double rate = 0;
		// Below a frame in a hundred seconds only 0 has a meaning: no pacing at all.
		if (!plugin::parseNumber(text, &rate) || !(rate == 0 || rate >= 0.01) || rate > kMaximumFrameRate)
			return plugin::kBadValue;
		mFrameRate = rate;
		mRestartPace = true;
		return plugin::kOk;
	});
	mProperties.addConstant(QOR_SIO_KEY_MIN_FRAME_RATE, 0.0);
	mProperties.addConstant(QOR_SIO_KEY_MAX_FRAME_RATE, kMaximumFrameRate);
	mProperties.addSetting(QOR_SIO_KEY_GIGE_PACKET_SIZE, mPacketSize, 576, 9000);
	mProperties.addAlias(feature("float32", "AcquisitionFrameRate"), QOR_SIO_KEY_FRAME_RATE);
	mProperties.addAlias(feature("int32", "ExposureTime"), QOR_SIO_KEY_EXPOSURE);
	mProperties.addAlias(feature("int32", "Gain"), QOR_SIO_KEY_GAIN);
}

void Camera::addFeatures() {
	mProperties.addNumber(feature("int32", "PatternSeed"), mSeed, [this](const std::string& text) {
		return plugin::parseNumber(text, &mSeed) ? plugin::kOk : plugin::kBadValue;
	});
	mProperties.addSetting(feature("int32", "FrameLimit"), mFrameLimit, 0, 2000000000);
	mProperties.add(feature("int32", "BufferCount"), [this] { return std::to_string(mRing.count()); });
	mProperties.add(
	    "!fault", [this] { return plugin::quoted(mFaults.text); },
	    [this](const std::string& text) { return setFault(text); });
	mProperties.addAlias(feature("str", "Fault"), "!fault");
	mProperties.add(feature("cmd", "TimestampReset"), nullptr, [this](const std::string&) {
		mBirth = plugin::Pacer::Clock::now();
		return plugin::kOk;
	});
}

// ---- settings

int Camera::frameBytes(const Region& region, int bytesPerPixel) const {
	return region.width / region.horizontal * (region.height / region.vertical) * bytesPerPixel;
}

Status Camera::setRegion(const Region& region) {
	const bool steps = (region.horizontal == 1 || region.horizontal == 2 || region.horizontal == 4) &&
	                   (region.vertical == 1 || region.vertical == 2 || region.vertical == 4);
	if (!steps || region.width < 64 || region.height < 4) return plugin::kBadValue;
	if (region.x < 0 || region.y < 0) return plugin::kBadValue;
	if (region.width > kSensorWidth - region.x || region.height > kSensorHeight - region.y) return plugin::kBadValue;
	const auto bytes = static_cast<size_t>(frameBytes(region, mBytesPerPixel));
	if (mRing.count() && bytes > mRing.capacity()) return plugin::kBadValue;
	if (bytes < SIM_FRAME_HEADER_SIZE) return plugin::kBadValue;
	mRegion = region;
	return plugin::kOk;
}

Status Camera::parseRegion(const std::string& text, int count) {
	std::array<int, 6> numbers = {0, 0, 0, 0, 1, 1};
	std::string_view rest = text;
	for (int i = 0; i < count; ++i) {
		const auto comma = rest.find(',');
		if ((comma == std::string_view::npos) != (i == count - 1)) return plugin::kBadValue;
		if (!plugin::parseNumber(rest.substr(0, comma), &numbers[static_cast<size_t>(i)])) return plugin::kBadValue;
		rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
	}
	return setRegion({numbers[0], numbers[1], numbers[2], numbers[3], numbers[4], numbers[5]});
}

Status Camera::setPixelFormat(const std::string& name) {
	if (name != "Mono8" && name != "Mono16") return plugin::kBadValue;
	const int bytes = name == "Mono8" ? 1 : 2;
	if (mRing.count() && static_cast<size_t>(frameBytes(mRegion, bytes)) > mRing.capacity()) return plugin::kBadValue;
	mBytesPerPixel = bytes;
	return plugin::kOk;
}

Status Camera::setFault(const std::string& text) {
	if (!Faults::parse(text, &mFaults)) return plugin::kBadValue;
	mRestartPace = true;
	return plugin::kOk;
}

Status Camera::set(const std::string& key, const std::string& value) { return mProperties.set(key, value); }

// ---- operations

Status Camera::refusal(const std::string& operation) {
	return mFaults.refuses(operation) ? plugin::kRefused : plugin::kOk;
}

bool Camera::misbehave(const plugin::Command& command, char* reply, int* answer) {
	if (command.key == "!fault" || command.key == feature("str", "Fault")) return false;
	switch (mFaults.reply) {
	case Faults::Reply::good: return false;
	case Faults::Reply::bad: plugin::writeReply(reply, "!nothing", "0"); break;
	case Faults::Reply::empty: reply[0] = 0; break;
	case Faults::Reply::endless: std::memset(reply, 'x', QOR_SIO_REPLY_SIZE); break;
	case Faults::Reply::none: break;
	}
	*answer = mFaults.reply == Faults::Reply::none ? QOR_SIO_FAILURE : QOR_SIO_OK;
	return true;
}

Status Camera::allocate(const std::string& argument) {
	int count = 0;
	if (mState != State::open) return plugin::kWrongState;
	if (!plugin::parseNumber(argument, &count) || count < 1 || count > kMaximumBuffers) return plugin::kBadValue;
	return mRing.allocate(count, static_cast<size_t>(frameBytes())) ? plugin::kOk : plugin::kNoMemory;
}

Status Camera::operate(const std::string& operation, const std::string& argument) {
	if (operation == QOR_SIO_OP_OPEN || operation == QOR_SIO_OP_START) return plugin::kOk;
	if (operation == QOR_SIO_OP_ALLOC_BUFFERS) return allocate(argument);
	if (operation == QOR_SIO_OP_PREPARE) {
		if (mRing.count() == 0) return plugin::kWrongState;
		mNextNumber = mDelivered = 0;
		mRestartPace = true;
		return plugin::kOk;
	}
	if (operation == QOR_SIO_OP_RELEASE_BUFFERS || operation == QOR_SIO_OP_CLOSE) {
		if (mState != State::open) return plugin::kWrongState;
		mRing.release();
		return plugin::kOk;
	}
	return plugin::kUnknown;
}

// ---- frames

bool Camera::isDue(std::unique_lock<std::mutex>& lock) {
	if (mRestartPace) {
		mPacer.restart(mFrameRate, mFaults.burst);
		mDue.reset();
		mRestartPace = false;
	}
	if (!mPacer.isPaced()) return true;
	if (!mDue) mDue = mPacer.next();
	if (plugin::Pacer::Clock::now() < *mDue) {
		sleepUntil(lock, *mDue);
		return false; // a setting may have changed meanwhile
	}
	mDue.reset();
	return true;
}

bool Camera::turn(std::unique_lock<std::mutex>& lock) {
	using namespace std::chrono_literals;
	if (mFrameLimit > 0 && mNextNumber >= mFrameLimit) {
		report(lock, qorSIO_EVENT_USER, 1, static_cast<unsigned long>(mDelivered));
		return false;
	}
	if (mFaults.stall >= 0 && mDelivered >= mFaults.stall) {
		mRestartPace = true;
		sleepUntil(lock, plugin::Pacer::Clock::now() + 1s);
		return true;
	}
	if (!isDue(lock)) return true;
	const auto number = mNextNumber++;
	if (Faults::hits(mFaults.drop, number)) return true;

	auto* info = takeFrame(number);
	if (mFaults.delay > 0) {
		const auto until = plugin::Pacer::Clock::now() + std::chrono::milliseconds(mFaults.delay);
		while (canRun() && plugin::Pacer::Clock::now() < until) sleepUntil(lock, until);
		if (!canRun()) return false;
	}
	++mDelivered;
	report(lock, qorSIO_EVENT_DATA, 0, 0, info);
	return true;
}

/// Which constant contents a buffer needs: they depend on size and seed alone.
uint64_t Camera::contents() const { return static_cast<uint64_t>(frameBytes()) << 32 | static_cast<uint32_t>(mSeed); }

qorSIO_VCAP_FRAME_INFO* Camera::takeFrame(long long number) {
	auto& buffer = mRing.next();
	const auto bytes = static_cast<uint64_t>(frameBytes());
	const auto seed = static_cast<uint64_t>(static_cast<uint32_t>(mSeed));
	if (buffer.contents != contents()) {
		simFrame_Fill(buffer.data, bytes, seed);
		buffer.contents = contents();
	}
	const auto age = plugin::Pacer::Clock::now() - mBirth;
	auto& info = buffer.info;
	info.mByteSize = bytes;
	info.mFrameNumber = static_cast<uint64_t>(number);
	info.mTimeStamp = static_cast<uint64_t>(std::chrono::nanoseconds(age).count());
	info.mWidth = static_cast<uint32_t>(columns());
	info.mHeight = static_cast<uint32_t>(lines());
	info.mStride = static_cast<uint32_t>(columns() * mBytesPerPixel);
	info.mPixelFormat = mBytesPerPixel == 1 ? qorSIO_PIXEL_MONO8 : qorSIO_PIXEL_MONO16;
	simFrame_Write(buffer.data, bytes, seed, info.mFrameNumber, info.mTimeStamp);
	if (Faults::hits(mFaults.corrupt, number)) {
		buffer.data[bytes / 2] ^= 0x10;
		buffer.contents = 0;
	}
	if (mFaults.wrongSize > 0) info.mByteSize -= std::min<uint64_t>(bytes, static_cast<uint64_t>(mFaults.wrongSize));
	return &info;
}
