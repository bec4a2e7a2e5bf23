#include "qor/platform/folder.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;
using test_support::TempFolder;
using test_support::writeFile;

TEST(Folder, NameParts) {
	for (const auto& [path, name] : std::initializer_list<std::pair<const char*, const char*>>{
	         {"a/b\\c.txt", "c.txt"}, {"a\\b/c.txt", "c.txt"}, {"plain", "plain"}, {"a/", ""}, {"", ""}, {nullptr, ""}})
		EXPECT_STREQ(fileNamePart(path), name);
	EXPECT_TRUE(isPathSeparator('/') && isPathSeparator('\\') && isPathSeparator(kPathSeparator));
	EXPECT_FALSE(isPathSeparator(':') || isPathSeparator(0));
}

TEST(Folder, ListFiles) {
	TempFolder folder;
	const std::string start = folder.path(""), sub = start + "sub.raw" + kPathSeparator;
	ASSERT_TRUE(makeFolders((sub + "a").c_str()));
	for (const char* name :
	    {"b.raw", "a.RAW", "c.rawx", "d.x.raw", "raw", "e.raw.txt", "sub.raw/a/deep.raw", "sub.raw/low.raw"})
		writeFile(folder.path(name), name);
	using Files = std::vector<std::string>;
	Files expected = {start + "a.RAW", start + "b.raw", start + "d.x.raw"};
	std::vector<FoundFile> found;
	const auto list = [&](const char* extension, bool recursive, size_t maximum) {
		Files files;
		EXPECT_TRUE(listFiles(folder.path().c_str(), extension, recursive, maximum, &found));
		for (const auto& file : found) files.push_back(file.path);
		return files;
	};
	EXPECT_EQ(list("raw", false, 100), expected);
	EXPECT_EQ(list("RAW", false, 2), Files(expected.begin(), expected.begin() + 2)) << "a cut list has the first names";
	EXPECT_EQ(list("", false, 100), Files{start + "raw"});
	EXPECT_EQ(found.at(0).size, 3u) << "of what was written into it";
	expected.push_back(sub + "low.raw");
	EXPECT_EQ(list("Raw", true, 4), expected);
	expected.push_back(sub + "a" + kPathSeparator + "deep.raw");
	EXPECT_EQ(list("raw", true, 100), expected);
	EXPECT_TRUE(listFiles(start.c_str(), "txt", false, 9, &found) && found.at(0).path == start + "e.raw.txt");
	for (const auto& none : {folder.path("none"), folder.path("b.raw"), std::string()})
		EXPECT_FALSE(listFiles(none.c_str(), "raw", true, 9, &found) || !found.empty()) << none;
	EXPECT_FALSE(listFiles(nullptr, "raw", true, 9, &found));
}

TEST(Folder, LinksDoNotLeadInCircles) {
	TempFolder folder;
	std::error_code refused;
	std::filesystem::create_directory_symlink(folder.path(), folder.path("circle"), refused);
	if (refused) GTEST_SKIP() << "no links to folders here: " << refused.message();
	writeFile(folder.path("one.raw"), "x");
	std::vector<FoundFile> found;
	EXPECT_TRUE(listFiles(folder.path().c_str(), "raw", true, 100, &found) && found.size() == 1);
}

TEST(Folder, MakeFolders) {
	TempFolder folder;
	for (const char* deep : {"a/b\\c", "a/b\\c", "a/b\\c/d/"}) EXPECT_TRUE(makeFolders(folder.path(deep).c_str()));
	EXPECT_TRUE(std::filesystem::is_directory(folder.path("a/b/c/d")));
	writeFile(folder.path("file"), "x");
	for (const char* below : {"file", "file/below"}) EXPECT_FALSE(makeFolders(folder.path(below).c_str()));
	EXPECT_FALSE(makeFolders(nullptr) || makeFolders(""));
}

TEST(Folder, FullPath) {
	TempFolder folder;
	const std::string base = folder.path("");
	const std::string current = std::filesystem::current_path().string() + kPathSeparator;
	const std::pair<std::string, std::string> cases[] = {{base + "x", base + "x"}, {base + "a/../x", base + "x"},
	    {base + ".\\x", base + "x"}, {base + "x\\", base + "x" + kPathSeparator}, {base + "none/..", folder.path()},
	    {"\\\\.\\PhysicalDrive1", "\\\\.\\PhysicalDrive1"}, {"name", current + "name"}, {"", ""}};
	for (const auto& [path, full] : cases) EXPECT_EQ(fullPath(path.c_str()), full);
	EXPECT_EQ(fullPath(nullptr), "");
	if (kPathSeparator == '\\') return; // where a link does not change what ".." means
	std::filesystem::create_directories(folder.path("far/inner"));
	std::filesystem::create_symlink("far/inner", folder.path("link"));
	test_support::writeFile(folder.path("far/x"), "");
	EXPECT_EQ(fullPath((base + "link/../x").c_str()), base + "link/../x");
}

} // namespace
