#include "camera.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>

using plugin::Status;

namespace {

constexpr int kMaximumBuffers = 4096;
constexpr double kMaximumFrameRate = 100000;
constexpr const char* kNameKey = "!genicam:str:FileName:"; // with the index of an image behind it

} // namespace

SequenceCamera::SequenceCamera() {
	mProperties.addText(QOR_SIO_KEY_VENDOR_NAME, "qor");
	mProperties.addText(QOR_SIO_KEY_MODEL_NAME, "Image sequence camera");
	mProperties.addText(QOR_SIO_KEY_MANUFACTURER_INFO, "plays numbered images of a folder");
	mProperties.addText(QOR_SIO_KEY_VERSION, "1.0");
	mProperties.addText(QOR_SIO_KEY_FIRMWARE_VERSION, "1.0");
	mProperties.addText(QOR_SIO_KEY_DEVICE_ID, "seqcam-0");

	const auto width = [this] { return std::to_string(first() ? first()->header.width : 0); };
	const auto height = [this] { return std::to_string(first() ? first()->header.height : 0); };
	const auto format = [this] {
		return std::string(!first() ? "unknown" : first()->header.bytesPerPixel == 1 ? "Mono8" : "Mono16BigEndian");
	};
	for (const char* key : {QOR_SIO_KEY_WIDTH, QOR_SIO_KEY_MAX_WIDTH}) mProperties.add(key, width);
	for (const char* key : {QOR_SIO_KEY_HEIGHT, QOR_SIO_KEY_MAX_HEIGHT}) mProperties.add(key, height);
	for (const char* key : {QOR_SIO_KEY_X, QOR_SIO_KEY_Y, QOR_SIO_KEY_EXPOSURE, QOR_SIO_KEY_MIN_EXPOSURE,
	         QOR_SIO_KEY_MAX_EXPOSURE, QOR_SIO_KEY_GAIN, QOR_SIO_KEY_MIN_GAIN, QOR_SIO_KEY_MAX_GAIN})
		mProperties.addConstant(key, 0);
	mProperties.add(QOR_SIO_KEY_PIX_FORMAT, format);
	mProperties.addText(QOR_SIO_KEY_PIX_FORMAT_CONVERSION, "none");
	mProperties.add(QOR_SIO_KEY_FRAME_BYTE_SIZE, [this] { return std::to_string(mFolder.largestFile()); });
	mProperties.addNumber(QOR_SIO_KEY_FRAME_RATE, mFrameRate, [this](const std::string& text) {
		double rate = 0;
		if (!plugin::parseNumber(text, &rate) || !(rate == 0 || rate >= 0.01) || rate > kMaximumFrameRate)
			return plugin::kBadValue;
		mFrameRate = rate;
		mRestartPace = true;
		return plugin::kOk;
	});
	mProperties.addConstant(QOR_SIO_KEY_MIN_FRAME_RATE, 0.0);
	mProperties.addConstant(QOR_SIO_KEY_MAX_FRAME_RATE, kMaximumFrameRate);
	mProperties.add(
	    "!genicam:str:Folder", [this] { return plugin::quoted(mFolderName); },
	    [this](const std::string& folder) { return setFolder(folder); });
	mProperties.add("!genicam:str:Problem", [this] { return plugin::quoted(mProblem.empty() ? "none" : mProblem); });
	mProperties.add("!genicam:str:Sequence",
	    [this] { return plugin::quoted(mFolder.description().empty() ? "none" : mFolder.description()); });
	mProperties.add("!genicam:int32:ImageCount", [this] { return std::to_string(mFolder.images().size()); });
	mProperties.addSetting("!genicam:int32:Loop", mLoop, 0, 1);

	const char* folder = std::getenv("qorSeqFolder");
	if (folder && folder[0]) setFolder(folder);
}

const ImageFolder::Image* SequenceCamera::first() const {
	return mFolder.images().empty() ? nullptr : &mFolder.images().front();
}

std::optional<std::string> SequenceCamera::get(const std::string& key) {
	if (key.starts_with(kNameKey)) return nameOf(key.substr(std::strlen(kNameKey)));
	return mProperties.get(key);
}

