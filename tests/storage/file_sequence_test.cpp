#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <qor/storage/file_sequence.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr int kFailure = 0x10000000;

/// Tables have Windows separators; the texts the library builds have the system's.
std::string native(std::string text) {
	std::replace(text.begin(), text.end(), '\\', static_cast<char>(std::filesystem::path::preferred_separator));
	return text;
}

std::string nameOf(const CqorFileSeq& sequence, uint32_t number) {
	char name[CqorFileSeq::kNameSize] = "old";
	return sequence.FillNameByIndexNum(name, number) == 0 ? name : std::string("none") + name; // which is empty
}

struct FileSequence : testing::Test {
	void write(const std::string& name) { test_support::writeFile(folder.path(name), name); }
	bool create(const std::string& name) { return sequence.CreateFromFilePath(folder.path(name).c_str()) == 0; }
	bool parse(const std::string& path) { return CqorFileSeq::ParseByFilePath(&parts, path.c_str()) == 0; }
	test_support::TempFolder folder;
	CqorFileSeq sequence, copy;
	CqorFileSeqList list;
	eqorFILESEQ_FILEATTR parts;
};

} // namespace

TEST_F(FileSequence, DividesPaths) {
	const std::pair<const char*, const char*> cases[] = {{"C:\\img\\cam_0012.bmp", "C:\\img\\|cam_|0012|bmp|12"},
	    {"C:/i\\s/c12.b", "C:/i\\s/|c|12|b|12"}, {"0007.b", ".\\||0007|b|0"}, {".\\0007.b", ".\\||0007|b|7"},
	    {"\\c5.b", "\\|c|5|b|5"}, {"/5.b", "\\||5|b|5"}, {"a\\c.b", "a\\|c||b|0"}, {"a\\x1.y2.z", "a\\|x1.y|2|z|2"},
	    {"a\\x3.", "a\\|x|3||3"}, {"f12", ".\\|f12|||0"}, {"\\f12", "\\|f12|||0"}, {"", ".\\||||0"},
	    {".b", ".\\|.b|||0"}, {"a\\.b", "a\\|||b|0"}, {"\\a.b/f12", "\\|a||b/f12|0"}, {"..\\f12", ".\\|.||\\f12|0"},
	    {"x2147483647.b", ".\\|x|2147483647|b|2147483647"}, {"x4294967297.b", ".\\|x|4294967297|b|2147483647"}};
	for (const auto& [path, expected] : cases) {
		std::string found = parse(native(path)) ? parts.mFolder : "refused";
		for (const char* part : {parts.mBaseName, parts.mNumberText, parts.mExtension}) (found += '|') += part;
		EXPECT_EQ(found + "|" + std::to_string(parts.mNumber), native(expected)) << path;
	}
}

TEST_F(FileSequence, RefusesWhatDoesNotFit) {
	const std::string f(254, 'f'), b(127, 'b'), d(31, '7'), e(31, 'e'), fits = f + "/" + b + d + "." + e;
	for (const std::string& path : {f + "fffff/x", b + "b1.b", "x." + e + "e", "x" + d + "0.b"}) {
		EXPECT_EQ(CqorFileSeq::ParseByFilePath(&parts, path.c_str()), kFailure) << path;
		EXPECT_FALSE(parts.mFolder[0] || parts.mBaseName[0] || parts.mExtension[0] || parts.mNumberText[0]) << path;
	}
	EXPECT_EQ(CqorFileSeq::ParseByFilePath(nullptr, "x") & CqorFileSeq::ParseByFilePath(&parts, nullptr), kFailure);
	EXPECT_TRUE(parse("f" + fits) && !sequence.AddItem(&parts, 0)) << "a sequence's folder is shorter";
	EXPECT_TRUE(parse(fits) && sequence.AddItem(&parts, 0) && nameOf(sequence, 2147483647) == fits);
	std::memset(&parts, 'x', sizeof parts); // fields without an end
	EXPECT_TRUE(sequence.BelongsToThis(&parts) == 0 && !sequence.AddItem(&parts, 0));
}

