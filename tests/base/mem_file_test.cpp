#include <qor/base/mem_file.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

TEST(MemFile, WritesSeeksAndReads) {
	CstMemFile file;
	EXPECT_EQ(file.Write("0123456789", 10), 10u);
	EXPECT_EQ(file.Seek(-4, 2), 6u);
	void* where = nullptr;
	EXPECT_EQ(file.Write("abcdefgh", 8, &where), 8u);
	EXPECT_EQ(where, file.GetPtrAtAbsolutePos(6));
	EXPECT_TRUE(file.Read(nullptr, 1) == 0 && !file.GetPtrAtAbsolutePos(14));
	file.Append(nullptr, 2);
	file.WriteAt("Z", 1, 999); // at the end
	char text[8] = {};
	EXPECT_EQ(file.ReadAt(text, 5, 13), 4u);
	EXPECT_EQ(std::memcmp(text, "h\0\0Z", 4), 0);
	file.Seek(12, 0);
	EXPECT_EQ(file.GetReadPtrAdv(6), nullptr);
	EXPECT_EQ(*static_cast<char*>(file.GetReadPtrAdv(1)), 'g');
	EXPECT_TRUE(file.ReadAt(text, 1, 18) == 0 && file.GetCurrentPos() == 17);
	for (int i = 0; i < 9; ++i) file.Append(file.GetBuffer(), file.GetSize()); // its own bytes move as it grows
	EXPECT_EQ(std::memcmp(file.GetPtrAtAbsolutePos(17 * 511), "012345abcdefgh", 14), 0);
}

TEST(MemFile, SeekLimits) {
	static constexpr std::tuple<long, long, unsigned long, unsigned long> cases[] = {{0, 200, 0, 100},
	    {0, -5, 0, 0xFFFFFFFB}, {10, -11, 1, 0}, {90, 11, 1, 100}, {-5, 3, 1, 0}, {0, -100, 2, 0}, {0, -101, 2, 0},
	    {0, 1, 2, 100}, {42, 5, 3, 42}};
	CstMemFile file;
	ASSERT_EQ(file.Create(100), 0);
	for (const auto& [start, offset, origin, expected] : cases) {
		file.Seek(start, 0);
		EXPECT_EQ(file.Seek(offset, origin), expected) << start << ' ' << offset << ' ' << origin;
	}
	char byte = 7;
	file.Seek(-5, 0); // nothing happens below 0
	EXPECT_TRUE(file.Write(&byte, 1) + file.Read(&byte, 1) == 0 && !file.GetReadPtrAdv(1));
	file.Seek(0, 2);
	EXPECT_EQ(file.Write(nullptr, 0x7FFFFFFF), 0u); // growth past 2 GiB
	EXPECT_EQ(file.GetSize(), 100u);
}

TEST(MemFile, TextIsCutWithItsLineEndKept) {
	const std::string longText(70000, 'x');
	CstMemFile file;
	EXPECT_EQ(file.WriteTextLine("%d", 7), 3u);
	EXPECT_EQ(file.WriteText(L"%s", L"w"), 2u);
	EXPECT_EQ(file.WriteTextLine(L"\xE9"), 6u);
	EXPECT_EQ(std::memcmp(file.GetBuffer(), "7\r\nw\0\xE9\0\r\0\n\0", 11), 0);
	EXPECT_EQ(file.WriteText("%s", longText.c_str()), 65535u);
	EXPECT_EQ(file.WriteTextLine("%s", longText.c_str()), 65535u);
	EXPECT_EQ(std::memcmp(file.GetPtrAtAbsolutePos(file.GetSize() - 3), "x\r\n", 3), 0);
}
