#include "qor/platform/file.h"
#include "qor/platform/profile.h"
#include "support/faulty_file_system.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using test_support::readFile;
using test_support::writeFile;

constexpr const char* kFile =
    "before=1\r\n; comment\r\n[MAIN]\r\n  Padded  =  some text  \r\n"
    "quoted=\" kept \"\r\nsingle='s q'\r\nhalf=\"un\r\nmixed='x\"\r\nnothing=\"\"\r\nempty=\r\n"
    "inner=\"a\"b\"\r\nequals=a=b\r\ntail=2 ; tail\r\n#hash=3\r\nno value\r\n"
    "hex=0x1F\r\nminus=-12x\r\nplus=+7\r\nlarge=4294967295\r\nword=none\r\nzeros=0010\r\n"
    "number=\"12\"\r\ntwice=1\r\ntwice=2\r\n;off=5\r\n"
    "\r\n [ spaced ] \r\ny=3\r\n[other]behind\r\nx=1\r\n[main]\r\nsecond=9\r\n[last]\r\nz=last";

struct ProfileTest : testing::Test {
	int write(const char* section, const char* key, const char* value) {
		return profileWriteString(section, key, value, mPath.c_str());
	}
	std::string get(const char* section, const char* key, const char* fallback) {
		char out[64];
		const uint32_t length = profileGetString(section, key, fallback, out, sizeof out, mPath.c_str());
		EXPECT_EQ(out[length], 0);
		return std::string(out, length);
	}
	/// The lines without their ends; blank ones left out.
	std::string lines() {
		std::string text = readFile(mPath);
		text.erase(std::remove(text.begin(), text.end(), '\r'), text.end());
		for (size_t at; (at = text.find("\n\n")) != text.npos;) text.erase(at, 1);
		return text;
	}
	test_support::TempFolder mFolder;
	std::string mPath = mFolder.path("test.ini");
};

TEST_F(ProfileTest, Reads) {
	writeFile(mPath, kFile);
	// The text with the fallback " def ", the number with the fallback 77.
	static constexpr std::tuple<const char*, const char*, const char*, int> cases[] = {
	    {"MAIN", "Padded", "some text", 0}, {"main", "PADDED", "some text", 0}, {"main", " padded ", "some text", 0},
	    {"main", "quoted", " kept ", 0}, {"main", "single", "s q", 0}, {"main", "half", "\"un", 0},
	    {"main", "mixed", "'x\"", 0}, {"main", "nothing", "", 77}, {"main", "empty", "", 77},
	    {"main", "inner", "a\"b", 0}, {"main", "equals", "a=b", 0}, {"main", "tail", "2 ; tail", 2},
	    {"main", "#hash", "3", 3}, {"main", "no value", " def", 77}, {"main", "hex", "0x1F", 31},
	    {"main", "minus", "-12x", -12}, {"main", "plus", "+7", 7}, {"main", "large", "4294967295", -1},
	    {"main", "word", "none", 0}, {"main", "zeros", "0010", 10}, {"main", "number", "12", 12},
	    {"main", "twice", "1", 1}, {"main", "off", " def", 77}, {"main", "missing", " def", 77},
	    {"main", "second", " def", 77}, {"main", "before", " def", 77}, {"spaced", "y", "3", 3}, {"other", "x", "1", 1},
	    {"none", "x", " def", 77}, {"last", "z", "last", 0}, {nullptr, "x", " def", 77},
	    {"other", nullptr, " def", 77}};
	for (const auto& [section, key, text, number] : cases) {
		EXPECT_EQ(get(section, key, " def "), text) << key;
		EXPECT_EQ(profileGetInt(section, key, 77, mPath.c_str()), number) << key;
	}
	EXPECT_EQ(get("main", "missing", nullptr), "");
	for (const char* none : {"none.ini", "", "no/none.ini"}) {
		mPath = *none ? mFolder.path(none) : "";
		EXPECT_EQ(get("main", "key", "def"), "def");
		EXPECT_EQ(profileGetInt("main", "key", -5, mPath.c_str()), -5);
	}
	EXPECT_EQ(profileGetInt("main", "key", 6, nullptr), 6);
}

