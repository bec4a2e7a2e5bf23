#include "recording.h"

#include "camera.h"
#include "capture_info.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <thread>

namespace {

volatile std::sig_atomic_t interrupted = 0;

/// Receives the frames on the plug-in's thread.
class FrameSink {
public:
	FrameSink(CmsSession& session, uint64_t limit)
	    : mSession(session), mFrameSize(session.GetRecord().mFrameSize), mLimit(limit), mRing(kRingSize) {}

	static int callback(
	    void* context, CqorSIO_VideoCap*, unsigned long code, unsigned long a, unsigned long, void* p1, void*) {
		auto* sink = static_cast<FrameSink*>(context);
		if (code == qorSIO_EVENT_DATA) sink->take(*static_cast<qorSIO_VCAP_FRAME_INFO*>(p1));
		// The cameras that ship with the library say so when their frames have come to an end.
		if (code == qorSIO_EVENT_USER && a == 1) sink->mEnded = true;
		if (code == qorSIO_EVENT_ACQUIRING && a == 0) sink->mEnded = true;
		if (code == qorSIO_EVENT_OFFLINE) sink->mOffline = true;
		return 0;
	}

	/// Appends the records of the frames taken since the last call to `file`.
	void writeRecords(CstFile& file) {
		for (auto tail = mTail.load(); tail != mHead.load(std::memory_order_acquire); mTail.store(++tail)) {
			auto record = mRing[tail % kRingSize];
			record.mFrame = 0;
			if (file.Write(&record, sizeof record) != sizeof record) ++mRecordsLost;
		}
	}

	bool isFull() const { return mLimit && mTaken >= mLimit; }
	bool hasEnded() const { return mEnded || mOffline; }

	std::atomic<uint64_t> mTaken{0};      // accepted by the session
	std::atomic<uint64_t> mRefused{0};    // by the session: overflow, session full or failed
	std::atomic<uint64_t> mMissing{0};    // gaps in the camera's frame numbers
	std::atomic<uint64_t> mIncomplete{0}; // the camera says that bytes are missing
	std::atomic<uint64_t> mWrongSize{0};  // larger than the session's frames
	std::atomic<uint64_t> mRecordsLost{0};
	std::atomic<bool> mOffline{false};

private:
	static constexpr uint64_t kRingSize = 65536;

	void take(const qorSIO_VCAP_FRAME_INFO& info) {
		const std::lock_guard lock(mMutex);
		if (isFull()) return;
		if (mExpected && info.mFrameNumber > mExpected) mMissing += info.mFrameNumber - mExpected;
		mExpected = info.mFrameNumber + 1;
		if (info.mFlags & qorSIO_FRAME_INCOMPLETE) ++mIncomplete;
		if (info.mByteSize > mFrameSize || !info.mFrame) {
			++mWrongSize;
			return;
		}
		if (mSession.Feed(reinterpret_cast<const void*>(static_cast<uintptr_t>(info.mFrame))) != 0) {
			++mRefused;
			return;
		}
		++mTaken;
		remember(info);
	}

	void remember(const qorSIO_VCAP_FRAME_INFO& info) {
		const auto head = mHead.load(std::memory_order_relaxed);
		if (head - mTail.load() == kRingSize) {
			++mRecordsLost;
			return;
		}
		mRing[head % kRingSize] = info;
		mHead.store(head + 1, std::memory_order_release);
	}

