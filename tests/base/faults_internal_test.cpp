#include "support/faulty_file_system.h"
#include "support/temp_folder.h"

#include <qor/base/file_stream_internal.h>
#include <qor/base/mem_file.h>
#include <qor/base/persistent_array.h>
#include <qor/base/string_set.h>
#include <qor/platform/faults.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <thread>

namespace {

using platform::FaultPoint;
using test_support::FaultyFileSystem;
using test_support::readFile;

/// Runs `operation` once with each of its allocations failing; it must answer false then.
/// @return allocations that were made to fail.
int failEach(const std::function<bool()>& operation, FaultPoint point = FaultPoint::memory) {
	for (int nth = 1;; ++nth) {
		platform::armFault(point, nth);
		const bool done = operation();
		const bool hit = platform::faultCalls(point) >= nth;
		platform::armFault(point, 0);
		EXPECT_EQ(done, !hit) << nth;
		if (!hit) return nth - 1;
	}
}

struct FileFaults : testing::Test {
	std::string written() const { return readFile(mPath); }
	FaultyFileSystem mFaulty;
	test_support::TempFolder mFolder;
	const std::string mPath = mFolder.path("file");
	const char* const mName = mPath.c_str();
};

} // namespace

TEST(Faults, ArraysStayAsTheyWere) {
	CstmLinearArray array(4), grown(4);
	std::memcpy(array.laAdd(2), "abcdefgh", 8);
	std::memcpy(grown.laAdd(2), "abcdefgh", 8);
	EXPECT_EQ(failEach([&] { return array.laAdd(1) || array.laGetCount() != 2; }), 1);
	EXPECT_EQ(failEach([&] { return grown.laInsert(1, 1) || std::memcmp(grown.laGetAddress(1), "efgh", 4); }), 1);
	// Deleting needs no memory: it works with the block left as large as it was.
	platform::armFault(FaultPoint::memory, 1);
	EXPECT_EQ(std::memcmp(array.laDelete(0, 1), "efgh", 4), 0);
	platform::armFault(FaultPoint::memory, 0);

	CstmMemVector block;
	const void* data = block.mvAlloc(10);
	EXPECT_EQ(failEach([&] { return block.mvAlloc(20) || block.mvGetData() != data; }), 1);
	CstmPersistentLinearArray pages(8);
	EXPECT_EQ(failEach([&] { return pages.AddItem(5) || pages.laGetCount() != 0 || pages.GetCount() != 0; }), 2);
}

TEST(Containers, AChangeSeldomMovesTheContents) {
	constexpr int kChanges = 100000;
	CstmArray<int> array;
	CstMemFile file;
	const auto moves = [](auto change) {
		platform::armFault(FaultPoint::memory, kChanges * 9); // counts only
		for (int i = 0; i < kChanges; ++i) change();
		const int calls = platform::faultCalls(FaultPoint::memory);
		platform::armFault(FaultPoint::memory, 0);
		return calls;
	};
	EXPECT_LT(moves([&] { array.Add(7); }), 40);
	EXPECT_LT(moves([&] { file.Write("record", 6); }), 40);
	EXPECT_TRUE(array.mvGetSize() == kChanges * sizeof(int) && file.GetSize() == kChanges * 6);
	const int shrinks = moves([&] { array.Delete(array.Count() - 1); });
	EXPECT_TRUE(shrinks > 5 && shrinks < 40 && !array.mvGetData());
}

TEST_F(FileFaults, StringSetsTakeAllOrNone) {
	CstmCharStringSet set, three;
	for (const char* text : {"a", "b", "c"}) three.Add(text);
	EXPECT_EQ(failEach([&] { return set.Add("x") || set.GetCount() != 0; }), 2);
	EXPECT_EQ(failEach([&] { return set.Append(three) == 0 || set.GetCount() != 1; }), 3);
	EXPECT_EQ(failEach([&] { return set.CopyRange(three, 0, 1) == 0 || set.GetCount() != 4; }), 2);
	test_support::writeFile(mPath, "old file");
	EXPECT_EQ(failEach([&] { return three.SaveToFile(mName) == 0 || written() != "old file"; }), 1);
	EXPECT_EQ(failEach([&] { return set.LoadFromFile(mName) == 0 || set.GetCount() != 0; }), 6);
}

