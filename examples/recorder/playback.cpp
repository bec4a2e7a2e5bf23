#include "playback.h"

#include "capture_info.h"
#include "frame_check.h"
#include "image.h"
#include "open_storage.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <new>

namespace {

/// A session with what this program knows of its frames.
class Recording {
public:
	Recording(OpenStorage& storage, CmsSession& session)
	    : mStorage(storage), mSession(session), mRecord(session.GetRecord()),
	      mFrame(static_cast<unsigned char*>(
	          ::operator new (mRecord.mAlignedFrameSize, std::align_val_t{4096}, std::nothrow))) {
		std::memcpy(&mInfo, mRecord.mUser, sizeof mInfo);
		if (std::memcmp(mInfo.magic, kCaptureMagic, sizeof mInfo.magic) != 0) mInfo = {};
		mInfo.camera[sizeof mInfo.camera - 1] = 0;
		if (mInfo.magic[0]) mRecords.OpenReadOnly(storage.files().framesFile(mInfo.framesFileId).c_str());
		mSession.OpenForPlayback();
	}
	~Recording() {
		mSession.ClosePlayback();
		::operator delete (mFrame, std::align_val_t{4096});
	}
	Recording(const Recording&) = delete;
	Recording& operator=(const Recording&) = delete;

	long long frameCount() const { return mRecord.mFrameCount; }
	const emsSTORAGE_SESSION& record() const { return mRecord; }
	const CaptureInfo& info() const { return mInfo; }
	const unsigned char* frame() const { return mFrame; }

	/// Reads a frame and what is known of it. @return the reason of a failure, empty when all went well.
	std::string load(long long number, qorSIO_VCAP_FRAME_INFO* info, emsSTORAGE_INDEX* index) {
		if (!mFrame) return "no memory for a frame";
		unsigned bytes = 0;
		if (mStorage.index().GetIndexFromFile(index, &mSession, number) != 0) return "no index record";
		switch (mSession.LoadRawFrameChecked(mFrame, number, &bytes)) {
		case 0: break;
		case kFrameLost: return "it never reached the disk";
		case kFrameUnreadable: return "the disk does not give it";
		case kFrameDamaged: return "its index record is damaged";
		default: return "it is not there";
		}
		if (!readRecord(number, info) || info->mByteSize > bytes) *info = guess(bytes);
		return {};
	}

private:
	bool readRecord(long long number, qorSIO_VCAP_FRAME_INFO* info) {
		const auto position = number * static_cast<long long>(sizeof *info);
		return mRecords.IsOpen() && mRecords.Seek64(position, 0) == position &&
		       mRecords.Read(info, sizeof *info) == sizeof *info;
	}

	/// After a crash the file of frame records ends early: an image file still tells its size.
	qorSIO_VCAP_FRAME_INFO guess(unsigned bytes) const {
		qorSIO_VCAP_FRAME_INFO info = {};
		const auto header = readPgmHeader(mFrame, bytes);
		info.mByteSize = header ? header->byteSize : bytes;
		return info;
	}

	OpenStorage& mStorage;
	CmsSession& mSession;
	emsSTORAGE_SESSION mRecord;
	CaptureInfo mInfo;
	CstFile mRecords;
	unsigned char* mFrame;
};

/// Image files of a folder by their number, as a sequence camera plays them.
std::vector<std::filesystem::path> numberedFiles(const std::string& folder) {
	std::vector<std::pair<std::pair<size_t, std::string>, std::filesystem::path>> found;
	std::error_code error;
	for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
		auto extension = entry.path().extension().string();
		for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
		const auto stem = entry.path().stem().string();
		auto digits = stem.substr(stem.find_last_not_of("0123456789") + 1);
		if (extension != ".pgm" || digits.empty()) continue;
		digits.erase(0, std::min(digits.find_first_not_of('0'), digits.size() - 1));
		found.push_back({{digits.size(), digits}, entry.path()});
	}
	std::sort(found.begin(), found.end());
	std::vector<std::filesystem::path> files;
	files.reserve(found.size());
	for (auto& [key, path] : found) files.push_back(std::move(path));
	return files;
}

