#include "qor/platform/file.h"
#include "qor/platform/machine.h"
#include "qor/platform/profile.h"
#include "support/faulty_file_system.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using test_support::readFile;
using test_support::TempFolder;
using test_support::writeFile;

constexpr const char* kFile =
    "before=1\r\n"
    "; comment\r\n"
    "[MAIN]\r\n"
    "  Padded  =  some text  \r\n"
    "quoted=\" kept \"\r\nsingle='s q'\r\nhalf=\"un\r\nmixed='x\"\r\nnothing=\"\"\r\nempty=\r\n"
    "inner=\"a\"b\"\r\nequals=a=b\r\ntail=2 ; tail\r\n#hash=3\r\nno value\r\n"
    "hex=0x1F\r\nminus=-12x\r\nplus=+7\r\nlarge=4294967295\r\nword=none\r\nzeros=0010\r\n"
    "number=\"12\"\r\ntwice=1\r\ntwice=2\r\n;off=5\r\n"
    "\r\n"
    " [ spaced ] \r\ny=3\r\n"
    "[other]behind\r\nx=1\r\n"
    "[main]\r\nsecond=9\r\n"
    "[last]\r\nz=last";

std::string getString(const char* section, const char* key, const char* fallback, const std::string& path) {
	char out[64];
	const uint32_t length = profileGetString(section, key, fallback, out, sizeof out, path.c_str());
	EXPECT_EQ(out[length], 0);
	return std::string(out, length);
}

/// The lines without their ends; blank ones left out.
std::string lines(const std::string& path) {
	std::string text = readFile(path);
	text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
	for (size_t at; (at = text.find("\n\n")) != text.npos;) text.erase(at, 1);
	return text;
}

TEST(Profile, Reads) {
	TempFolder folder;
	const std::string path = folder.path("test.ini");
	writeFile(path, kFile);
	static constexpr struct {
		const char* section;
		const char* key;
		const char* text; // with the fallback " def "
		int number;       // with the fallback 77
	} cases[] = {{"MAIN", "Padded", "some text", 0}, {"main", "PADDED", "some text", 0},
	    {"main", " padded ", "some text", 0}, {"main", "quoted", " kept ", 0}, {"main", "single", "s q", 0},
	    {"main", "half", "\"un", 0}, {"main", "mixed", "'x\"", 0}, {"main", "nothing", "", 77},
	    {"main", "empty", "", 77}, {"main", "inner", "a\"b", 0}, {"main", "equals", "a=b", 0},
	    {"main", "tail", "2 ; tail", 2}, {"main", "#hash", "3", 3}, {"main", "no value", " def", 77},
	    {"main", "hex", "0x1F", 31}, {"main", "minus", "-12x", -12}, {"main", "plus", "+7", 7},
	    {"main", "large", "4294967295", -1}, {"main", "word", "none", 0}, {"main", "zeros", "0010", 10},
	    {"main", "number", "12", 12}, {"main", "twice", "1", 1}, {"main", "off", " def", 77},
	    {"main", "missing", " def", 77}, {"main", "second", " def", 77}, {"main", "before", " def", 77},
	    {"spaced", "y", "3", 3}, {"other", "x", "1", 1}, {"none", "x", " def", 77}, {"last", "z", "last", 0},
	    {nullptr, "x", " def", 77}, {"other", nullptr, " def", 77}};
	for (const auto& c : cases) {
		EXPECT_EQ(getString(c.section, c.key, " def ", path), c.text) << c.key;
		EXPECT_EQ(profileGetInt(c.section, c.key, 77, path.c_str()), c.number) << c.key;
	}
	EXPECT_EQ(getString("main", "missing", nullptr, path), "");
	for (const std::string& none : {folder.path("none.ini"), std::string(), folder.path("no/none.ini")}) {
		EXPECT_EQ(getString("main", "key", "def", none), "def");
		EXPECT_EQ(profileGetInt("main", "key", -5, none.c_str()), -5);
	}
	EXPECT_EQ(profileGetInt("main", "key", 6, nullptr), 6);
}

TEST(Profile, CutsToTheSize) {
	TempFolder folder;
	const std::string path = folder.path("test.ini");
	writeFile(path, kFile);
	for (const auto& [size, expected] : {std::pair{1u, ""}, {2u, "s"}, {5u, "some"}, {10u, "some text"}}) {
		char out[16] = "###############";
		EXPECT_EQ(profileGetString("main", "padded", "", out, size, path.c_str()), std::string(expected).size());
		EXPECT_STREQ(out, expected);
		EXPECT_EQ(out[size], '#');
		EXPECT_EQ(profileGetString("main", "none", "some text", out, size, path.c_str()), std::string(expected).size());
	}
	char out = '#';
	EXPECT_EQ(profileGetString("main", "padded", "", &out, 0, path.c_str()), 0u);
	EXPECT_EQ(out, '#');
}

