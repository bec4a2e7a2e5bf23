#include "storage_fixture.h"
#include "support/refused_allocations.h"

#include <climits>
#include <optional>

using namespace storage_test;

namespace {

constexpr int kFrames = 8;

class StorageMemory : public testing::Test {
protected:
	StorageMemory() {
		for (unsigned i = 0; i < kFrames; ++i) mFrames.push_back(pattern(5000, i));
	}
	void create(CmsStorage& storage) { storage.Create(mList.c_str(), mIndex.c_str(), mData.c_str(), 5); }
	/// Everything that a host does, without memory of its own. @return frames that Feed took.
	int useEverything(std::optional<CmsStorage>& storage) {
		create(storage.emplace());
		CmsSession* session = begin(*storage, 5000, 4, 2);
		if (!session) return 0;
		int taken = 0;
		const int before = test_support::newCalls;
		session->PrepareToRecord();
		for (const auto& frame : mFrames) taken += session->Feed(frame.data()) == 0;
		session->FreeResources();
		mWhileRecording = test_support::newCalls - before;
		session->LoadRawFrame(mBuffer + 1, 0);
		storage->GetSessionList().Save();
		if (storage->GetSessionList().Load() == 0) storage->GetSessionList().GetMaxIndex();
		storage->GetDriveList().Detect(1, 1);
		return taken;
	}
	/// @return frames that the list counts; all must be as they were fed, and the storage goes on.
	int framesAfterwards() {
		CmsStorage storage;
		create(storage);
		EXPECT_TRUE(storage.IsReady());
		CmsSession* session = storage.GetSessionList().GetSession(0);
		const unsigned frames = session ? session->GetWrittenFrameCount() : 0;
		for (unsigned i = 0; i < frames; ++i) EXPECT_TRUE(isThere(*session, i, i)) << i;
		CmsSession* more = begin(storage, 5000);
		EXPECT_TRUE(more && more->Feed(mFrames[0].data()) == 0);
		return static_cast<int>(frames);
	}

	test_support::TempFolder mFolder;
	const std::string mList = mFolder.path("list"), mIndex = mFolder.path("index"), mData = mFolder.path("data");
	std::vector<std::vector<unsigned char>> mFrames;
	char mBuffer[2 * 8192];
	int mWhileRecording = 0;
};

TEST_F(StorageMemory, EachRefusedAllocationIsTheStatedFailure) {
	for (const bool heap : {false, true}) {
		int nth = 0, taken = 0;
		for (bool hit = true; hit;) {
			SCOPED_TRACE(testing::Message() << (heap ? "block " : "object ") << ++nth);
			for (const auto& path : {mList, mIndex, mData}) fs::remove(path);
			std::optional<CmsStorage> storage;
			test_support::newCalls = 0;
			platform::armFault(platform::FaultPoint::memory, heap ? nth : 0);
			test_support::refuseNew = heap ? INT_MAX : nth;
			taken = useEverything(storage);
			hit = (heap ? platform::faultCalls(platform::FaultPoint::memory) : test_support::newCalls.load()) >= nth;
			test_support::refuseNew = 0;
			platform::armFault(platform::FaultPoint::memory, 0);
			storage.reset();
			ASSERT_EQ(framesAfterwards(), taken);
		}
		EXPECT_EQ(taken, kFrames);
		EXPECT_GT(nth, heap ? 10 : 20);
		EXPECT_LE(mWhileRecording, kFrames / 2) << "one for each saved list: the open file";
	}
}

} // namespace
