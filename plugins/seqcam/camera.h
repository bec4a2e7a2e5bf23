#pragma once

#include "../common/device.h"
#include "../common/frame_ring.h"
#include "../common/properties.h"
#include "image_folder.h"

/// A camera that plays the numbered images of a folder.
///
/// A frame is the complete file, header and all, so that a recording gives back every file
/// byte for byte: `mByteSize` of the frame information is the size of the file,
/// `mPixelOffset` where its pixels start. "!framebytesize" is the largest file; in the buffer
/// zeros follow a smaller one.
///
/// The folder is the text feature "Folder" (at first the environment variable `qorSeqFolder`)
/// and may be set in the states closed and open. It is read when it is set and at "open",
/// which answers 6 for a folder that cannot be played; "Problem" then says why. Of several
/// sequences in the folder the longest is played; a file in "Folder" chooses its own, and
/// "Sequence" says which one it is. A file that changed since it was read is delivered as far
/// as it goes, marked incomplete.
///
/// Frame n is image n modulo the number of images. Without "Loop" event 40200 with a = 1
/// follows the last image, and nothing more comes until "stop".
class SequenceCamera : public plugin::Device {
public:
	SequenceCamera();

protected:
	const char* siotype() const override { return QOR_SIO_TYPE_CAMERA; }
	std::optional<std::string> get(const std::string& key) override;
	plugin::Status set(const std::string& key, const std::string& value) override {
		return mProperties.set(key, value);
	}
	plugin::Status operate(const std::string& operation, const std::string& argument) override;
	bool turn(std::unique_lock<std::mutex>& lock) override;

private:
	plugin::Status setFolder(const std::string& folder);
	plugin::Status scan();
	plugin::Status allocate(const std::string& argument);
	const ImageFolder::Image* first() const;
	std::optional<std::string> nameOf(const std::string& index) const;
	/// Reads a file into the next buffer; without the lock, as a disk takes its time.
	qorSIO_VCAP_FRAME_INFO* readFrame(const ImageFolder::Image& image, long long number);

	plugin::Properties mProperties;
	plugin::FrameRing mRing;
	std::string mFolderName;
	ImageFolder mFolder;
	std::string mProblem;
	int mLoop = 0;
	double mFrameRate = 25;

	plugin::Pacer mPacer;
	plugin::Pacer::Clock::time_point mBirth = plugin::Pacer::Clock::now();
	std::optional<plugin::Pacer::Clock::time_point> mDue;
	bool mRestartPace = true;
	long long mNextNumber = 0;
};
