#include "process_roles.h"
#include "qor/platform/draft.h"
#include "qor/platform/folder.h"
#include "qor/platform/profile.h"
#include "qor/platform/thread.h"
#include "support/faulty_file_system.h"
#include "support/refused_allocations.h"
#include "support/temp_folder.h"
#include "wait_support.h"

#include <algorithm>
#include <atomic>
#include <thread>

/// Files that are written whole: drafts and initialisation files.
namespace {

using namespace platform;
using test_support::FaultyFileSystem;
using test_support::readFile;
using test_support::writeFile;
using Call = FaultyFileSystem::Call;
namespace fs = std::filesystem;
using fs::perms;

bool save(const std::string& path, const std::string& text) {
	Draft draft;
	return draft.open(path.c_str()) && draft.write(text.data(), text.size()) && draft.commit();
}

perms modeOf(const std::string& path) { return fs::status(path).permissions(); }

struct DraftTest : testing::Test {
	long files() const { return std::distance(fs::directory_iterator(mFolder.path()), {}); }
	bool hasUsers() const { return kPathSeparator == '/'; }
	test_support::TempFolder mFolder;
	const std::string mPath = mFolder.path("file");
};

TEST_F(DraftTest, ReplacesAsOneChangeAndIsGoneOtherwise) {
	for (const char* text : {"first", "second"}) { // without and with a target
		EXPECT_TRUE(save(mPath, text));
		EXPECT_EQ(readFile(mPath), text);
	}
	{
		Draft draft;
		EXPECT_TRUE(draft.open(mPath.c_str()) && draft.write("third", 5));
		EXPECT_EQ(readFile(mPath), "second");
		EXPECT_EQ(files(), 2);
	}
	EXPECT_EQ(files(), 1);
	FaultyFileSystem faulty;
	for (const auto call : {Call::open, Call::write, Call::replace}) {
		faulty.fail(call, 1, 112);
		EXPECT_FALSE(save(mPath, "lost"));
		EXPECT_EQ(lastError(), 112u);
		EXPECT_EQ(readFile(mPath), "second");
		EXPECT_TRUE(files() == 1 && faulty.openFiles() == 0);
	}
	for (const auto& path : {mFolder.path(), mFolder.path("no/file"), std::string(), std::string("\\\\.\\C:")})
		EXPECT_FALSE(save(path, "x")) << path;
	EXPECT_FALSE(Draft().commit());
}

TEST_F(DraftTest, CopiesAsideOnlyUnderANewName) {
	const std::string copy = mFolder.path("copy"), text(3000000, 'c');
	EXPECT_FALSE(copyAside(mPath.c_str(), copy.c_str()));
	writeFile(mPath, text);
	FaultyFileSystem faulty;
	for (const auto& [call, nth] : {std::pair{Call::open, 3}, {Call::read, 2}, {Call::write, 2}, {Call::replace, 1}}) {
		faulty.fail(call, nth);
		EXPECT_FALSE(copyAside(mPath.c_str(), copy.c_str()));
		EXPECT_EQ(files(), 1) << static_cast<int>(call); // neither a part nor a claim is left
	}
	EXPECT_TRUE(copyAside(mPath.c_str(), copy.c_str()));
	EXPECT_TRUE(readFile(copy) == text && readFile(mPath) == text);
	writeFile(copy, "another's");
	EXPECT_FALSE(copyAside(mPath.c_str(), copy.c_str()));
	EXPECT_EQ(lastError(), 80u);
	EXPECT_EQ(readFile(copy) + std::to_string(files()), "another's2");
}

TEST_F(DraftTest, IsPrivateAndKeepsTheRightsOfWhatItReplaces) {
	if (!hasUsers()) GTEST_SKIP() << "rights are access lists here";
	for (const auto mode : {perms{0600}, perms{0640}, perms{0444}, perms{0666}}) {
		writeFile(mPath, "old");
		fs::permissions(mPath, mode);
		Draft draft;
		ASSERT_TRUE(draft.open(mPath.c_str()) && draft.write("new", 3));
		for (const auto& entry : fs::directory_iterator(mFolder.path())) {
			EXPECT_EQ(modeOf(entry.path().string()), entry.path() == mPath ? mode : perms{0600});
		}
		EXPECT_TRUE(draft.commit());
		EXPECT_EQ(modeOf(mPath), mode);
	}
	fs::remove(mPath);
	EXPECT_TRUE(save(mPath, "new"));
	writeFile(mFolder.path("usual"), "");
	EXPECT_EQ(modeOf(mPath), modeOf(mFolder.path("usual")));
	if (std::system(("chown 65534:65534 " + mPath + " 2>/dev/null").c_str()) != 0)
		GTEST_SKIP() << "only root gives files away";
	EXPECT_TRUE(save(mPath, "by root"));
	EXPECT_EQ(std::system(("test $(stat -c %u:%g " + mPath + ") = 65534:65534").c_str()), 0);
}

TEST_F(DraftTest, FollowsOnlyLinksThatNobodyElseCouldSet) {
	if (!hasUsers()) GTEST_SKIP() << "links need a privilege here";
	const std::string link = mFolder.path("link");
	writeFile(mPath, "old");
	fs::create_symlink("file", link);
	EXPECT_TRUE(save(link, "through"));
	EXPECT_TRUE(fs::is_symlink(link));
	EXPECT_EQ(readFile(mPath), "through");
	fs::permissions(mFolder.path(), perms{01777}); // as the common folder for temporary files
	EXPECT_FALSE(save(link, "planted"));
	EXPECT_EQ(lastError(), 5u);
	EXPECT_EQ(readFile(mPath) + std::to_string(files()), "through2");
	EXPECT_TRUE(save(mPath, "no link"));
	ASSERT_EQ(std::system(("mkfifo " + mFolder.path("pipe")).c_str()), 0);
	EXPECT_FALSE(save(mFolder.path("pipe"), "x"));
}

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
	for (const char* key : {"padded", "none"}) {
		char out[] = "######";
		EXPECT_EQ(profileGetString("main", key, "some text", out, 5, mPath.c_str()), 4u);
		EXPECT_EQ(std::string(out, 6), std::string("some\0#", 6));
	}
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
		EXPECT_EQ(get("one", "A", "def") + get("two", "c", "def") + get("one", "alone", "def"), "1\351\2003def");
		EXPECT_EQ(write("two", "c", "3"), 1);
		EXPECT_EQ(readFile(mPath), bytes); // nothing new
		EXPECT_EQ(write("two", "c", "\x80\xE9") + write("one", "alone", "4") + write("new", "k", "5"), 3);
		EXPECT_EQ(get("two", "c", "def") + get("one", "alone", "def") + get("new", "k", "def"), "\200\35145");
		EXPECT_EQ(write("two", nullptr, nullptr) + write("new", nullptr, nullptr) + write("one", "alone", nullptr), 3);
		EXPECT_EQ(get("one", "a", "def") + get("two", "c", "def") + get("one", "alone", "def"), "1\351\200defdef");
		const size_t kept = kPathSeparator == '/' ? 12 : 5; // some systems end all lines alike
		EXPECT_EQ(readFile(mPath).substr(0, kept), bytes.substr(0, kept));
	}
}