TEST_F(ProfileTest, CutsToTheSize) {
	writeFile(mPath, kFile);
	for (const char* key : {"padded", "none"}) {
		char out[] = "######";
		EXPECT_EQ(profileGetString("main", key, "some text", out, 5, mPath.c_str()), 4u);
		EXPECT_EQ(std::string(out, 6), std::string("some\0#", 6));
	}
}

TEST_F(ProfileTest, Writes) {
	using Text = const char*;
	static constexpr std::tuple<Text, Text, Text, Text, Text> cases[] = {
	    {"change", "one", "A", "new", "; top\n[One]\na=new\n; note\nb=2\n[Two]\nc=3\n"},
	    {"key added at the section's end", "ONE", "d", "4", "; top\n[One]\na=1\n; note\nb=2\nd=4\n[Two]\nc=3\n"},
	    {"key added at the file's end", "two", "d", "\"q\"", "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\nd=\"q\"\n"},
	    {"section added", "Three", "d", "", "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n[Three]\nd=\n"},
	    {"key removed", "one", "a", nullptr, "; top\n[One]\n; note\nb=2\n[Two]\nc=3\n"},
	    {"section removed", "one", nullptr, nullptr, "; top\n[Two]\nc=3\n"},
	    {"last section removed", "two", nullptr, "x", "; top\n[One]\na=1\n; note\nb=2\n"},
	    {"missing key removed", "one", "zz", nullptr, "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n"},
	    {"missing section removed", "zz", nullptr, nullptr, "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n"}};
	for (const auto& [name, section, key, value, expected] : cases) {
		writeFile(mPath, "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n");
		EXPECT_EQ(write(section, key, value), 1) << name;
		EXPECT_EQ(lines(), expected) << name;
	}
	EXPECT_EQ(write("two", "blanks", " \t b  "), 1);
	EXPECT_EQ(get("two", "blanks", ""), "b");
}

TEST_F(ProfileTest, MakesFilesAndRefuses) {
	EXPECT_EQ(write("s", "k", "v"), 1);
	EXPECT_EQ(readFile(mPath).find("[s]\r\nk=v\r\n"), 0u);
	EXPECT_EQ(write("s", "k", "v\n[x]\ny=1") + write("s", "k\r", "v") + write("s\n", "k", "v"), 0);
	EXPECT_EQ(write(nullptr, "k", "v"), 0);
	EXPECT_EQ(lines(), "[s]\nk=v\n");
	const std::string missing = mFolder.path("no") + "/new.ini";
	for (const char* path : {missing.c_str(), "", static_cast<const char*>(nullptr)})
		EXPECT_EQ(profileWriteString("s", "k", "v", path), 0);
}

TEST_F(ProfileTest, AFailedWriteLeavesTheOldFile) {
	using Call = test_support::FaultyFileSystem::Call;
	writeFile(mPath, "[s]\r\nk=old\r\n");
	test_support::FaultyFileSystem faulty;
	profileGetInt("s", "k", 0, mPath.c_str());
	if (faulty.calls(Call::open) == 0) GTEST_SKIP() << "the system reads these files itself here";
	for (const auto& [call, nth] : {std::pair{Call::open, 1}, {Call::open, 2}, {Call::size, 1}, {Call::read, 1},
	         {Call::write, 1}, {Call::replace, 1}}) {
		faulty.fail(call, nth);
		EXPECT_EQ(write("s", "k", "new"), 0) << static_cast<int>(call) << nth;
		EXPECT_EQ(readFile(mPath), "[s]\r\nk=old\r\n");
		faulty.reset();
	}
	EXPECT_EQ(std::distance(std::filesystem::directory_iterator(mFolder.path()), {}), 1); // no draft is left
	EXPECT_EQ(write("s", "k", "new"), 1);
	EXPECT_EQ(readFile(mPath), "[s]\r\nk=new\r\n");
}

} // namespace
