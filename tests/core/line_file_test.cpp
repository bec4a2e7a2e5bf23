#include "core_test.h"
#include "qor/core/line_file.h"

namespace {

using namespace std::string_literals;

std::string linesOf(const CstqLineFile& file) {
	std::string all = std::to_string(file.mEncoding) + ":";
	for (int i = 0; i < file.GetCount(); ++i) all += file.mLines[i] + "|"s;
	return all;
}

TEST(LineFile, LineEndsAndEncodings) {
	const test_support::TempFolder folder;
	const auto path = folder.path("lines.txt");
	CstqLineFile file;
	const auto lines = [&](const std::string& contents) {
		file.Close();
		test_support::writeFile(path, contents);
		return file.OpenReadOnly(path.c_str()) == 0 ? linesOf(file) : "failed";
	};
	EXPECT_EQ(lines(""), "0:");
	EXPECT_EQ(lines("a\nb\rc\r\nd\n\re"), "0:a|b|c|d|e|");
	EXPECT_EQ(lines("\n\n\r\n\r\rx\r\n\r\n"), "0:||||x||");
	EXPECT_EQ(lines("a\0b\nc\n\0"s), "0:a|c||"); // zero bytes end nothing but their own line
	EXPECT_EQ(lines("\xFF\xFE\x41\0\r\0\n\0B\0\r\0\n\0"s), "1:A|B|");
	EXPECT_EQ(lines("\xFE\xFF\0A\0\n\0B"s), "2:A|B|");
	EXPECT_EQ(lines("\xFF\xFE\x41\x26\n"s), "1:A|"); // low bytes only; half a code unit is left out
	EXPECT_EQ(lines("\xFF\xFE"), "1:");
	EXPECT_EQ(lines(std::string(17 << 20, 'x') + "\ny").substr((17 << 20) + 2), "|y|"); // more than a piece
	EXPECT_NE(file.OpenReadOnly((path + ".none").c_str()), 0);
	EXPECT_TRUE(file.GetCount() == 0 && !file.IsOpen());
}

TEST(LineFile, TextsInMemory) {
	CstqLineFile file;
	EXPECT_EQ(file.OpenFromBuffer("a\r\nb", 0xFFFFFFFF), 2);
	EXPECT_EQ(file.OpenFromBuffer("a\nb\nc", 3), 2);
	EXPECT_EQ(file.OpenFromBuffer(file.mLines[1], 0xFFFFFFFF), 1); // a line of its own
	EXPECT_EQ(linesOf(file), "0:b|");
	EXPECT_EQ(file.OpenFromBuffer(nullptr, 3) & file.ProcessBuffer(nullptr), 0x10000000);
	char text[] = "x\ny";
	EXPECT_EQ(file.ProcessBuffer(text), 2);
	EXPECT_EQ(file.mLines[1], text + 2);
}

} // namespace