TEST(Profile, Writes) {
	TempFolder folder;
	const std::string path = folder.path("test.ini");
	const char* start = "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n";
	static constexpr struct {
		const char* name;
		const char* section;
		const char* key;
		const char* value;
		const char* expected;
	} cases[] = {{"change", "one", "A", "new", "; top\n[One]\na=new\n; note\nb=2\n[Two]\nc=3\n"},
	    {"key added at the section's end", "ONE", "d", "4", "; top\n[One]\na=1\n; note\nb=2\nd=4\n[Two]\nc=3\n"},
	    {"key added at the file's end", "two", "d", "\"q\"", "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\nd=\"q\"\n"},
	    {"section added", "Three", "d", "", "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n[Three]\nd=\n"},
	    {"key removed", "one", "a", nullptr, "; top\n[One]\n; note\nb=2\n[Two]\nc=3\n"},
	    {"section removed", "one", nullptr, nullptr, "; top\n[Two]\nc=3\n"},
	    {"last section removed", "two", nullptr, "x", "; top\n[One]\na=1\n; note\nb=2\n"},
	    {"missing key removed", "one", "zz", nullptr, "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n"},
	    {"missing section removed", "zz", nullptr, nullptr, "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n"}};
	for (const auto& c : cases) {
		writeFile(path, start);
		EXPECT_EQ(profileWriteString(c.section, c.key, c.value, path.c_str()), 1) << c.name;
		EXPECT_EQ(lines(path), c.expected) << c.name;
	}
	EXPECT_EQ(profileWriteString("two", "blanks", " \t b  ", path.c_str()), 1);
	EXPECT_EQ(getString("two", "blanks", "", path), "b");
}

TEST(Profile, MakesFilesAndRefuses) {
	TempFolder folder;
	const std::string path = folder.path("new.ini");
	EXPECT_EQ(profileWriteString("s", "k", "v", path.c_str()), 1);
	EXPECT_EQ(lines(path), "[s]\nk=v\n");
	EXPECT_EQ(readFile(path).find("[s]\r\nk=v\r\n"), 0u);
	static constexpr struct {
		const char* section;
		const char* key;
		const char* value;
	} breaks[] = {{"s", "k", "v\n[x]\ny=1"}, {"s", "k\r", "v"}, {"s\n", "k", "v"}, {nullptr, "k", "v"}};
	for (const auto& b : breaks) EXPECT_EQ(profileWriteString(b.section, b.key, b.value, path.c_str()), 0);
	EXPECT_EQ(lines(path), "[s]\nk=v\n");
	EXPECT_EQ(profileWriteString("s", "k", "v", (folder.path("no") + "/new.ini").c_str()), 0);
	EXPECT_EQ(profileWriteString("s", "k", "v", nullptr), 0);
	EXPECT_EQ(profileWriteString("s", "k", "v", ""), 0);
}

TEST(Profile, RelativePathsStandInTheCurrentDirectory) {
	TempFolder folder;
	const auto before = std::filesystem::current_path();
	std::filesystem::current_path(folder.path());
	EXPECT_EQ(profileWriteString("s", "k", "5", "relative.ini"), 1);
	EXPECT_EQ(profileGetInt("s", "k", 0, "relative.ini"), 5);
	std::filesystem::current_path(before);
	EXPECT_EQ(profileGetInt("s", "k", 0, folder.path("relative.ini").c_str()), 5);
}

TEST(Profile, AFailedWriteLeavesTheOldFile) {
	using Call = test_support::FaultyFileSystem::Call;
	TempFolder folder;
	const std::string path = folder.path("test.ini");
	writeFile(path, "[s]\r\nk=old\r\n");
	test_support::FaultyFileSystem faulty;
	profileGetInt("s", "k", 0, path.c_str());
	if (faulty.calls(Call::open) == 0) GTEST_SKIP() << "the system reads these files itself here";
	for (const auto& [call, nth] : {std::pair{Call::open, 1}, {Call::open, 2}, {Call::size, 1}, {Call::read, 1},
	         {Call::write, 1}, {Call::replace, 1}}) {
		faulty.fail(call, nth);
		EXPECT_EQ(profileWriteString("s", "k", "new", path.c_str()), 0) << static_cast<int>(call) << nth;
		EXPECT_EQ(readFile(path), "[s]\r\nk=old\r\n");
		faulty.reset();
	}
	EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1); // no draft is left
	EXPECT_EQ(profileWriteString("s", "k", "new", path.c_str()), 1);
	EXPECT_EQ(readFile(path), "[s]\r\nk=new\r\n");
}

} // namespace