TEST(Faults, MemoryFilesStayAsTheyWere) {
	CstMemFile file;
	const std::string full(256, 'x'); // the room that a small file gets
	file.Write(full.data(), 256);
	file.Seek(2, 0);
	void* where = nullptr;
	EXPECT_EQ(failEach([&] { return file.Append("x", 1, &where) || where || file.GetCurrentPos() != 2; }), 1);
	EXPECT_EQ(failEach([&] { return file.WriteText("text") != 0; }), 1); // its buffer
	void* owned = file.GetBuffer();
	EXPECT_EQ(failEach([&] { return file.Create(9, &where) == 0 || where || file.GetBuffer() != owned; }), 1);
	std::free(owned); // `Create` leaves it to its caller
}

TEST_F(FileFaults, StreamingThatCannotStartIsReported) {
	char block[4];
	CstFile file;
	file.OpenFromMemory(block, 4);
	for (const auto point : {FaultPoint::memory, FaultPoint::thread, FaultPoint::waitObject}) {
		const auto start = [&] { return file.PrepareForWriteStreaming(4) != 0x100003EA || file.GetStreamInfo(); };
		EXPECT_GE(failEach(start, point), 1);
		file.FinishStreaming();
	}
	EXPECT_EQ(file.Write("abcd", 4), 4u); // not streaming
}

TEST_F(FileFaults, BytesAFullDiskDidNotTakeAreReported) {
	CstFile file, second;
	file.Open(mName, 4, 0x40000000, 1);
	EXPECT_EQ(second.Open(mName, 3, 0x40000000, 3), 0x10000000u); // shared for reading only
	mFaulty.setSpace(4500);
	file.PrepareForWriteStreaming(4);
	EXPECT_EQ(file.Write(nullptr, 5000), 904u);
	EXPECT_EQ(file.FinishStreaming(), 0u); // as ever: what was lost stands beside it
	EXPECT_EQ(file.GetLostBytes(), 500u);  // of the 904 in the second block
	EXPECT_EQ(written().size(), 4500u);
	file.Close();

	CstmCharStringSet set;
	set.Add("text");
	const std::string old = written();
	EXPECT_EQ(set.SaveToFile(mName), 0x10000000); // beside the old one, which stays
	EXPECT_TRUE(written() == old &&
	            std::distance(std::filesystem::directory_iterator(mPath.substr(0, mPath.size() - 5)), {}) == 1);
	mFaulty.makeReadOnly(mPath);
	EXPECT_EQ(set.LoadFromFile(mName), 0x10000000);
}

TEST_F(FileFaults, AFullRingRefusesAndNothingQueuedIsLost) {
	mFaulty.holdWrites(true);
	CstFile file;
	file.Create(mName, 0x40000000, 1);
	file.PrepareForStreaming(4, 3, 2);
	const std::string a(4096, 'a'), b(4096, 'b'), c(4096, 'c');
	EXPECT_EQ(file.Write(a.data(), 4096), 0u); // fits exactly: nothing went to the next buffer
	mFaulty.waitForHeldWrite();
	EXPECT_EQ(file.Write(b.data(), 4096), 0u);
	EXPECT_EQ(file.Write(c.data(), 4096), 0u); // queued; the next buffer is with the writer
	EXPECT_EQ(file.Write("x", 1), 0u);
	EXPECT_EQ(file.FlushBuffer(&file.GetStreamInfo()->mBuffers[1]), 0u); // left to the writer
	mFaulty.holdWrites(false);
	EXPECT_EQ(file.FinishStreaming(), 0u);
	file.Close();
	EXPECT_TRUE(written() == a + b + c);
}

TEST_F(FileFaults, AWriterThatDoesNotComeBackFinishesAlone) {
	mFaulty.holdWrites(true);
	base::streamStopBudgetMs = 50;
	{
		CstFile file;
		file.Create(mName, 0x40000000, 0);
		file.PrepareForWriteStreaming(4);
		EXPECT_EQ(file.Write(nullptr, 5000), 904u);
		mFaulty.waitForHeldWrite();
		EXPECT_EQ(file.FinishStreaming(), 0u);
		EXPECT_EQ(file.GetLostBytes(), 5000u); // as far as this file can know
		EXPECT_FALSE(file.IsOpen());
	}
	EXPECT_EQ(mFaulty.openFiles(), 1);
	mFaulty.holdWrites(false);
	while (mFaulty.openFiles() != 0) std::this_thread::yield();
	EXPECT_TRUE(written() == std::string(8192, '\0'));
	base::streamStopBudgetMs = 10030;
}
