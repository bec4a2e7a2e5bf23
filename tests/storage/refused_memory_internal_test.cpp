#include "qor/platform/faults.h"
#include "qor/storage/storage.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>

namespace {

std::atomic<long> allocations{0}; // of all threads
std::atomic<long> refused{0};     // the number of the one that is refused; 0: none

bool refuse() { return ++allocations == refused; }

} // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return refuse() ? nullptr : std::malloc(size); }
void* operator new(std::size_t size) {
	if (void* block = operator new(size, std::nothrow)) return block;
	throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void* block) noexcept { std::free(block); }
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept { std::free(block); }

namespace {

constexpr int kFrames = 8;
constexpr unsigned kFrameSize = 5000;

class StorageMemory : public testing::Test {
protected:
	StorageMemory() {
		for (int i = 0; i < kFrames; ++i) std::memset(mFrames[i], 'a' + i, kFrameSize);
	}
	/// Everything that a host does, without memory of its own. @return frames that Feed took.
	int useEverything(std::optional<CmsStorage>& storage) {
		storage.emplace();
		storage->Create(mList.c_str(), mIndex.c_str(), mData.c_str(), 5);
		emsSTORAGE_SESSION record;
		CmsSession* session =
		    storage->CalculateSession(&record, kFrameSize) == 0 ? storage->GetSessionList().Add(&record) : nullptr;
		if (!session || session->AllocResources(4, 2) != 0) return 0;
		int taken = 0;
		const long before = allocations;
		session->SetRecording(true);
		session->PrepareToRecord();
		for (const auto& frame : mFrames) taken += session->Feed(frame) == 0;
		session->FreeResources();
		mWhileRecording = allocations - before;
		session->LoadRawFrame(mBuffer + 1, 0);
		storage->GetSessionList().Save();
		if (storage->GetSessionList().Load() == 0) storage->GetSessionList().GetMaxIndex();
		storage->GetDriveList().Detect(1, 1);
		return taken;
	}
	/// @return frames that the list counts; all must be as they were fed, and the storage goes on.
	int framesAfterwards() {
		CmsStorage storage;
		storage.Create(mList.c_str(), mIndex.c_str(), mData.c_str(), 5);
		EXPECT_TRUE(storage.IsReady());
		CmsSession* session = storage.GetSessionList().GetSession(0);
		const int frames = session ? static_cast<int>(session->GetWrittenFrameCount()) : 0;
		for (int i = 0; i < frames; ++i) {
			EXPECT_EQ(session->LoadRawFrameChecked(mBuffer, i, nullptr), 0);
			EXPECT_EQ(std::memcmp(mBuffer, mFrames[i], kFrameSize), 0);
		}
		return frames;
	}
	void removeFiles() {
		for (const auto& path : {mList, mIndex, mData}) std::filesystem::remove(path);
	}

	test_support::TempFolder mFolder;
	const std::string mList = mFolder.path("list"), mIndex = mFolder.path("index"), mData = mFolder.path("data");
	char mFrames[kFrames][kFrameSize];
	char mBuffer[2 * 8192];
	long mWhileRecording = 0;
};

TEST_F(StorageMemory, EachRefusedAllocationIsTheStatedFailure) {
	for (const bool seam : {false, true}) {
		for (long nth = 1;; ++nth) {
			SCOPED_TRACE(testing::Message() << (seam ? "block " : "object ") << nth);
			removeFiles();
			std::optional<CmsStorage> storage;
			allocations = 0;
			if (seam) platform::armFault(platform::FaultPoint::memory, static_cast<int>(nth));
			refused = seam ? 0 : nth;
			const int taken = useEverything(storage);
			const bool reached = seam ? platform::faultCalls(platform::FaultPoint::memory) >= nth : allocations >= nth;
			refused = 0;
			platform::armFault(platform::FaultPoint::memory, 0);
			storage.reset();
			ASSERT_EQ(framesAfterwards(), taken);
			if (reached) continue;
			EXPECT_EQ(taken, kFrames);
			EXPECT_GT(nth, seam ? 10 : 20);
			EXPECT_LE(mWhileRecording, kFrames / 2) << "one for each saved list: the open file";
			break;
		}
	}
}

} // namespace
