#pragma once

#include "qor/storage/storage.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <cstring>

namespace storage_test {

namespace fs = std::filesystem;
using test_support::readFile;
using test_support::writeFile;

/// A frame whose every byte tells which one it is.
inline std::vector<unsigned char> pattern(size_t size, unsigned number) {
	std::vector<unsigned char> frame(size);
	for (size_t i = 0; i < size; ++i) frame[i] = static_cast<unsigned char>(number * 31 + i * 7 + (i >> 8) * number);
	return frame;
}

inline void createIn(CmsStorage& storage, const std::string& folder, int sizeMB) {
	storage.Create((folder + "/list").c_str(), (folder + "/index").c_str(), (folder + "/data").c_str(), sizeMB);
}

/// Makes a session ready for Feed. @return whether it has its buffers.
inline bool prepare(CmsSession& session, int buffers = 2, int frames = 2) {
	if (session.AllocResources(buffers, frames) != 0) return false;
	session.SetRecording(true);
	session.PrepareToRecord();
	return true;
}

/// A session ready for Feed, `ahead` frames behind the last one; null when that is refused.
inline CmsSession* begin(
    CmsStorage& storage, unsigned frameSize = 5000, int buffers = 3, int frames = 4, unsigned ahead = 0) {
	emsSTORAGE_SESSION record;
	if (storage.CalculateSession(&record, frameSize) != 0) return nullptr;
	record.mStoragePos += static_cast<long long>(ahead) * record.mAlignedFrameSize;
	record.mFirstIndex = record.mFirstIndex2 += ahead;
	CmsSession* session = storage.GetSessionList().Add(&record);
	return session && prepare(*session, buffers, frames) ? session : nullptr;
}

/// Whether a frame comes back as it was fed, into a buffer at an odd address too.
inline bool isThere(CmsSession& session, long long frame, unsigned number) {
	std::vector<unsigned char> buffer(session.mSession.mAlignedFrameSize + 1);
	unsigned int bytes = 0;
	if (session.LoadRawFrameChecked(buffer.data() + 1, frame, &bytes) != 0) return false;
	const auto expected = pattern(session.mSession.mFrameSize, number);
	return bytes == expected.size() && std::memcmp(buffer.data() + 1, expected.data(), bytes) == 0;
}

/// The three files of a storage in a folder of their own, and the lines logged meanwhile.
class StorageTest : public testing::Test {
protected:
	std::string path(const char* name) const { return mFolder.path(name); }
	bool hasLogged(const char* text) { return mLog.has(text); }
	void create(CmsStorage& storage, int sizeMB = 16) { createIn(storage, mFolder.path(), sizeMB); }
	/// Feeds frames `first` to `first + count - 1`, waiting where the disk is behind. @return frames taken.
	int feed(CmsSession& session, unsigned first, int count) {
		const size_t before = mFed.size();
		for (int i = 0; i < count; ++i) {
			if (i % 8 == 7) session.mStorage->WaitUntilWritten();
			const unsigned number = first + static_cast<unsigned>(i);
			if (session.Feed(pattern(session.mSession.mFrameSize, number).data()) == 0) mFed.push_back(number);
		}
		return static_cast<int>(mFed.size() - before);
	}
	/// A session of `count` frames, recorded and stopped; null when it could not be.
	CmsSession* record(unsigned frameSize, unsigned first, int count) {
		CmsSession* session = begin(mStorage, frameSize);
		const bool whole = session && feed(*session, first, count) == count;
		if (session) session->FreeResources();
		return whole ? session : nullptr;
	}
	/// Whether a session holds the frames `first` to `first + count - 1` of `feed` and those only.
	bool holds(CmsSession* session, unsigned first, int count) {
		int whole = 0;
		while (session && isThere(*session, whole, first + static_cast<unsigned>(whole))) ++whole;
		return whole == count;
	}
	static emsSTORAGE_COUNTERS countersOf(auto& storageOrSession) {
		emsSTORAGE_COUNTERS counters;
		storageOrSession.GetCounters(&counters);
		return counters;
	}
	void startAnew() {
		mStorage.Destroy();
		for (const char* name : {"list", "index", "data", "list.damaged"}) fs::remove(path(name));
		mFed.clear();
		mLog.clear();
	}

	test_support::TempFolder mFolder;
	test_support::LogCapture mLog;
	CmsStorage mStorage;        // goes first
	std::vector<unsigned> mFed; // numbers of the frames that Feed took
};

} // namespace storage_test
