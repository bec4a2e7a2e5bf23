#include "support/temp_folder.h"

#include <qor/base/file.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>
#include <vector>

namespace {

std::vector<unsigned long> events; // codes and their numbers, of the caller's thread

unsigned long record(CstFile*, unsigned long code, unsigned long, unsigned long a, void*) {
	if (code != 10 && code != 11) events.insert(events.end(), {code, a});
	return 0;
}

struct FileTest : testing::Test {
	std::string written() const { return test_support::readFile(mPath); }
	test_support::TempFolder mFolder;
	const std::string mPath = mFolder.path("file");
	const char* mName = mPath.c_str();
	CstFile mFile;
};

} // namespace

TEST_F(FileTest, WritesSeeksAndReadsSystemFiles) {
	char text[16] = {};
	ASSERT_EQ(mFile.Create(mName, 0xC0000000, 0), 0u);
	EXPECT_TRUE(mFile.IsOpen() && mFile.IsOSFile() && !mFile.IsMemFile() && !mFile.IsDiskFile());
	EXPECT_EQ(mFile.WriteTextLine("%s %d", "frame", 12), 10u);
	EXPECT_EQ(mFile.Seek64(-4, 2), 6);
	EXPECT_EQ(mFile.Read(text, 16), 4u);
	EXPECT_STREQ(text, "12\r\n");
	EXPECT_EQ(mFile.Seek(0x40000000, 0), 0x40000000u);
	EXPECT_EQ(mFile.GetCurrentPos64(), 0x40000000);
	EXPECT_EQ(mFile.Seek64(-1, 0) + mFile.Seek64(0, 7), 0); // refused
	EXPECT_EQ(mFile.GetSize(), 10u);
	mFile.Close();
	EXPECT_EQ(mFile.Write("x", 1) + mFile.Read(text, 1) + mFile.Seek(1, 0) + mFile.GetSize(), 0u);
}

TEST_F(FileTest, FailedOpensLeaveNothingOpen) {
	for (const unsigned long disposition : {0, 3, 5, 6}) // 3 and 5 need a file
		EXPECT_EQ(mFile.Open(mName, disposition, 0xC0000000, 3), 0x10000000u) << disposition;
	EXPECT_EQ(mFile.OpenReadOnly(nullptr) & mFile.OpenReadOnly(""), 0x10000000u);
	EXPECT_TRUE(mFile.OpenFromMemory(nullptr, 4) == 0x100003E9 && !mFile.IsOpen());
	test_support::writeFile(mPath, "disk");
	EXPECT_TRUE(mFile.OpenDisk(mName) == 0 && mFile.IsDiskFile());
	EXPECT_TRUE(mFile.OpenReadOnly(mName) == 0 && !mFile.IsDiskFile() && mFile.Write("x", 1) == 0);
}

TEST_F(FileTest, MemoryFilesGrowHeapBlocks) {
	char text[16] = {};
	ASSERT_EQ(mFile.OpenFromMemory(std::malloc(4), 4), 0u);
	EXPECT_EQ(mFile.Write("0123456789", 10), 10u);
	EXPECT_TRUE(mFile.Seek(0, 2) == 10 && mFile.Read(text, 1) == 0);
	mFile.Seek(7, 0);
	EXPECT_EQ(mFile.Read(nullptr, 2) + mFile.Read(text, 16), 3u); // a skip first
	EXPECT_STREQ(text, "9");
	EXPECT_EQ(mFile.Seek64(-5, 0), -5);
	EXPECT_EQ(mFile.GetCurrentPos(), 0xFFFFFFFBu);
	EXPECT_EQ(mFile.Write("x", 1) + mFile.Read(text, 1), 0u);
	std::free(mFile.GetMemoryBlock());
}

TEST_F(FileTest, TextIsCutWithItsLineEndKept) {
	const std::string longText(2000, 'x');
	mFile.Create(mName, 0x40000000, 3);
	EXPECT_EQ(mFile.WriteText("%s", longText.c_str()), 1023u);
	EXPECT_EQ(mFile.WriteTextLine("%s", longText.c_str()), 1023u);
	EXPECT_EQ(mFile.WriteTextLine(L"%d", 5), 6u);
	mFile.Close();
	EXPECT_EQ(written().substr(2043), std::string("x\r\n5\0\r\0\n\0", 9));
}

