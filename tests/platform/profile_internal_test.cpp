#include "process_roles.h"
#include "qor/platform/file.h"
#include "qor/platform/folder.h"
#include "qor/platform/machine.h"
#include "qor/platform/profile.h"
#include "support/faulty_file_system.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

using namespace platform;
using test_support::readFile;
using test_support::writeFile;

constexpr const char* kFile =
    "before=1\r\n; comment\r\n[MAIN]\r\n  Padded  =  some text  \r\n"
    "quoted=\" kept \"\r\nsingle='s q'\r\nhalf=\"un\r\nmixed='x\"\r\nnothing=\"\"\r\nempty=\r\n"
    "inner=\"a\"b\"\r\nequals=a=b\r\ntail=2 ; tail\r\n#hash=3\r\nno value\r\n"
    "hex=0x1F\r\nminus=-12x\r\nplus=+7\r\nlarge=4294967295\r\nword=none\r\nzeros=0010\r\n"
    "number=\" 12\"\r\ntwice=1\r\ntwice=2\r\n;off=5\r\nhidden\r\nhidden=1\r\n"
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
	    {"main", "word", "none", 0}, {"main", "zeros", "0010", 10}, {"main", "number", " 12", 12},
	    {"main", "twice", "1", 1}, {"main", "off", " def", 77}, {"main", ";off", "5", 5},
	    {"main", "hidden", " def", 77}, {"main", "missing", " def", 77}, {"main", "second", " def", 77},
	    {"main", "before", " def", 77}, {"spaced", "y", "3", 3}, {"other", "x", "1", 1}, {"none", "x", " def", 77},
	    {"last", "z", "last", 0}, {nullptr, "x", " def", 77}, {"other", nullptr, " def", 77}};
	for (const auto& [section, key, text, number] : cases) {
		EXPECT_EQ(get(section, key, " def "), text) << key;
		EXPECT_EQ(profileGetInt(section, key, 77, mPath.c_str()), number) << key;
	}
	EXPECT_EQ(get("main", "missing", nullptr) + get("main", "missing", " "), " ");
	for (const char* none : {"none.ini", "", "no/none.ini"}) {
		mPath = *none ? mFolder.path(none) : "";
		EXPECT_EQ(get("main", "key", "def"), "def");
		EXPECT_EQ(profileGetInt("main", "key", -5, mPath.c_str()), -5);
	}
	EXPECT_EQ(profileGetInt("main", "key", 6, nullptr), 6);
}

/// The text in UTF-16; `text` has one character beyond 255, the euro sign, as "\x80".
std::string utf16(const std::string& text, bool big) {
	std::string bytes = big ? "\xFE\xFF" : "\xFF\xFE";
	for (const char c : text) {
		const char low = c == '\x80' ? '\xAC' : c, high = c == '\x80' ? '\x20' : '\0';
		bytes += big ? high : low;
		bytes += big ? low : high;
	}
	return bytes;
}

TEST_F(ProfileTest, KnowsEncodingsAndLineEnds) {
	const std::string text = "; top\r\n[One]\r\nalone\r\na=1\xE9\x80\r\n\r\n[Two]\r\nc=3\r\n";
	const auto ending = [&](const std::string& with) {
		std::string other = text;
		for (size_t at = 0; (at = other.find("\r\n", at)) != text.npos; at += with.size()) other.replace(at, 2, with);
		return other;
	};
	const std::string utf8 = "\xEF\xBB\xBF; top\n[One]\nalone\na=1\xC3\xA9\xE2\x82\xAC\n[Two]\nc=3";
	const std::pair<const char*, std::string> cases[] = {{"CR LF", text}, {"LF", ending("\n")}, {"CR", ending("\r")},
	    {"two CR", ending("\r\r")}, {"UTF-8", utf8}, {"UTF-16", utf16(text, false)},
	    {"UTF-16 with CR", utf16(ending("\r"), false)}, {"UTF-16, big", utf16(text, true)}};
	for (const auto& [name, bytes] : cases) {
		SCOPED_TRACE(name);
		writeFile(mPath, bytes);
		EXPECT_EQ(get("one", "A", "def") + get("two", "c", "def") + get("one", "alone", "def"), "1\xE9\x80"
		                                                                                        "3def");
		EXPECT_EQ(write("two", "c", "3"), 1);
		EXPECT_EQ(readFile(mPath), bytes); // nothing new
		EXPECT_EQ(write("two", "c", "\x80\xE9") + write("one", "alone", "4") + write("new", "k", "5"), 3);
		EXPECT_EQ(get("two", "c", "def") + get("one", "alone", "def") + get("new", "k", "def"), "\x80\xE9"
		                                                                                        "45");
		EXPECT_EQ(write("two", nullptr, nullptr) + write("new", nullptr, nullptr) + write("one", "alone", nullptr), 3);
		EXPECT_EQ(get("one", "a", "def") + get("two", "c", "def") + get("one", "alone", "def"), "1\xE9\x80"
		                                                                                        "defdef");
		const size_t kept = kPathSeparator == '/' ? 12 : 5; // some systems end all lines alike
		EXPECT_EQ(readFile(mPath).substr(0, kept), bytes.substr(0, kept));
	}
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
	mPath = mFolder.path("new.ini");
	faulty.fail(Call::write, 1);
	EXPECT_EQ(write("s", "k", "new"), 0);
	EXPECT_FALSE(std::filesystem::exists(mPath));
	mPath = mFolder.path("test.ini");
	EXPECT_EQ(write("s", "k", "new"), 1);
	EXPECT_EQ(readFile(mPath), "[s]\r\nk=new\r\n");
}

constexpr int kWriters = 4, kWrites = 30;

int playWriter(const std::string& path) {
	for (int i = 1; i <= kWrites; ++i) {
		const std::string key = "k" + std::to_string(processId()) + '_' + std::to_string(i);
		if (!profileWriteString("s", key.c_str(), "v", path.c_str())) return i;
	}
	return 0;
}
const test_support::RoleOf gWriter("ini-writer", playWriter);

TEST_F(ProfileTest, SeveralProcessesWriteAndReadersSeeEveryState) {
	if (kPathSeparator == '\\') GTEST_SKIP() << "the system writes these files itself here";
	write("s", "here", "yes");
	std::atomic<int> running{kWriters};
	std::vector<std::jthread> writers;
	for (int i = 0; i < kWriters; ++i) {
		writers.emplace_back([&] {
			EXPECT_EQ(test_support::runRole("ini-writer", mPath), 0);
			--running;
		});
	}
	int missing = 0;
	while (running > 0) missing += get("s", "here", "no") != "yes";
	EXPECT_EQ(missing, 0);
	const std::string text = readFile(mPath);
	EXPECT_EQ(std::count(text.begin(), text.end(), 'k'), kWriters * kWrites);
}

} // namespace