std::optional<std::string> SequenceCamera::nameOf(const std::string& index) const {
	size_t n = 0;
	if (!plugin::parseNumber(index, &n) || n >= mFolder.images().size()) return std::nullopt;
	return plugin::quoted(mFolder.images()[n].name);
}

Status SequenceCamera::scan() {
	mProblem = mFolder.scan(mFolderName);
	return mProblem.empty() ? plugin::kOk : plugin::kDamaged;
}

Status SequenceCamera::setFolder(const std::string& folder) {
	if (mState != State::closed && (mState != State::open || mRing.count())) return plugin::kWrongState;
	mFolderName = folder;
	return scan();
}

Status SequenceCamera::allocate(const std::string& argument) {
	int count = 0;
	if (mState != State::open || mFolder.largestFile() == 0) return plugin::kWrongState;
	if (!plugin::parseNumber(argument, &count) || count < 1 || count > kMaximumBuffers) return plugin::kBadValue;
	return mRing.allocate(count, static_cast<size_t>(mFolder.largestFile())) ? plugin::kOk : plugin::kNoMemory;
}

Status SequenceCamera::operate(const std::string& operation, const std::string& argument) {
	if (operation == QOR_SIO_OP_OPEN) return scan();
	if (operation == QOR_SIO_OP_START) return plugin::kOk;
	if (operation == QOR_SIO_OP_ALLOC_BUFFERS) return allocate(argument);
	if (operation == QOR_SIO_OP_PREPARE) {
		if (mFolder.images().empty()) return plugin::kDamaged;
		if (mRing.count() == 0) return plugin::kWrongState;
		mNextNumber = 0;
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

bool SequenceCamera::turn(std::unique_lock<std::mutex>& lock) {
	const auto count = static_cast<long long>(mFolder.images().size());
	if (!mLoop && mNextNumber >= count) {
		report(lock, qorSIO_EVENT_USER, 1, static_cast<unsigned long>(mNextNumber));
		return false;
	}
	if (mRestartPace) {
		mPacer.restart(mFrameRate);
		mDue.reset();
		mRestartPace = false;
	}
	if (mPacer.isPaced()) {
		if (!mDue) mDue = mPacer.next();
		if (plugin::Pacer::Clock::now() < *mDue) {
			sleepUntil(lock, *mDue);
			return true;
		}
		mDue.reset();
	}
	const auto number = mNextNumber++;
	const auto& image = mFolder.images()[static_cast<size_t>(number % count)]; // stays while the camera runs
	lock.unlock();
	auto* info = readFrame(image, number);
	lock.lock();
	if (info->mFlags & qorSIO_FRAME_INCOMPLETE) mProblem = image.name + ": changed while it was played";
	if (canRun()) report(lock, qorSIO_EVENT_DATA, 0, 0, info);
	return true;
}

qorSIO_VCAP_FRAME_INFO* SequenceCamera::readFrame(const ImageFolder::Image& image, long long number) {
	auto& buffer = mRing.next();
	auto& info = buffer.info;
	// One byte more than the file had shows that it has grown.
	std::ifstream file(image.path, std::ios::binary);
	size_t bytes = 0;
	bool grown = false;
	if (file.read(reinterpret_cast<char*>(buffer.data), static_cast<std::streamsize>(image.fileBytes)) || file.eof()) {
		bytes = static_cast<size_t>(file.gcount());
		grown = file && file.peek() != std::ifstream::traits_type::eof();
	}
	if (bytes < image.fileBytes || grown) info.mFlags |= qorSIO_FRAME_INCOMPLETE;
	std::memset(buffer.data + bytes, 0, mRing.capacity() - bytes);
	info.mByteSize = bytes;
	info.mFrameNumber = static_cast<uint64_t>(number);
	const auto age = plugin::Pacer::Clock::now() - mBirth;
	info.mTimeStamp = static_cast<uint64_t>(std::chrono::nanoseconds(age).count());
	info.mWidth = image.header.width;
	info.mHeight = image.header.height;
	info.mStride = image.header.width * image.header.bytesPerPixel;
	info.mPixelFormat = image.header.bytesPerPixel == 1 ? qorSIO_PIXEL_MONO8 : qorSIO_PIXEL_MONO16_BIG_ENDIAN;
	info.mPixelOffset = static_cast<uint16_t>(image.header.pixelOffset);
	return &info;
}
