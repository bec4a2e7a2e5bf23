#include "qor/platform/clock.h"
#include "qor/platform/draft.h"
#include "qor/platform/folder.h"
#include "support/faulty_file_system.h"
#include "support/temp_folder.h"

#include <atomic>
#include <cstdlib>
#include <gtest/gtest.h>
#include <thread>

namespace {

using namespace platform;
using test_support::readFile;
using test_support::writeFile;
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
	using Call = test_support::FaultyFileSystem::Call;
	test_support::FaultyFileSystem faulty;
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
	test_support::FaultyFileSystem faulty;
	using Call = test_support::FaultyFileSystem::Call;
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

TEST_F(DraftTest, ReadersBesideAWriterNeverSeeAGap) {
	const std::string texts[] = {std::string(20000, 'a'), std::string(30000, 'b')};
	EXPECT_TRUE(save(mPath, texts[0]));
	std::atomic<bool> done{false};
	std::thread writer([&] {
		for (int i = 1; i < 200; ++i) EXPECT_TRUE(save(mPath, texts[i % 2]));
		done = true;
	});
	while (!done) {
		if (kPathSeparator == '\\') sleepMs(2); // nothing replaces a file that is always open there
		const auto file = fileSystem().open(mPath.c_str(), {});
		int64_t size = 0;
		if (!file && kPathSeparator == '\\') continue; // refused for the moment of the change
		ASSERT_TRUE(file && file->size(&size)) << lastError();
		std::string text(static_cast<size_t>(size), '?');
		EXPECT_EQ(file->read(text.data(), static_cast<uint32_t>(size)), size);
		EXPECT_TRUE(text == texts[0] || text == texts[1]);
	}
	writer.join();
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

} // namespace
