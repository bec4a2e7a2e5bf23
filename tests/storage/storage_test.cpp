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
	EXPECT_TRUE(holds(&loaded, 0, 10));
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
	CmsSession *first = record(5000, 0, 5), *second = record(100, 50, 3);
	ASSERT_TRUE(first && second);
	EXPECT_EQ(second->mSession.mStoragePos, 4194304 + 5 * 8192);
	EXPECT_EQ(second->mSession.mFirstIndex, 5u);
	EXPECT_TRUE(prepare(*first) && feed(*first, 5, 2) == 0); // taken up again, it must not run over the second
	EXPECT_TRUE(holds(first, 0, 5) && holds(second, 50, 3));
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
	EXPECT_TRUE(holds(mStorage.GetSessionList().GetSession(0), 0, 59));
}

TEST_F(StorageTest, PositionsBeyondFourGigabytes) {
	writeFile(path("data"), "");
	fs::resize_file(path("data"), 4201ll << 20); // longer than asked for
	writeFile(path("index"), "");
	create(mStorage, 4200);
	emsSTORAGE_SESSION record;
	mStorage.CalculateSession(&record, 5000);
	record.mStoragePos = (1ll << 32) - 8192;
	record.mFirstIndex = (1ll << 32) / 24 - 1;
	CmsSession& session = *mStorage.GetSessionList().Add(&record);
	ASSERT_TRUE(prepare(session) && feed(session, 0, 4) == 4);
	session.StopRecord();
	EXPECT_TRUE(holds(&session, 0, 4));
}

TEST_F(StorageTest, SessionsThatRecordAtTheSameTimeNeverMeet) {
	create(mStorage, 8);
	CmsSession* front = begin(mStorage, 100);
	ASSERT_EQ(feed(*front, 0, 3), 3);
	CmsSession* behind = begin(mStorage, 100); // behind the three frames that front has now
	CmsSession* same = begin(mStorage, 100);   // where behind will put its first frame
	EXPECT_TRUE(hasLogged("No frames can be taken: frames of another session"));
	EXPECT_EQ(feed(*same, 0, 2), 0);
	EXPECT_EQ(feed(*front, 3, 2), 0);
	EXPECT_EQ(feed(*behind, 0, 4), 4);
	for (CmsSession* session : {front, behind, same}) session->StopRecord();
	front->SetRecording(true); // taken up again without preparing
	EXPECT_EQ(feed(*front, 3, 2), 0);
	behind->SetRecording(true);
	EXPECT_EQ(feed(*behind, 4, 2), 2);
	behind->StopRecord();
	EXPECT_TRUE(holds(behind, 0, 6) && holds(front, 0, 3));
}

/// Two sessions, three and four frames, all of 100 bytes.
class DamagedStorage : public StorageTest {
protected:
	DamagedStorage() {
		create(mStorage, 8);
		for (const int frames : {3, 4}) EXPECT_TRUE(record(100, 0, frames));
		mStorage.Destroy();
		mList = readFile(path("list"));
	}
	void openWith(const std::string& list) {
		mStorage.Destroy();
		writeFile(path("list"), list);
		create(mStorage, 8);
	}
	/// Whether all seven frames come back, with the list as it was written.
	bool framesAreLeft() {
		openWith(mList);
		CmsSessionList& list = mStorage.GetSessionList();
		return holds(list.GetSession(0), 0, 3) && holds(list.GetSession(1), 0, 4);
	}
	bool savesUnchanged(const std::string& list) {
		return mStorage.GetSessionList().Save() == 0 && readFile(path("list")) == list;
	}
	std::string mList;
};

TEST_F(DamagedStorage, ListCutAtEveryByteLosesNothing) {
	for (size_t length = 0; length < mList.size(); ++length) {
		SCOPED_TRACE(length);
		fs::remove(path("cut"));
		fs::remove(path("cut.damaged"));
		const std::string cut = mList.substr(0, length);
		writeFile(path("cut"), cut);
		CmsSessionList loader;
		EXPECT_EQ(loader.Open(path("cut").c_str()), 0x10000000);
		EXPECT_EQ(loader.GetCount(), length < 48 ? 0 : static_cast<int>((length - 4 + 840 - 44) / 840));
		if (length % 97) continue; // replaced only with a copy kept, and still not believed
		EXPECT_EQ(loader.Save(), 0);
		EXPECT_EQ(readFile(path("cut.damaged")), cut);
		EXPECT_EQ(loader.Load() == 0, length >= 4 + 840 + 44);
	}
	openWith(mList.substr(0, 4 + 840 + 20)); // where does the second session stand?
	EXPECT_TRUE(mStorage.IsReady() && mStorage.GetAvailableSpace() == 0);
	EXPECT_EQ(feed(*begin(mStorage, 100), 0, 1), 0);
	EXPECT_EQ(mStorage.ResetAll(), 0);
	EXPECT_EQ(mStorage.GetAvailableSpace(), 8 << 20);
	EXPECT_TRUE(framesAreLeft() && fs::exists(path("list.damaged")));
}

