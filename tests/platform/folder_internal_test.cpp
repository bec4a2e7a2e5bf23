#include "qor/platform/folder.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using test_support::TempFolder;
using test_support::writeFile;

TEST(Folder, NameParts) {
	static constexpr struct {
		const char* path;
		const char* name;
	} cases[] = {
	    {"a/b\\c.txt", "c.txt"}, {"a\\b/c.txt", "c.txt"}, {"plain", "plain"}, {"a/", ""}, {"", ""}, {nullptr, ""}};
	for (const auto& c : cases) EXPECT_STREQ(fileNamePart(c.path), c.name);
	EXPECT_TRUE(isPathSeparator('/') && isPathSeparator('\\') && isPathSeparator(kPathSeparator));
	EXPECT_FALSE(isPathSeparator(':') || isPathSeparator(0));
}

TEST(Folder, ListFiles) {
	TempFolder folder;
	for (const char* name : {"b.raw", "a.RAW", "c.rawx", "d.x.raw", "raw", "e.raw.txt"})
		writeFile(folder.path(name), "x");
	ASSERT_TRUE(makeFolders((folder.path("sub.raw") + "/a").c_str()));
	writeFile(folder.path("sub.raw") + "/a/deep.raw", "x");
	writeFile(folder.path("sub.raw") + "/low.raw", "x");
	const std::string separator(1, kPathSeparator);
	const std::string start = folder.path() + separator;
	const std::string sub = start + "sub.raw" + separator;
	std::vector<std::string> expected = {start + "a.RAW", start + "b.raw", start + "d.x.raw"};
	const auto list = [&](const char* extension, bool recursive, size_t maximum) {
		auto files = listFiles(folder.path().c_str(), extension, recursive, maximum);
		// A system that lists in an order of its own still puts a folder before what is below it.
		if (files.size() >= 3 && kPathSeparator == '\\') std::sort(files.begin(), files.begin() + 3);
		return files;
	};
	EXPECT_EQ(list("raw", false, 100), expected);
	EXPECT_EQ(list("RAW", false, 2).size(), 2u);
	EXPECT_EQ(list("", false, 100), std::vector<std::string>{start + "raw"});
	EXPECT_EQ(list("none", true, 100), std::vector<std::string>{});
	expected.push_back(sub + "low.raw");
	EXPECT_EQ(list("Raw", true, 4), expected);
	expected.push_back(sub + "a" + separator + "deep.raw");
	EXPECT_EQ(list("raw", true, 100), expected);
	EXPECT_EQ(listFiles(start.c_str(), "txt", false, 9),
	    std::vector<std::string>{start + "e.raw.txt"}); // no second separator
	EXPECT_TRUE(listFiles(nullptr, "raw", true, 9).empty() && listFiles("", "raw", true, 9).empty());
	EXPECT_TRUE(listFiles(folder.path("none").c_str(), "raw", true, 9).empty());
}

TEST(Folder, LinksDoNotLeadInCircles) {
	TempFolder folder;
	std::error_code refused;
	std::filesystem::create_directory_symlink(folder.path(), folder.path("circle"), refused);
	if (refused) GTEST_SKIP() << "no links to folders here: " << refused.message();
	writeFile(folder.path("one.raw"), "x");
	EXPECT_EQ(listFiles(folder.path().c_str(), "raw", true, 100).size(), 1u);
}

TEST(Folder, MakeFolders) {
	TempFolder folder;
	const std::string deep = folder.path("a") + "/b\\c";
	EXPECT_TRUE(makeFolders(deep.c_str()));
	EXPECT_TRUE(std::filesystem::is_directory(folder.path("a/b/c")));
	EXPECT_TRUE(makeFolders(deep.c_str())); // it was there
	EXPECT_TRUE(makeFolders((deep + "/d/").c_str()));
	EXPECT_TRUE(std::filesystem::is_directory(folder.path("a/b/c/d")));
	writeFile(folder.path("file"), "x");
	EXPECT_FALSE(makeFolders(folder.path("file").c_str()));
	EXPECT_FALSE(makeFolders((folder.path("file") + "/below").c_str()));
	EXPECT_FALSE(makeFolders(nullptr) || makeFolders(""));
}

TEST(Folder, FullPath) {
	TempFolder folder;
	const std::string base = folder.path() + kPathSeparator;
	const struct {
		std::string path;
		std::string full;
	} cases[] = {{base + "x", base + "x"}, {base + "a/../x", base + "x"}, {base + ".\\x", base + "x"},
	    {base + "x\\", base + "x" + kPathSeparator}, {base + "none/..", folder.path()},
	    {"\\\\.\\PhysicalDrive1", "\\\\.\\PhysicalDrive1"}};
	for (const auto& c : cases) EXPECT_EQ(fullPath(c.path.c_str()), c.full);
	EXPECT_EQ(fullPath("name"), std::filesystem::current_path().string() + kPathSeparator + "name");
	EXPECT_EQ(fullPath(nullptr) + fullPath(""), "");
}

} // namespace