TEST_F(FileTest, ReportsEveryOperation) {
	char block[8], text[2];
	events.clear();
	mFile.SetCallBack(&record);
	mFile.Open("", 3, 0x80000000, 3);
	mFile.OpenFromMemory(block, 8);
	mFile.Write("abc", 3);
	mFile.Read(text, 2);
	mFile.PrepareForStreaming(1, 2, 2);
	mFile.Close();
	mFile.Close(); // nothing to report
	EXPECT_EQ(events, (std::vector<unsigned long>{4096, 1, 1, 0, 5, 0, 3, 3, 4, 2, 6, 0, 7, 0, 8, 0, 9, 0, 2, 0}));
}

TEST_F(FileTest, CrossingWriteAnswersWithThePartInTheNextBuffer) {
	const std::string a(4000, 'a'), b(200, 'b');
	char text[4];
	mFile.Create(mName, 0xC0000000, 3);
	ASSERT_EQ(mFile.PrepareForWriteStreaming(1), 0u);
	EXPECT_EQ(mFile.Write(a.data(), 4000), 4000u);
	EXPECT_EQ(mFile.Write(b.data(), 200), 104u);
	EXPECT_EQ(mFile.Read(text, 4), 0u);
	EXPECT_EQ(mFile.FinishStreaming(), 0u);
	EXPECT_EQ(mFile.GetSize(), 8192u); // whole blocks
	EXPECT_EQ(written().substr(0, 4200), a + b);
}

TEST_F(FileTest, ReadStreamingOnlyPreparesBuffers) {
	mFile.Create(mName, 0xC0000000, 3);
	ASSERT_EQ(mFile.PrepareForStreaming(5, 3, 1), 0u);
	EXPECT_TRUE(mFile.Write("x", 1) == 0 && !mFile.FlushToNextBuffer());
	auto& buffer = mFile.GetStreamInfo()->mBuffers[2];
	buffer.mFree = 8000;
	EXPECT_EQ(mFile.FlushBuffer(&buffer), 0u);
	EXPECT_EQ(mFile.GetSize(), 4096u);
	EXPECT_EQ(buffer.mFree, 8192u);
	estFILE_STREAM_BUFFER foreign;
	EXPECT_EQ(mFile.FlushBuffer(nullptr) & mFile.FlushBuffer(&foreign) & mFile.ResetBuffer(&foreign), 0x10000000u);
}

TEST_F(FileTest, RefusesRingsThatCannotBe) {
	constexpr unsigned long sizes[][2] = {{0, 2}, {4, 0}, {0xFFFFFFFF, 2}, {4194304, 1}, {4, 0xFFFFFFFF}};
	for (const auto& [kib, count] : sizes) EXPECT_EQ(mFile.PrepareForStreaming(kib, count, 2), 0x100003EAu);
}

TEST_F(FileTest, StreamsEveryByteInOrder) {
	mFile.Create(mName, 0x40000000, 3);
	mFile.SetWriteStreamPackSize(5000);
	ASSERT_EQ(mFile.PrepareForStreaming(16, 4, 2), 0u);
	const auto* stream = mFile.GetStreamInfo();
	std::string expected;
	for (unsigned i = 0; i < 4000; ++i) {
		const std::string chunk(i * 7 % 1500, static_cast<char>('a' + i % 26));
		const auto& next = stream->mBuffers[(stream->mCurrentIndex + 1) % 4];
		while (next.mQueued != 0 || next.mBusy != 0) std::this_thread::yield();
		const auto n = static_cast<unsigned long>(chunk.size());
		const unsigned long room = stream->mCurrent->mFree;
		EXPECT_EQ(mFile.Write(chunk.data(), n), n < room ? n : n - room);
		expected += chunk;
	}
	EXPECT_EQ(mFile.FinishStreaming(), 0u);
	const auto all = written();
	EXPECT_EQ(all.size(), (expected.size() + 4095) / 4096 * 4096);
	EXPECT_TRUE(all.compare(0, expected.size(), expected) == 0);
}