TEST_F(ProfileTest, WritesAndRefuses) {
	using Text = const char*;
	static constexpr std::tuple<Text, Text, Text, Text> cases[] = {
	    {"one", "A", "new", "; top\n[One]\na=new\n; note\nb=2\n[Two]\nc=3\n"},
	    {"ONE", "d", "4", "; top\n[One]\na=1\n; note\nb=2\nd=4\n[Two]\nc=3\n"},
	    {"two", "d", "\"q\"", "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\nd=\"q\"\n"},
	    {"Three", "d", "", "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n[Three]\nd=\n"},
	    {"one", "a", nullptr, "; top\n[One]\n; note\nb=2\n[Two]\nc=3\n"},
	    {"one", nullptr, nullptr, "; top\n[Two]\nc=3\n"}, {"two", nullptr, "x", "; top\n[One]\na=1\n; note\nb=2\n"},
	    {"one", "zz", nullptr, "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n"}};
	for (const auto& [section, key, value, expected] : cases) {
		writeFile(mPath, "; top\n[One]\na=1\n; note\nb=2\n[Two]\nc=3\n");
		EXPECT_EQ(write(section, key, value), 1);
		EXPECT_EQ(lines(), expected);
	}
	EXPECT_EQ(write("two", "blanks", " \t b  "), 1);
	EXPECT_EQ(get("two", "blanks", ""), "b");
	fs::remove(mPath);
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
	writeFile(mPath, "[s]\r\nk=old\r\n");
	FaultyFileSystem faulty;
	profileGetInt("s", "k", 0, mPath.c_str());
	if (faulty.calls(Call::open) == 0) GTEST_SKIP() << "the system reads these files itself here";
	for (const auto& [call, nth] : {std::pair{Call::open, 1}, {Call::open, 2}, {Call::size, 1}, {Call::read, 1},
	         {Call::write, 1}, {Call::replace, 1}}) {
		faulty.fail(call, nth);
		EXPECT_EQ(write("s", "k", "new"), 0) << static_cast<int>(call) << nth;
		EXPECT_EQ(readFile(mPath), "[s]\r\nk=old\r\n");
		faulty.reset();
	}
	EXPECT_EQ(std::distance(fs::directory_iterator(mFolder.path()), {}), 1); // no draft is left
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

// Every allocation of an operation fails once: the result is the stated failure, or the call
// did without; nothing is thrown, and no file is lost.
TEST(RefusedMemory, IsAResult) {
	test_support::TempFolder folder;
	const std::string ini = folder.path("file.ini"), copy = folder.path("copy.ini"), name = uniqueName(),
	                  all = folder.path(""), deep = folder.path("a/b");
	const std::string old = "[section]\r\nkey=old\r\n", changed = "[section]\r\nkey=new\r\n";
	std::vector<FoundFile> found;
	char text[64];
	const std::tuple<const char*, bool, std::function<bool()>> operations[] = {// whether it allocates on Linux
	    {"draft", true,
	        [&] {
		        Draft draft;
		        return draft.open(ini.c_str()) && draft.write(changed.data(), changed.size()) && draft.commit();
	        }},
	    {"copy", true, [&] { return copyAside(ini.c_str(), copy.c_str()); }},
	    {"write", true, [&] { return profileWriteString("section", "key", "new", ini.c_str()) == 1; }},
	    {"read", true, [&] { return profileGetString("section", "key", "none", text, 64, ini.c_str()) == 3; }},
	    {"list", true, [&] { return listFiles(all.c_str(), "ini", true, 10, &found) && found.size() > 0; }},
	    {"full path", true, [&] { return !fullPath("relative").empty(); }},
	    {"open", true, [&] { return fileSystem().open(ini.c_str(), {}) != nullptr; }},
	    {"folders", false, [&] { return makeFolders(deep.c_str()); }},
	    {"named mutex", true, [&] { return Owned(createMutex(false, name.c_str())) != nullptr; }},
	    {"thread", false, [&] { return Owned(startThread([](void*) { return 0u; }, nullptr)) != nullptr; }}};
	for (const auto& [what, allocates, operation] : operations) {
		SCOPED_TRACE(what);
		int refusals = 0;
		for (bool refused = true; refused; ++refusals) {
			writeFile(ini, old);
			std::filesystem::remove(copy);
			test_support::newCalls = 0;
			test_support::refuseNew = refusals + 1;
			const bool done = operation();
			test_support::refuseNew = 0;
			refused = test_support::newCalls > refusals;
			EXPECT_TRUE(done || refused);
			const std::string left = readFile(ini);
			EXPECT_TRUE(left == old || (done && left == changed)) << left;
			ASSERT_LT(refusals, 1000);
		}
		EXPECT_TRUE(refusals > 1 || !allocates || kPathSeparator == '\\');
	}
	EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 2); // no draft is left
}

} // namespace
