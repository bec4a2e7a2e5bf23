#include "storage_fixture.h"

#include <cstdlib>

using namespace storage_test;

namespace {

TEST_F(StorageTest, FramesComeBackAfterReopeningAndFilesHaveTheirLayout) {
	create(mStorage);
	CmsSession* session = begin(mStorage);
	ASSERT_TRUE(mStorage.IsReady() && session);
	session->mSession.mFlags = 0x21;
	EXPECT_EQ(feed(*session, 0, 10), 10); // the last two stay in a part of a buffer
	EXPECT_EQ(session->StopRecord(), 0);
	EXPECT_TRUE(hasLogged("WRITING> ") && hasLogged("CREATING (") && hasLogged("Open and Ready"));
	EXPECT_EQ(mStorage.GetAvailableSpace(), (16 << 20) - (4 << 20) - 10 * 8192);

	CmsStorage again;
	create(again);
	ASSERT_EQ(again.GetSessionList().GetCount(), 1);
	CmsSession& loaded = *again.GetSessionList().GetSession(0);
	for (int i = 0; i < 10; ++i) EXPECT_TRUE(isThere(loaded, i, i)) << i;
	EXPECT_EQ(loaded.LoadRawFrame(nullptr, 77), 0);
	EXPECT_EQ(loaded.LoadRawFrameChecked(&loaded, 10, nullptr), kFrameNotThere);
	emsSTORAGE_INDEX index;
	ASSERT_EQ(again.GetIndexList().GetIndexFromFile(&index, &loaded, 9), 0);
	EXPECT_EQ(index.mStoragePos, 4194304 + 9 * 8192);
	EXPECT_TRUE(index.mFrameSize == 5000 && (index.mFlags & 0xFF) == 0x21);
	EXPECT_EQ(again.GetIndexList().GetIndexFromFile(&index, &loaded, 10), 0x10000000);

	const std::string list = readFile(path("list"));
	ASSERT_EQ(list.size(), 4u + 840u);
	const std::pair<size_t, uint32_t> fields[] = {{0, 1}, {4, 0x21}, {8, 0}, {12, 4194304}, {20, 81920}, {28, 10},
	    {40, 5000}, {44, 8192}, {828, (12 << 20) / 8192}, {832, 0}, {836, (12 << 20) / 8192 - 1}};
	for (const auto& [offset, expected] : fields) {
		uint32_t value = 0;
		std::memcpy(&value, list.data() + offset, 4);
		EXPECT_EQ(value, expected) << offset;
	}
	EXPECT_EQ(fs::file_size(path("index")), (16u << 20) / 4096 * 24);
}

TEST_F(StorageTest, SessionsStandBehindOneAnother) {
	using Size = std::tuple<unsigned, uint32_t, uint32_t>; // frame, aligned, maximum count
	const Size sizes[] = {{1, 4096, 3072}, {4096, 4096, 3072}, {4097, 8192, 1536}, {0x80000000u, 0x80000000u, 0},
	    {0, 0, 0}, {0x80000001u, 0, 0}};
	create(mStorage);
	for (const auto& [frame, aligned, most] : sizes) {
		emsSTORAGE_SESSION record;
		EXPECT_EQ(mStorage.CalculateSession(&record, frame), aligned ? 0 : 0x10000000);
		EXPECT_EQ(record.mAlignedFrameSize, aligned);
		EXPECT_EQ(record.mMaxFrameCount, most);
		EXPECT_EQ(record.mStoragePos, aligned ? 4194304 : 0);
	}
	CmsSession* first = begin(mStorage);
	ASSERT_EQ(feed(*first, 0, 5), 5);
	first->StopRecord();
	CmsSession* second = begin(mStorage, 100);
	EXPECT_EQ(second->mSession.mStoragePos, 4194304 + 5 * 8192);
	EXPECT_EQ(second->mSession.mFirstIndex, 5u);
	ASSERT_EQ(feed(*second, 50, 3), 3);
	second->StopRecord();
	first->SetRecording(true); // taken up again, it must not run over the second
	first->PrepareToRecord();
	EXPECT_EQ(feed(*first, 5, 2), 0);
	EXPECT_TRUE(isThere(*first, 4, 4) && isThere(*second, 0, 50));
	EXPECT_EQ(mStorage.GetSessionList().GetSessionIndex(second), 1);
	mStorage.ResetAll();
	EXPECT_EQ(readFile(path("list")), std::string(4, '\0'));
	EXPECT_EQ(mStorage.GetAvailableSpace(), 16 << 20);
}

TEST_F(StorageTest, FeedTakesIgnoresAndRefuses) {
	create(mStorage);
	emsSTORAGE_SESSION record;
	mStorage.CalculateSession(&record, 100);
	record.mMaxFrameCount = 6;
	CmsSession& session = *mStorage.GetSessionList().Add(&record);
	const auto frame = pattern(100, 1);
	EXPECT_EQ(session.Feed(frame.data()), 0x10000000);
	EXPECT_TRUE(hasLogged("PASS1/mBuffer.GetCount()"));
	for (const auto& [buffers, frames] : {std::pair{1, 10}, {10, 1}, {2, 0x7FFFFFFF}})
		EXPECT_TRUE(session.AllocResources(buffers, frames) == 0x10000000 && session.GetBufferCount() == 0);
	ASSERT_EQ(session.AllocResources(2, 2), 0);
	EXPECT_EQ(session.Feed(frame.data()), 0);
	EXPECT_EQ(session.mSession.mFrameCount, 0u);
	session.SetRecording(true);
	EXPECT_EQ(session.Feed(nullptr), 0x10000000);

	mStorage.driveLock(); // the disk stands still
	for (const int result : {0, 0, 0, 0, 0x10000000}) EXPECT_EQ(session.Feed(frame.data()), result);
	EXPECT_TRUE(hasLogged("OVERFLOW"));
	EXPECT_EQ(session.LoadRawFrameChecked(&record, 0, nullptr), kFrameNotWritten);
	mStorage.driveUnlock();
	mStorage.WaitUntilWritten();
	EXPECT_EQ(feed(session, 1, 3), 2); // up to the maximum
	session.StopRecord();
	EXPECT_TRUE(countersOf(mStorage).mOverflowFrames == 1 && countersOf(mStorage).mRefusedFrames == 1);
	EXPECT_EQ(session.GetWrittenFrameCount(), 6u);
}

TEST_F(StorageTest, RunMarkerFlipsWithEveryChangeOfTheStateWord) {
	create(mStorage);
	CmsSession& session = *begin(mStorage, 10);
	const bool expected[] = {true, true, true, false, false}; // changed, kept, off and on unseen, changed, off seen
	feed(session, 0, 2);
	session.SetRecording(false);
	session.SetRecording(true);
	feed(session, 2, 1);
	session.mState |= 2;
	feed(session, 3, 1);
	session.SetRecording(false);
	feed(session, 4, 1); // not recorded, and yet it flips the marker
	session.SetRecording(true);
	feed(session, 4, 1); // back again
	session.StopRecord();
	for (int i = 0; i < 5; ++i) {
		emsSTORAGE_INDEX index;
		ASSERT_EQ(mStorage.GetIndexList().GetIndexFromFile(&index, &session, i), 0);
		EXPECT_EQ((index.mFlags & kIndexRunMarker) != 0, expected[i]) << i;
	}
}

TEST_F(StorageTest, MoreBuffersThanTheQueueHasEntriesAndTheEndWhileTheyWait) {
	create(mStorage);
	CmsSession& session = *begin(mStorage, 3000, 30, 2);
	mStorage.driveLock();
	for (int i = 0; i < 59; ++i) EXPECT_EQ(session.Feed(pattern(3000, i).data()), 0);
	mStorage.driveUnlock();
	create(mStorage); // ends the first use, with everything that is queued and the part of a buffer
	CmsSession& loaded = *mStorage.GetSessionList().GetSession(0);
	ASSERT_EQ(loaded.mSession.mFrameCount, 59u);
	for (int i = 0; i < 59; ++i) EXPECT_TRUE(isThere(loaded, i, i)) << i;
}

TEST_F(StorageTest, PositionsBeyondFourGigabytes) {
	writeFile(path("data"), "");
	fs::resize_file(path("data"), 4200ll << 20);
	writeFile(path("index"), "");
	create(mStorage, 4200);
	emsSTORAGE_SESSION record;
	mStorage.CalculateSession(&record, 5000);
	record.mStoragePos = (1ll << 32) - 8192;
	record.mFirstIndex = (1ll << 32) / 24 - 1;
	CmsSession& session = *mStorage.GetSessionList().Add(&record);
	ASSERT_EQ(session.AllocResources(2, 2), 0);
	session.SetRecording(true);
	ASSERT_EQ(feed(session, 0, 4), 4);
	session.StopRecord();
	for (int i = 0; i < 4; ++i) EXPECT_TRUE(isThere(session, i, i)) << i;
}

TEST_F(StorageTest, ListCutAtEveryByteLoadsWhatIsWhole) {
	create(mStorage, 8);
	feed(*begin(mStorage, 50), 0, 4);
	mStorage.Destroy();
	const std::string list = readFile(path("list"));
	CmsSessionList loader;
	for (size_t length = 0; length <= list.size(); ++length) {
		fs::remove(path("cut"));
		writeFile(path("cut"), list.substr(0, length));
		EXPECT_EQ(loader.Open(path("cut").c_str()), length == list.size() ? 0 : 0x10000000) << length;
		EXPECT_EQ(loader.GetCount(), length < 4 ? 0 : static_cast<int>((length - 4) / 840));
	}
	writeFile(path("cut"), list.substr(0, 500));
	loader.Open(path("cut").c_str());
	EXPECT_EQ(loader.Save(), 0);
	EXPECT_EQ(readFile(path("cut")), std::string(4, '\0'));
	EXPECT_EQ(readFile(path("cut.damaged")), list.substr(0, 500));
}

TEST_F(StorageTest, RecordsAreCheckedBeforeTheyAreBelieved) {
	create(mStorage, 8);
	feed(*begin(mStorage, 50), 0, 4);
	mStorage.Destroy();
	const std::string list = readFile(path("list"));
	using Damage = std::tuple<const char*, size_t, uint32_t, int>; // field, offset, value, sessions left
	const Damage cases[] = {{"negative position", 16, 0x80000000, 0}, {"outside the target", 16, 1, 0},
	    {"unaligned position", 12, 7, 0}, {"bytes overflow", 24, 0x7FFFFFFF, 0}, {"index overflow", 8, 0xFFFFFFFF, 0},
	    {"frame above aligned", 40, 4097, 0}, {"aligned not", 44, 4095, 0}, {"aligned too large", 44, 0x7FFFF000, 0},
	    {"more frames than bytes", 28, 9, 1}, {"foreign index", 8, 3, 1}, {"huge count", 0, 0xFFFFFFFF, 1}};
	for (const auto& [field, offset, value, sessions] : cases) {
		SCOPED_TRACE(field);
		std::string damaged = list;
		std::memcpy(damaged.data() + offset, &value, 4);
		writeFile(path("list"), damaged);
		create(mStorage, 8);
		ASSERT_EQ(mStorage.GetSessionList().GetCount(), sessions);
		if (!sessions) continue;
		CmsSession& loaded = *mStorage.GetSessionList().GetSession(0);
		std::vector<char> buffer(4096);
		for (int i = 0; i < 9; ++i) loaded.LoadRawFrame(buffer.data(), i);
		EXPECT_EQ(loaded.GetWrittenFrameCount(), 4u);
		EXPECT_EQ(isThere(loaded, 3, 3), offset != 8);
	}
}

TEST_F(StorageTest, TargetsThatAreNotThereOrNotWhole) {
	const auto openAt = [&](const std::string& list, const std::string& index, const std::string& data) {
		mStorage.Create(list.c_str(), index.c_str(), data.c_str(), 8);
		EXPECT_FALSE(mStorage.IsReady());
		return mStorage.GetTotalSpace();
	};
	EXPECT_EQ(openAt(path("list"), path("index"), "\\\\.\\PhysicalDrive31"), 0);
	EXPECT_TRUE(hasLogged("[ERROR] CANNOT OPEN Drive (\\\\.\\PhysicalDrive31)"));
	EXPECT_EQ(openAt(path("no/list"), path("no/index"), path("no/data")), 0);
	EXPECT_TRUE(hasLogged("[ERROR] Open DATA FILE"));
	EXPECT_EQ(openAt(path("no/list"), path("index"), path("data")), 8 << 20);
	EXPECT_EQ(feed(*begin(mStorage, 10), 0, 1), 0); // nothing could be found again

	mStorage.Destroy();
	fs::resize_file(path("data"), (6 << 20) + 100);
	create(mStorage, 8);
	EXPECT_TRUE(hasLogged("[WARNING] Data File"));
	EXPECT_EQ(mStorage.GetTotalSpace(), 6 << 20);
}

TEST_F(StorageTest, SmallFileSystemFills) {
	const std::string mount = "mount -t tmpfs -o size=9m tmpfs " + mFolder.path() + " 2>/dev/null";
	if (std::system(mount.c_str()) != 0 || fs::space(mFolder.path()).capacity != 9 << 20)
		GTEST_SKIP() << "needs a system with tmpfs and the right to mount one";
	create(mStorage, 16);
	EXPECT_TRUE(hasLogged("[ERROR] CREATING ("));
	EXPECT_EQ(std::distance(fs::directory_iterator(mFolder.path()), {}), 1); // the list alone
	mStorage.Destroy();
	EXPECT_EQ(std::system(("umount " + mFolder.path()).c_str()), 0);
}

/// Run by its own test entry, which makes the image and names it as disk 0 and letter R.
TEST_F(StorageTest, DiskImageHasItsTableAndTakesARecording) {
	if (!std::getenv("QOR_TEST_DISK_IMAGE"))
		GTEST_SKIP() << "no disk image here: run by the test disk_images, on Linux";
	mStorage.Create(path("list").c_str(), path("index").c_str(), "\\\\.\\PhysicalDrive0", 0);
	const CqorDiskUtil_Drive* drive = mStorage.GetDriveList().GetDrive(0);
	ASSERT_TRUE(drive && drive->GetPartitionCount() == 2);
	EXPECT_EQ(drive->GetPartition(0)->mStartingOffset, 1 << 20);
	EXPECT_EQ(drive->GetPartition(1)->mLength, 20 << 20);
	EXPECT_EQ(drive->GetPartition(1)->mPartitionType, 0x83);
	EXPECT_TRUE(hasLogged("[OK] Drive (\\\\.\\PhysicalDrive0) Open and Ready"));
	EXPECT_EQ(mStorage.GetTotalSpace(), 64 << 20);
	CmsSession* session = begin(mStorage, 70000);
	ASSERT_TRUE(session);
	EXPECT_EQ(feed(*session, 0, 30), 30);
	session->StopRecord();
	for (int i = 0; i < 30; ++i) EXPECT_TRUE(isThere(*session, i, i)) << i;
}

} // namespace