TEST_F(DamagedStorage, NoChangedByteOfARecordFreesItsSpace) {
	for (size_t at = 4 + 840; at < mList.size(); ++at) {
		if (at >= 4 + 840 + 44 && at < 4 + 840 + 824) continue; // the application's
		static constexpr int kChanges[] = {1, 16, 128, 255};
		const int change = kChanges[(at - mList.size() / 2) % 4];
		SCOPED_TRACE(testing::Message() << "offset " << at - 844 << " change " << change);
		std::string damaged = mList;
		damaged[at] = static_cast<char>(damaged[at] ^ change);
		openWith(damaged);
		ASSERT_EQ(mStorage.GetSessionList().GetCount(), 2);
		const auto takeUpAgain = [&](int number) {
			CmsSession& session = *mStorage.GetSessionList().GetSession(number);
			const int taken = prepare(session) ? feed(session, 90, 2) : 0;
			session.FreeResources();
			return taken;
		};
		const int taken = takeUpAgain(1);
		EXPECT_EQ(takeUpAgain(0), 0);
		if (CmsSession* more = begin(mStorage, 100)) feed(*more, 50, 5);
		mStorage.Destroy();
		EXPECT_TRUE(taken || readFile(path("list")).substr(4, 1680) == damaged.substr(4));
		ASSERT_TRUE(framesAreLeft());
	}
}

TEST_F(DamagedStorage, RecordsThatCannotBeTrueAreNamedAndWrittenBack) {
	using Damage = std::tuple<const char*, size_t, uint32_t, unsigned>; // field, offset, value, frames left
	const Damage cases[] = {{"negative position", 16, 0x80000000, 0}, {"outside the target", 16, 1, 0},
	    {"unaligned position", 12, 7, 0}, {"bytes overflow", 24, 0x7FFFFFFF, 3}, {"index overflow", 8, 0xFFFFFFFF, 3},
	    {"frame above aligned", 40, 4097, 0}, {"aligned not", 44, 4095, 0}, {"aligned too large", 44, 0x7FFFF000, 0},
	    {"more frames than bytes", 28, 9, 3}, {"no frame size", 40, 0, 0}};
	for (const auto& [field, offset, value, frames] : cases) {
		SCOPED_TRACE(field);
		mLog.clear();
		std::string damaged = mList;
		std::memcpy(damaged.data() + offset, &value, 4);
		openWith(damaged);
		ASSERT_EQ(mStorage.GetSessionList().GetCount(), 2);
		CmsSession& session = *mStorage.GetSessionList().GetSession(0);
		EXPECT_TRUE(session.GetWrittenFrameCount() == frames && hasLogged("list: session 0"));
		std::vector<char> buffer(4096);
		for (int i = 0; i < 9; ++i) session.LoadRawFrame(buffer.data(), i);
		EXPECT_TRUE(savesUnchanged(damaged) && !fs::exists(path("list.damaged")));
	}
	for (const size_t record : {0, 1}) {
		std::string zeros = mList;
		std::fill_n(zeros.begin() + 4 + 840 * record, 840, '\0');
		openWith(zeros);
		EXPECT_TRUE(mStorage.GetSessionList().GetCount() == 2 && mStorage.GetAvailableSpace() == 0);
		EXPECT_TRUE(savesUnchanged(zeros) && framesAreLeft());
	}
	for (const uint32_t count : {0u, 1u, 3u, 0xFFFFFFFFu}) {
		std::memcpy(mList.data(), &count, 4);
		openWith(mList);
		EXPECT_EQ(mStorage.GetSessionList().GetCount(), 2) << count;
		EXPECT_EQ(mStorage.GetAvailableSpace() == 0, count > 2);
	}
}

TEST_F(DamagedStorage, DataFileThatWasCutIsExtendedAndItsLostFramesAreKnown) {
	fs::resize_file(path("data"), (4 << 20) + 5 * 4096 + 100);
	for (int opened = 0; opened < 2; ++opened) {
		create(mStorage, 8);
		EXPECT_TRUE(mStorage.IsReady() && mStorage.GetTotalSpace() == 8 << 20 && hasLogged("EXTENDING"));
		CmsSession& second = *mStorage.GetSessionList().GetSession(1);
		std::vector<char> buffer(4096);
		for (int i = 0; i < 4; ++i)
			EXPECT_EQ(second.LoadRawFrameChecked(buffer.data(), i, nullptr), i < 2 ? 0 : kFrameUnreadable);
		EXPECT_TRUE(second.mSession.mFrameCount == 4 && (opened || second.GetWrittenFrameCount() == 2));
		EXPECT_EQ(mStorage.GetAvailableSpace(), (4 << 20) - 7 * 4096);
	}
	mStorage.Destroy();
	EXPECT_EQ(readFile(path("list")), mList);
	fs::remove(path("data")); // another target: nothing of what the list counts is there
	create(mStorage, 5);
	EXPECT_FALSE(isThere(*mStorage.GetSessionList().GetSession(0), 0, 0));
	mStorage.Destroy();
	fs::resize_file(path("data"), 4 << 20);
	create(mStorage, 4); // all claims lie beyond
	EXPECT_TRUE(mStorage.IsReady() && mStorage.GetAvailableSpace() == 0 && savesUnchanged(mList));
	EXPECT_TRUE(hasLogged("list: session 1 counts 4 frames, 0 are there"));
}