bool equalsFile(const unsigned char* bytes, uint64_t count, const std::filesystem::path& path) {
	std::ifstream file(path, std::ios::binary);
	const std::vector<char> contents((std::istreambuf_iterator<char>(file)), {});
	return contents.size() == count && std::memcmp(contents.data(), bytes, count) == 0;
}

/// Counts what a verification finds, and prints the first faults.
class Findings {
public:
	void fault(int session, long long frame, const std::string& text) {
		if (++mFaults <= 20) std::cout << "\nsession " << session << " frame " << frame << ": " << text << "\n";
	}
	uint64_t faults() const { return mFaults; }
	uint64_t frames = 0;
	uint64_t bytes = 0;
	uint64_t patterns = 0, images = 0, compared = 0;

private:
	uint64_t mFaults = 0;
};

void verifySession(OpenStorage& storage, int number, const PlayOptions& options, Findings& found) {
	Recording recording(storage, *storage.list().GetSession(number));
	const auto files = options.against.empty() ? std::vector<std::filesystem::path>{} : numberedFiles(options.against);
	double lastTime = 0;
	uint64_t lastNumber = 0;
	auto kind = FrameKind::unknown;
	bool first = true;
	const auto last =
	    options.count < 0 ? recording.frameCount() : std::min(recording.frameCount(), options.first + options.count);
	for (auto i = options.first; i < last; ++i) {
		qorSIO_VCAP_FRAME_INFO info = {};
		emsSTORAGE_INDEX index = {};
		const auto reason = recording.load(i, &info, &index);
		++found.frames;
		if (!reason.empty()) {
			found.fault(number, i, reason);
			continue;
		}
		found.bytes += recording.record().mFrameSize;
		auto check = checkFrame(recording.frame(), info.mByteSize);
		if (check.kind == FrameKind::pattern) ++found.patterns;
		if (check.kind == FrameKind::image) ++found.images;
		if (first) kind = check.kind;
		if (check.kind != kind) found.fault(number, i, "it is of another kind than the first frame");
		if (!check.fault.empty()) found.fault(number, i, check.fault);
		if (info.mFrameNumber && check.kind == FrameKind::pattern && check.number != info.mFrameNumber)
			found.fault(number, i,
			    "it holds frame " + std::to_string(check.number) + " of the camera, its record says " +
			        std::to_string(info.mFrameNumber));
		const auto cameraNumber = check.kind == FrameKind::pattern ? check.number : info.mFrameNumber;
		if (!first && cameraNumber && cameraNumber != lastNumber + 1)
			found.fault(number, i,
			    "frame " + std::to_string(cameraNumber) + " of the camera follows frame " + std::to_string(lastNumber));
		if (!first && index.mTime < lastTime) found.fault(number, i, "it is older than the one before");
		if (!files.empty()) {
			++found.compared;
			const auto& file = files[static_cast<size_t>(i) % files.size()];
			if (!equalsFile(recording.frame(), info.mByteSize, file))
				found.fault(number, i, "it differs from " + file.string());
		}
		first = false;
		lastTime = index.mTime;
		lastNumber = cameraNumber;
		if (!options.quiet && i % 64 == 0)
			std::cout << "\rsession " << number << "  frame " << i << " of " << recording.frameCount() << std::flush;
	}
	if (!options.quiet)
		std::cout << "\rsession " << number << "  " << recording.frameCount() << " frames read          \n";
}

/// Calls `visit` for the sessions that the options ask for.
template <typename Visit>
int eachSession(OpenStorage& storage, const PlayOptions& options, Visit visit) {
	if (options.session >= storage.list().GetCount())
		return trouble("there is no session " + std::to_string(options.session) + "; the storage has " +
		               std::to_string(storage.list().GetCount()));
	for (int i = 0; i < storage.list().GetCount(); ++i) {
		if (options.session < 0 || options.session == i) visit(i);
	}
	return kExitGood;
}

} // namespace