TEST_F(FileSequence, FindsTheFilesOfAFolder) {
	std::filesystem::create_directory(folder.path("sub"));
	for (const char* name : {"c_0002.b", "C_0010.B", "c_01.b", "c_1.b", "c_3.c", "x.b", "read", "sub/c_6.b"})
		write(name);
	write(std::string(32, '9') + ".b");
	EXPECT_TRUE(create("read") && nameOf(sequence, 0) == folder.path("read.")) << "the form has a point";
	ASSERT_TRUE(create("c_77.b") && copy.Copy(sequence) == 0) << "the file itself may be missing";
	EXPECT_TRUE(!create("none/c_1.b") && sequence.GetCount() == 0);
	EXPECT_TRUE(copy.GetItem(3) && !copy.GetItem(4) && !copy.GetItem(-1) && copy.GetUnfitCount() == 1);
	EXPECT_TRUE(copy.GetItem(0) == copy.GetItemByIndexNum(10) && copy.GetItem(0)->mValue == 8) << "ordered by name";
	for (const auto& [number, name] : {std::pair(1u, "c_01.b"), {2u, "c_0002.b"}, {10u, "C_0010.B"}})
		EXPECT_EQ(nameOf(copy, number), folder.path(name)) << "as the first file of the number has it";
	std::string names;
	char path[CqorFileSeq::kNameSize];
	for (int i = -1; i < 5; ++i)
		names += copy.FillNameByIndex(path, sizeof path, i) == 0 ? std::filesystem::path(path).filename().string() + "|"
		                                                         : "-";
	EXPECT_EQ(names, "-C_0010.B|c_0002.b|c_01.b|c_1.b|-") << "two files of one number have names, too";
	EXPECT_TRUE(
	    copy.FillNameByIndex(path, 4, 0) == kFailure && !path[0] && copy.FillNameByIndex(nullptr, 4, 0) == kFailure);
	std::string name(folder.path("c_01.b").size() + 1, 'x');
	EXPECT_TRUE(copy.FillNameByIndexNum(name.data(), name.size() - 1, 1) == kFailure && !name[0]);
	EXPECT_TRUE(copy.FillNameByIndexNum(name.data(), name.size(), 1) == 0 && nameOf(copy, 3) == "none");
	for (const auto& [file, belongs] : {std::pair("C_5.B", 1), {"c_5.txt", 1}, {"c5.b", 0}, {"s/c_5.b", 0}})
		EXPECT_TRUE(parse(folder.path(file)) && copy.BelongsToThis(&parts) == belongs) << file;

	ASSERT_TRUE(list.CreateFromFolder(folder.path("").c_str(), "B", 1) == 0 && list.GetCount() == 3);
	EXPECT_TRUE(nameOf(*list.Get(0), 1) == folder.path("c_01.b") && nameOf(*list.Get(1), 0) == folder.path("x.b"));
	EXPECT_TRUE(nameOf(*list.Get(2), 6) == native(folder.path("sub\\c_6.b")) && list.GetUnfitCount() == 1);
	EXPECT_TRUE(list.CreateFromFolder(folder.path().c_str(), nullptr, 1) == kFailure && list.GetCount() == 0);
}

TEST_F(FileSequence, LooksAtTheFirst1024Files) {
	for (int i = 10000; i < 11024; ++i) write("b" + std::to_string(i) + ".b");
	EXPECT_TRUE(create("b5.b") && sequence.GetCount() == 1024 && !sequence.HasMoreFiles());
	for (const char* name : {"a1.b", "c1.b"}) write(name);
	EXPECT_TRUE(create("b5.b") && sequence.GetCount() == 1023 && sequence.HasMoreFiles());
	EXPECT_TRUE(sequence.GetItemByIndexNum(11022) && !sequence.GetItemByIndexNum(11023));
}
