#include "storage_fixture.h"
#include "support/faulty_file_system.h"

#include "qor/platform/faults.h"

using namespace storage_test;
using test_support::FaultyFileSystem;
using Call = FaultyFileSystem::Call;

namespace {

class StorageFaults : public StorageTest {
protected:
	/// What a host does, whatever fails under way. @return frames that Feed took.
	int recordEight() {
		create(mStorage, 5);
		CmsSession* session = begin(mStorage);
		const int taken = session ? feed(*session, 0, 8) : 0;
		if (session) session->FreeResources();
		return taken;
	}
	/// Every frame the saved list counts is whole or plainly marked as lost; the storage goes
	/// on recording. @return whole frames.
	int checkAfterwards() {
		create(mStorage, 5);
		EXPECT_TRUE(mStorage.IsReady());
		int whole = 0;
		size_t fed = 0;
		for (int s = 0; s < mStorage.GetSessionList().GetCount(); ++s) {
			CmsSession& session = *mStorage.GetSessionList().GetSession(s);
			std::vector<char> buffer(8192);
			for (unsigned i = 0; i < session.mSession.mFrameCount; ++i) {
				const bool there = isThere(session, static_cast<int>(i), mFed[fed++]);
				EXPECT_TRUE(there || session.LoadRawFrameChecked(buffer.data(), i, nullptr) == kFrameLost) << i;
				whole += there;
			}
		}
		EXPECT_TRUE(holds(record(5000, 0, 2), 0, 2));
		return whole;
	}
	unsigned long long troubles() const {
		const auto c = countersOf(mStorage);
		return c.mRefusedFrames + c.mLostFrames + c.mShortWrites + c.mFailedIndexWrites + c.mFailedListSaves;
	}
};

/// Once with nothing there yet, once over an old recording whose data file is to be extended.
TEST_F(StorageFaults, EveryFileCallFailingOnceLosesNothingSilently) {
	FaultyFileSystem faulty;
	for (const Call call : {Call::open, Call::write, Call::read, Call::seek, Call::size, Call::flush, Call::replace}) {
		// The first opens ask for 32 disks and 26 letters, most of which are never there.
		const int first = call == Call::open ? kMaximumDisks + 26 + 1 : 1;
		for (int nth = first, over = 0; over < 2; ++nth) {
			SCOPED_TRACE(
			    testing::Message() << "call " << static_cast<int>(call) << " number " << nth << " over " << over);
			startAnew();
			if (over) {
				EXPECT_EQ(recordEight(), 8);
				mStorage.Destroy();
				fs::resize_file(path("data"), (5 << 20) - 4096);
			}
			faulty.reset();
			faulty.fail(call, nth);
			const int taken = recordEight();
			const bool reached = faulty.calls(call) >= nth;
			faulty.reset();
			const bool told = troubles() > 0 || taken < 8;
			mStorage.Destroy();
			const int whole = checkAfterwards();
			EXPECT_TRUE(whole >= 8 || told) << whole << " of " << taken;
			EXPECT_GE(whole, over ? 8 : 0) << "of the old recording";
			EXPECT_TRUE(!reached || over || hasLogged("ERROR") || hasLogged("err="));
			if (reached && nth <= first + 60) continue;
			++over;
			nth = first - 1;
		}
	}
}

TEST_F(StorageFaults, EveryThreadAndWaitObjectFailingOnceIsReported) {
	for (const auto point : {platform::FaultPoint::thread, platform::FaultPoint::waitObject}) {
		bool reached = true;
		for (int nth = 1; reached && nth < 60; ++nth) {
			SCOPED_TRACE(testing::Message() << static_cast<int>(point) << " number " << nth);
			startAnew();
			platform::armFault(point, nth);
			const int taken = recordEight();
			reached = platform::faultCalls(point) >= nth;
			platform::armFault(point, 0);
			EXPECT_EQ(checkAfterwards(), taken);
		}
	}
}

TEST_F(StorageFaults, ShortWriteMarksTheLostFramesAndKeepsTheOthers) {
	FaultyFileSystem faulty;
	create(mStorage, 5);
	CmsSession& session = *begin(mStorage);
	ASSERT_EQ(feed(session, 0, 4), 4);
	mStorage.WaitUntilWritten();
	faulty.tearWrite(2, 8192 + 4096); // behind the index records: one frame and a half
	ASSERT_EQ(feed(session, 4, 6), 6);
	session.StopRecord();
	EXPECT_TRUE(hasLogged("[ERROR] Write (12288 of 32768)"));
	for (int i = 0; i < 10; ++i) EXPECT_EQ(isThere(session, i, i), i < 5 || i > 7) << i;
	EXPECT_EQ(session.LoadRawFrameChecked(&faulty, 6, nullptr), kFrameLost);
	EXPECT_TRUE(countersOf(session).mShortWrites == 1 && countersOf(session).mLostFrames == 3);
	EXPECT_EQ(checkAfterwards(), 7);
}

TEST_F(StorageFaults, LostIndexRecordsCloseTheSession) {
	FaultyFileSystem faulty;
	create(mStorage, 5);
	CmsSession& session = *begin(mStorage);
	ASSERT_EQ(feed(session, 0, 4), 4);
	mStorage.WaitUntilWritten();
	faulty.fail(Call::flush, 1, 5, true);
	ASSERT_EQ(feed(session, 4, 4), 4);
	mStorage.WaitUntilWritten();
	faulty.reset();
	EXPECT_EQ(feed(session, 8, 3), 0);
	session.StopRecord();
	EXPECT_TRUE(countersOf(mStorage).mLostFrames == 4 && countersOf(mStorage).mRefusedFrames == 3);
	EXPECT_EQ(checkAfterwards(), 4);
}

} // namespace