	CmsSession& mSession;
	const uint64_t mFrameSize;
	const uint64_t mLimit;
	std::mutex mMutex; // a camera may deliver from more than one thread
	uint64_t mExpected = 0;
	std::vector<qorSIO_VCAP_FRAME_INFO> mRing;
	std::atomic<uint64_t> mHead{0}, mTail{0};
	std::atomic<bool> mEnded{false};
};

int trouble(const std::string& text) {
	std::cerr << "recorder: " << text << "\n";
	return kExitTrouble;
}

bool applied(const char* what, int status) {
	if (status == 0) return true;
	std::cerr << "recorder: the camera refuses " << what << " (status " << status << ")\n";
	return false;
}

/// No frames are in use before the recording starts: a geometry change may go on at once.
int acknowledgeGeometry(void*, CqorSIO_VideoCap*, unsigned long code, unsigned long, unsigned long, void* p1, void*) {
	if (code == QOR_SIO_HOST_GEOMETRY) std::atomic_ref<int>(*static_cast<int*>(p1)).store(1);
	return 0;
}

/// Reads a number that is the whole text. It has a point whatever the host's language is.
template <typename Number>
bool readNumber(const std::string& text, Number* number) {
	const char* end = text.data() + text.size();
	const auto result = std::from_chars(text.data(), end, *number);
	return result.ec == std::errc() && result.ptr == end;
}

/// Gives a feature its value, as the kind that the camera takes: text, integer or float.
bool setFeature(CqorSIO_VideoCap& camera, const std::string& feature, const std::string& value) {
	int integer = 0;
	float real = 0;
	return camera.genICam_SetString(feature.c_str(), value.c_str()) == 0 ||
	       (readNumber(value, &integer) && camera.genICam_SetInt32(feature.c_str(), integer) == 0) ||
	       (readNumber(value, &real) && camera.genICam_SetFloat32(feature.c_str(), real) == 0);
}

/// Sets the features in `settings`. Some cameras take a feature only before they are opened,
/// some only afterwards: what the camera refuses stays in `settings`.
/// @return false, with a message, for a setting that is not written feature=value.
bool applySettings(CqorSIO_VideoCap& camera, std::vector<std::string>& settings) {
	std::vector<std::string> refused;
	for (const auto& setting : settings) {
		const auto equals = setting.find('=');
		if (equals == std::string::npos || equals == 0) {
			std::cerr << "recorder: a setting is written feature=value, not '" << setting << "'\n";
			return false;
		}
		const auto feature = setting.substr(0, equals);
		if (!setFeature(camera, feature, setting.substr(equals + 1))) refused.push_back(setting);
	}
	settings = std::move(refused);
	return true;
}

/// Opens the camera and gives it the settings asked for.
bool openCamera(CqorSIO_VideoCap& camera, const RecordOptions& options) {
	auto settings = options.settings;
	if (!applySettings(camera, settings) || !applied("to open", camera.cmdOpen()) || !applySettings(camera, settings))
		return false;
	for (const auto& setting : settings) applied(setting.c_str(), QOR_SIO_FAILURE);
	return settings.empty();
}

bool configure(CqorSIO_VideoCap& camera, const RecordOptions& options) {
	if (options.width && !applied("the width", camera.setWidth(options.width))) return false;
	if (options.height && !applied("the height", camera.setHeight(options.height))) return false;
	if (options.exposure && !applied("the exposure", camera.setExposure(options.exposure))) return false;
	if (options.frameRate > 0 && !applied("the frame rate", camera.setFrameRate(options.frameRate))) return false;
	if (!options.pixelFormat.empty() &&
	    !applied("the pixel format", camera.genICam_SetString("PixelFormat", options.pixelFormat.c_str())))
		return false;
	return true;
}

CaptureInfo describe(const CameraHost::Camera& camera, uint32_t id) {
	CaptureInfo info = {};
	std::memcpy(info.magic, kCaptureMagic, sizeof info.magic);
	info.width = static_cast<uint32_t>(camera.device->getWidth());
	info.height = static_cast<uint32_t>(camera.device->getHeight());
	info.frameRate = camera.device->getFrameRate();
	std::strncpy(info.camera, camera.description().c_str(), sizeof info.camera - 1);
	info.framesFileId = id;
	return info;
}

/// Buffers of about 16 MB, and as many as make half a gigabyte.
void chooseBuffers(const RecordOptions& options, uint32_t alignedFrameSize, int* buffers, int* framesPerBuffer) {
	const auto frames = std::clamp<int64_t>((16 << 20) / std::max<uint32_t>(alignedFrameSize, 1), 2, 4096);
	*framesPerBuffer = options.framesPerBuffer ? options.framesPerBuffer : static_cast<int>(frames);
	const auto bytes = static_cast<int64_t>(*framesPerBuffer) * alignedFrameSize;
	*buffers = options.buffers ? options.buffers : static_cast<int>(std::clamp<int64_t>((512 << 20) / bytes, 4, 64));
}

int buffersInUse(const CmsSession& session) {
	int used = 0;
	for (int i = 0; i < session.GetBufferCount(); ++i) used += session.GetBuffer(i)->mState != emsBUFFER_FREE;
	return used;
}

void progressLine(const CmsSession& session, const FrameSink& sink, double seconds, char end) {
	const unsigned long long frames = sink.mTaken, lost = sink.mRefused + sink.mMissing + sink.mWrongSize;
	const auto megabytes = static_cast<double>(frames) * session.GetRecord().mFrameSize / (1 << 20);
	char line[160];
	std::snprintf(line, sizeof line, "%7.1f s  %9llu frames  %8.1f MB/s  buffers %2d of %d  lost %llu      ", seconds,
	    frames, seconds > 0 ? megabytes / seconds : 0, buffersInUse(session), session.GetBufferCount(), lost);
	std::cout << '\r' << line << end << std::flush;
}

/// Runs the camera until something ends the recording.
double acquire(
    CqorSIO_VideoCap& camera, CmsSession& session, FrameSink& sink, CstFile& records, const RecordOptions& options) {
	const double start = appGetTime();
	double now = start, shown = 0;
	camera.cmdRecord(1);
	while (!interrupted && !sink.isFull() && !sink.hasEnded()) {
		std::this_thread::sleep_for(std::chrono::milliseconds(20));
		now = appGetTime();
		sink.writeRecords(records);
		if (!options.quiet && now - shown >= 0.25) progressLine(session, sink, (shown = now) - start, ' ');
		if (options.seconds > 0 && now - start >= options.seconds) break;
		const auto record = session.GetRecord();
		if (record.mFrameCount >= record.mMaxFrameCount) break;
	}
	return now - start;
}

/// Why the recording has less than was asked for; empty when it has it all.
std::string whatIsMissing(
    const RecordOptions& options, const CmsSession& session, const FrameSink& sink, double seconds) {
	const auto record = session.GetRecord();
	const uint64_t written = session.GetWrittenFrameCount();
	const bool full = record.mFrameCount >= record.mMaxFrameCount;
	const bool timeLeft = options.seconds > 0 && seconds < options.seconds;
	const bool tooFew = options.frames && written < options.frames;
	if (!tooFew && !(full && timeLeft && !options.frames)) return {};
	std::string why = "the time was over";
	if (options.seconds <= 0 || timeLeft) why = "no more came";
	if (sink.hasEnded()) why = "the camera's frames came to an end";
	if (interrupted) why = "stopped by the user";
	if (full) why = "the storage is full";
	if (!tooFew) return why + " before the time was over";
	return std::to_string(options.frames - written) + " of " + std::to_string(options.frames) +
	       " frames were not recorded: " + why;
}

int report(const StorageFiles& files, const CmsStorage& storage, const CmsSession& session, int number,
    const FrameSink& sink, double seconds, const std::string& missing) {
	emsSTORAGE_COUNTERS counters = {};
	session.GetCounters(&counters);
	const auto written = session.GetWrittenFrameCount();
	const auto lost =
	    sink.mRefused + sink.mMissing + sink.mWrongSize + (sink.mTaken - std::min<uint64_t>(sink.mTaken, written));
	std::cout << "session " << number << ": " << written << " frames of " << session.GetRecord().mFrameSize
	          << " bytes in " << seconds << " s, disk " << storage.GetAverageRate() << " MB/s\n"
	          << "frames lost: " << lost << " (camera " << sink.mMissing << ", buffers full "
	          << counters.mOverflowFrames << ", storage full or failed " << counters.mRefusedFrames << ", disk "
	          << counters.mLostFrames << ", wrong size " << sink.mWrongSize << "; incomplete " << sink.mIncomplete
	          << ")\n";
	if (counters.mShortWrites + counters.mFailedIndexWrites + counters.mFailedListSaves)
		std::cout << "disk trouble: " << counters.mShortWrites << " short writes, " << counters.mFailedIndexWrites
		          << " index writes and " << counters.mFailedListSaves << " session lists failed (disk full?)\n";
	if (sink.mRecordsLost) std::cout << "frame records lost: " << sink.mRecordsLost << "\n";
	if (sink.mOffline) std::cout << "the camera went offline\n";
	if (!missing.empty()) std::cout << missing << "\n";
	std::cout << "log      " << files.log << "\ndata     " << files.data << "\nindex    " << files.index
	          << "\nsessions " << files.sessions << "\n";
	const bool bad =
	    lost || sink.mIncomplete || sink.mOffline || sink.mRecordsLost || counters.mFailedListSaves || !missing.empty();
	return bad ? kExitFramesBad : kExitGood;
}

int recordSession(
    const CameraHost::Camera& camera, CmsStorage& storage, const StorageFiles& files, const RecordOptions& options) {
	auto& device = *camera.device;
	const int frameBytes = device.getFrameByteSize();
	if (frameBytes <= 0) return trouble("the camera does not tell its frame size");
	auto& list = storage.GetSessionList();
	const int number = list.GetCount();
	emsSTORAGE_SESSION record = {};
	if (storage.CalculateSession(&record, static_cast<unsigned>(frameBytes)) != 0 || record.mMaxFrameCount == 0)
		return trouble("the storage has no room for another session ('recorder reset' empties it), or its session list "
		               "is damaged and nobody knows what is free; see " +
		               files.log);
	auto info = describe(camera, record.mFirstIndex);
	std::memcpy(record.mUser, &info, sizeof info);
	CmsSession* session = list.Add(&record);
	int buffers = 0, framesPerBuffer = 0;
	chooseBuffers(options, record.mAlignedFrameSize, &buffers, &framesPerBuffer);
	if (!session || session->AllocResources(buffers, framesPerBuffer) != 0)
		return trouble("not enough memory for " + std::to_string(buffers) + " buffers of " +
		               std::to_string(framesPerBuffer) + " frames");

	CstFile records;
	if (records.Create(files.framesFile(info.framesFileId).c_str(), 0xC0000000, 1) != 0)
		return trouble("cannot create " + files.framesFile(info.framesFileId));
	FrameSink sink(*session, options.frames);
	device.SetUserCallBack(FrameSink::callback, &sink);
	// The sink must not be called once it is gone, whatever the camera refuses.
	const auto giveUp = [&] {
		device.cmdStop();
		device.SetUserCallBack(nullptr, nullptr);
		return kExitTrouble;
	};
	if (!applied("its buffers", device.cmdAllocInternalBuffers(options.cameraBuffers)) ||
	    !applied("to prepare", device.cmdPrepare()))
		return giveUp();
	session->PrepareToRecord();
	session->SetRecording(true);
	if (!applied("to start", device.cmdStart())) return giveUp();
	const double seconds = acquire(device, *session, sink, records, options);

	// In order: no more frames, everything on the disk, then the camera's memory.
	device.cmdStop();
	session->StopRecord();
	sink.writeRecords(records);
	records.Close();
	device.cmdReleaseInternalBuffers();
	device.SetUserCallBack(nullptr, nullptr);
	progressLine(*session, sink, seconds, '\n');
	if (interrupted) std::cout << "stopped by the user\n";
	const std::string missing = whatIsMissing(options, *session, sink, seconds);
	const int result = report(files, storage, *session, number, sink, seconds, missing);
	session->FreeResources();
	return result;
}

} // namespace