int verify(const PlayOptions& options) {
	if (!options.against.empty() && numberedFiles(options.against).empty())
		return trouble("'" + options.against + "' has no numbered .pgm files");
	OpenStorage storage(options);
	if (const int result = storage.open()) return result;
	Findings found;
	const double start = appGetTime();
	if (const int result = eachSession(storage, options, [&](int i) { verifySession(storage, i, options, found); }))
		return result;
	const double seconds = appGetTime() - start;
	std::cout << found.frames << " frames read back in " << seconds << " s ("
	          << (seconds > 0 ? static_cast<double>(found.bytes) / (1 << 20) / seconds : 0)
	          << " MB/s); checked by pattern " << found.patterns << ", as image file " << found.images
	          << ", against files " << found.compared << "\n"
	          << "frames that differ or are missing: " << found.faults() << "\n";
	if (storage.isDamaged()) return kExitTrouble;
	if (found.frames == 0) return trouble("there are no frames to verify");
	return found.faults() ? kExitFramesBad : kExitGood;
}

int play(const PlayOptions& options) {
	OpenStorage storage(options);
	if (const int result = storage.open()) return result;
	std::error_code error;
	std::filesystem::create_directories(options.exportTo, error);
	if (!std::filesystem::is_directory(options.exportTo, error))
		return trouble("cannot make the folder '" + options.exportTo + "'");
	uint64_t written = 0, failed = 0;
	const int result = eachSession(storage, options, [&](int number) {
		Recording recording(storage, *storage.list().GetSession(number));
		const auto last = options.count < 0 ? recording.frameCount()
		                                    : std::min(recording.frameCount(), options.first + options.count);
		for (auto i = options.first; i < last; ++i) {
			qorSIO_VCAP_FRAME_INFO info = {};
			emsSTORAGE_INDEX index = {};
			auto reason = recording.load(i, &info, &index);
			const auto image = reason.empty() ? toPgm(recording.frame(), info) : std::vector<unsigned char>{};
			if (reason.empty() && image.empty()) reason = "its pixel format is unknown";
			if (reason.empty()) {
				char name[64];
				std::snprintf(name, sizeof name, "/session%d_frame%08lld.pgm", number, i);
				std::ofstream file(options.exportTo + name, std::ios::binary);
				file.write(reinterpret_cast<const char*>(image.data()), static_cast<std::streamsize>(image.size()));
				file.flush();
				if (!file) reason = "cannot write " + options.exportTo + name;
			}
			if (reason.empty()) {
				++written;
			} else if (++failed <= 20) {
				std::cerr << "recorder: session " << number << " frame " << i << ": " << reason << "\n";
			}
		}
	});
	if (result) return result;
	std::cout << written << " frames exported to " << options.exportTo << ", " << failed << " failed\n";
	return failed ? kExitFramesBad : kExitGood;
}

int sessions(const PlayOptions& options) {
	OpenStorage storage(options);
	if (const int result = storage.open()) return result;
	std::cout << storage.list().GetCount() << " sessions, " << (storage.storage().GetAvailableSpace() >> 20) << " of "
	          << (storage.storage().GetTotalSpace() >> 20) << " MB free\n";
	eachSession(storage, options, [&](int i) {
		const Recording recording(storage, *storage.list().GetSession(i));
		const auto& info = recording.info();
		std::cout << i << "  " << recording.frameCount() << " frames of " << recording.record().mFrameSize << " bytes  "
		          << info.width << " x " << info.height << "  " << info.camera << "\n";
	});
	return storage.isDamaged() ? kExitTrouble : kExitGood;
}

int reset(const PlayOptions& options) {
	OpenStorage storage(options);
	if (const int result = storage.open()) return result;
	if (storage.storage().ResetAll() != 0) return trouble("the empty session list cannot be saved; all stays as it is");
	std::cout << "the storage is empty: " << (storage.storage().GetAvailableSpace() >> 20) << " MB free\n";
	return kExitGood;
}