TEST_F(DamagedStorage, WhatCannotBeReadIsLeftAlone) {
	for (const char* name : {"list", "index"}) {
		SCOPED_TRACE(name);
		mStorage.Destroy();
		fs::rename(path(name), path("kept"));
		fs::rename(path("data"), path("data.kept"));
		fs::create_directory(path(name));
		mLog.clear();
		create(mStorage, 8);
		EXPECT_TRUE(!mStorage.IsReady() && mStorage.GetTotalSpace() == 0 &&
		            hasLogged("cannot be read: no data target is opened"));
		EXPECT_FALSE(fs::exists(path("data")));
		const bool isList = std::string(name) == "list";
		EXPECT_EQ(mStorage.GetSessionList().GetCount(), isList ? 0 : 2);
		EXPECT_TRUE(!isList || mStorage.ResetAll() == 0x10000000);
		EXPECT_TRUE(fs::is_directory(path(name)));
		mStorage.Destroy();
		fs::remove(path(name));
		fs::rename(path("kept"), path(name));
		fs::rename(path("data.kept"), path("data"));
	}
	EXPECT_TRUE(framesAreLeft());
}

TEST_F(DamagedStorage, TheHostsCurrentFolderDoesNotMoveTheList) {
	const fs::path before = fs::current_path();
	fs::current_path(path(""));
	mStorage.Create("list", "index", "data", 8);
	fs::create_directory("elsewhere");
	fs::current_path("elsewhere");
	EXPECT_TRUE(record(100, 0, 2));
	mStorage.Destroy();
	EXPECT_TRUE(fs::is_empty("."));
	fs::current_path(before);
	create(mStorage, 8);
	EXPECT_EQ(mStorage.GetSessionList().GetCount(), 3);
}

TEST_F(DamagedStorage, FramesBeyondTheTargetAndAfterAnUnsavedRemovalAreRefused) {
	create(mStorage, 8);
	emsSTORAGE_SESSION record;
	mStorage.CalculateSession(&record, 1 << 20);
	record.mMaxFrameCount = 1000; // the host's own idea
	CmsSession& session = *mStorage.GetSessionList().Add(&record);
	EXPECT_TRUE(prepare(session) && feed(session, 0, 7) == 3);
	session.StopRecord();
	EXPECT_TRUE(countersOf(session).mRefusedFrames == 4 && countersOf(session).mLostFrames == 0);
	EXPECT_TRUE(holds(&session, 0, 3));

	mStorage.GetSessionList().DeleteAll();
	CmsSession* early = begin(mStorage, 100);
	EXPECT_TRUE(early && early->mSession.mStoragePos == 4194304 + 7 * 4096 + (3 << 20) && feed(*early, 0, 1) == 0);
	EXPECT_EQ(mStorage.GetSessionList().Save(), 0);
	EXPECT_EQ(feed(*early, 0, 1), 1);
	mStorage.ResetAll();
	EXPECT_EQ(begin(mStorage, 100)->mSession.mStoragePos, 4194304);
}

TEST_F(StorageTest, TargetsThatAreNotThere) {
	using Target = std::tuple<std::string, std::string, std::string, const char*>; // list, index, data, line logged
	for (const auto& [list, index, data, line] : {Target{path("list"), path("index"), "\\\\.\\PhysicalDrive31",
	                                                  "[ERROR] CANNOT OPEN Drive (\\\\.\\PhysicalDrive31)"},
	         {path("list"), path("index"), path("no/data"), "[ERROR] Open DATA FILE"},
	         {path("list"), path("no/index"), path("data"), "[ERROR] INDEX FILE ("},
	         {path("no/list"), path("index"), path("data"), "[ERROR] SESSION LIST ("}}) {
		mStorage.Create(list.c_str(), index.c_str(), data.c_str(), 8);
		EXPECT_TRUE(hasLogged(line) && !mStorage.IsReady() && mStorage.GetTotalSpace() == 0) << line;
		EXPECT_TRUE(!fs::exists(path("data")) && !record(10, 0, 1)) << line; // nothing could be found again
	}
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
	EXPECT_TRUE(holds(record(70000, 0, 30), 0, 30));
}

} // namespace