int record(const RecordOptions& options) {
	const StorageFiles files(options.storage);
	std::error_code error;
	std::filesystem::create_directories(options.storage, error);
	if (!std::filesystem::is_directory(options.storage, error))
		return trouble("cannot make the folder '" + options.storage + "'");
	std::signal(SIGINT, [](int) { interrupted = 1; });
	std::signal(SIGTERM, [](int) { interrupted = 1; });
	appRawInit(files.log.c_str(), 0);

	CameraHost host;
	if (!host.load(options.plugIns)) return kExitTrouble;
	const auto* camera = host.find(options.camera);
	if (!camera) return kExitTrouble;
	std::cout << "camera   " << camera->description() << " (" << camera->plugIn << ")\n";

	int result = kExitTrouble;
	camera->device->SetUserCallBack(acknowledgeGeometry, nullptr);
	const bool configured = openCamera(*camera->device, options) && configure(*camera->device, options);
	camera->device->SetUserCallBack(nullptr, nullptr);
	if (configured) {
		CmsStorage storage;
		storage.Create(files.sessions.c_str(), files.index.c_str(), files.data.c_str(), options.sizeMB);
		if (storage.IsReady()) {
			result = recordSession(*camera, storage, files, options);
		} else {
			trouble("the storage in '" + options.storage +
			        "' cannot be used (disk full, not writable, or a file that cannot be read); see " + files.log);
		}
	}
	camera->device->cmdStop();
	camera->device->cmdClose();
	return result;
}
