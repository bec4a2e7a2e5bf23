#include "qor/platform/file.h"
#include "qor/platform/folder.h"
#include "qor/platform/machine.h"
#include "qor/platform/memory.h"
#include "support/temp_folder.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using test_support::readFile;
using test_support::writeFile;

constexpr uint32_t kBoth = kAccessRead | kAccessWrite;
constexpr uint32_t kAll = kShareRead | kShareWrite;

std::unique_ptr<File> openFile(const std::string& path, Disposition disposition = Disposition::openExisting,
    uint32_t access = kBoth, uint32_t share = kAll, uint32_t flags = kAttributeNormal) {
	return fileSystem().open(path.c_str(), {disposition, access, share, flags});
}

int64_t sizeOf(File& file) {
	int64_t bytes = -1;
	return file.size(&bytes) ? bytes : -2;
}

/// The result of a call with the error it left, which the next call starts without.
template <class Result>
std::pair<int64_t, uint32_t> outcome(Result result) {
	const uint32_t error = lastError();
	setLastError(0);
	return {static_cast<int64_t>(result), error};
}
using Outcome = std::pair<int64_t, uint32_t>;

struct FileTest : testing::Test {
	FileTest() { setLastError(0); }
	test_support::TempFolder mFolder;
	const std::string mPath = mFolder.path("file");
};

TEST_F(FileTest, Dispositions) {
	static constexpr std::tuple<int, bool, int, uint32_t> cases[] = {{1, false, 0, 0}, {1, true, -1, 80},
	    {2, false, 0, 0}, {2, true, 0, 183}, {3, false, -1, 2}, {3, true, 5, 0}, {4, false, 0, 0}, {4, true, 5, 183},
	    {5, false, -1, 2}, {5, true, 0, 0}, {9, true, -1, 87}};
	for (const auto& [disposition, existed, expected, error] : cases) {
		SCOPED_TRACE(testing::Message() << disposition << " existed " << existed);
		std::filesystem::remove(mPath);
		if (existed) writeFile(mPath, "12345");
		auto file = openFile(mPath, static_cast<Disposition>(disposition));
		EXPECT_EQ(lastError(), error);
		EXPECT_EQ(file ? sizeOf(*file) : -1, expected); // -1: does not open
	}
	EXPECT_EQ(openFile(mPath, Disposition::truncateExisting, kAccessRead), nullptr);
	EXPECT_EQ(lastError(), 87u);
}

TEST_F(FileTest, RefusedPaths) {
	const std::string missing = mFolder.path("no") + kPathSeparator + "file";
	const std::pair<const char*, uint32_t> cases[] = {
	    {nullptr, 3}, {"", 3}, {missing.c_str(), 3}, {"\\\\.\\nothing_of_that_name", 2}};
	for (const auto& [path, error] : cases) {
		SCOPED_TRACE(path ? path : "null");
		EXPECT_EQ(outcome(fileSystem().open(path, {Disposition::openAlways, kBoth}) != nullptr), Outcome(0, error));
		EXPECT_FALSE(fileSystem().exists(path) || fileSystem().remove(path));
	}
	EXPECT_EQ(outcome(openFile(mFolder.path()) != nullptr), Outcome(0, 5)); // a folder
	EXPECT_TRUE(fileSystem().exists(mFolder.path().c_str()) && !fileSystem().remove(mFolder.path().c_str()));
}

TEST_F(FileTest, BothSeparators) {
	writeFile(mPath, "x");
	for (const char* name : {"/file", "\\file"}) {
		EXPECT_TRUE(openFile(mFolder.path() + name) && fileSystem().exists((mFolder.path() + name).c_str())) << name;
	}
	EXPECT_TRUE(fileSystem().remove((mFolder.path() + "\\file").c_str()));
	EXPECT_FALSE(fileSystem().exists(mPath.c_str()));
	EXPECT_EQ(outcome(fileSystem().remove(mPath.c_str())), Outcome(0, 2));
}

TEST_F(FileTest, Sharing) {
	static constexpr std::tuple<const char*, uint32_t, uint32_t, uint32_t, uint32_t, bool> cases[] = {
	    {"everything shared", kBoth, kAll, kBoth, kAll, true},
	    {"nothing shared", kAccessRead, kShareNone, kAccessRead, kAll, false},
	    {"later open shares nothing", kAccessRead, kAll, kAccessRead, kShareNone, false},
	    {"readers together", kAccessRead, kShareRead, kAccessRead, kShareRead, true},
	    {"writer beside share read", kAccessRead, kShareRead, kAccessWrite, kAll, false},
	    {"reader that denies writing beside a writer", kAccessWrite, kAll, kAccessRead, kShareRead, false},
	    {"reader that allows writing beside a writer", kAccessWrite, kShareRead, kAccessRead, kShareWrite, true},
	    {"two that only deny reading", kAccessWrite, kShareWrite, kAccessWrite, kShareWrite, true},
	    {"reader beside share write", kAccessWrite, kShareWrite, kAccessRead, kAll, false}};
	writeFile(mPath, "kept");
	for (const auto& [name, access, share, nextAccess, nextShare, opens] : cases) {
		SCOPED_TRACE(name);
		auto first = openFile(mPath, Disposition::openExisting, access, share);
		ASSERT_NE(first, nullptr);
		auto next = openFile(mPath, Disposition::openExisting, nextAccess, nextShare);
		EXPECT_EQ(outcome(next != nullptr), Outcome(opens, opens ? 0 : 32));
		first.reset();
		next.reset();
		EXPECT_NE(openFile(mPath, Disposition::openExisting, kBoth, kShareNone), nullptr); // nothing stays claimed
	}
	auto owner = openFile(mPath, Disposition::openExisting, kAccessRead, kShareRead);
	EXPECT_EQ(openFile(mPath, Disposition::createAlways), nullptr);
	EXPECT_EQ(readFile(mPath), "kept"); // refused before it was cut
}

TEST_F(FileTest, TransfersAndPositions) {
	auto file = openFile(mPath, Disposition::createNew);
	ASSERT_NE(file, nullptr);
	EXPECT_EQ(file->write("0123456789", 10), 10u);
	EXPECT_EQ(file->write(nullptr, 5) + file->write("", 0), 0u);
	constexpr auto kBegin = SeekOrigin::begin, kCurrent = SeekOrigin::current, kEnd = SeekOrigin::end;
	static constexpr std::tuple<int64_t, SeekOrigin, int64_t> seeks[] = // -1: refused
	    {{4, kBegin, 4}, {3, kCurrent, 7}, {-2, kCurrent, 5}, {-9, kEnd, 1}, {-2, kCurrent, -1}, {-11, kEnd, -1},
	        {-1, kBegin, -1}, {0, kCurrent, 1}, {INT64_MAX, kCurrent, -1}, {8, kBegin, 8}};
	for (const auto& [offset, origin, expected] : seeks) {
		int64_t position = -1;
		EXPECT_EQ(file->seek(offset, origin, &position), expected >= 0);
		EXPECT_EQ(position, expected);
	}
	char bytes[8] = {};
	EXPECT_EQ(file->read(bytes, 8), 2u); // the end
	EXPECT_STREQ(bytes, "89");
	EXPECT_EQ(file->read(bytes, 8), 0u);
	EXPECT_TRUE(file->seek(12, kBegin, nullptr) && file->write("x", 1) == 1 && file->flush());
	EXPECT_EQ(sizeOf(*file), 13);
	EXPECT_EQ(readFile(mPath), std::string("0123456789\0\0x", 13));
}

TEST_F(FileTest, AccessIsKept) {
	writeFile(mPath, "data");
	auto reader = openFile(mPath, Disposition::openExisting, kAccessRead);
	auto writer = openFile(mPath, Disposition::openExisting, kAccessWrite);
	char byte;
	EXPECT_EQ(outcome(reader->write("x", 1)), Outcome(0, 5));
	EXPECT_EQ(outcome(writer->read(&byte, 1)), Outcome(0, 5));
	EXPECT_TRUE(reader->flush());
	DiskGeometry geometry;
	DiskLayout layout;
	DeviceNumber number;
	EXPECT_FALSE(reader->geometry(&geometry) || reader->layout(&layout) || reader->deviceNumber(&number));
}

TEST_F(FileTest, RawTransfers) {
	auto file = openFile(mPath, Disposition::createNew, kBoth, kShareRead, kRawTransfer);
	ASSERT_NE(file, nullptr);
	constexpr uint32_t kSize = 4 << 20;
	auto* pages = static_cast<char*>(allocatePages(kSize + kTransferAlignment));
	ASSERT_NE(pages, nullptr);
	for (uint32_t i = 0; i < kSize; ++i) pages[i] = static_cast<char>(i * 31 >> 7);
	const std::string written(pages, kSize);
	EXPECT_EQ(file->write(pages, kSize), kSize);
	static constexpr std::tuple<const char*, int64_t, uint32_t, uint32_t> misaligned[] = {
	    {"position", 100, 0, 512}, {"address", 0, 1, 512}, {"count", 0, 0, 511}};
	for (const auto& [name, position, shift, count] : misaligned) {
		EXPECT_TRUE(file->seek(position, SeekOrigin::begin, nullptr));
		EXPECT_EQ(outcome(file->write(pages + shift, count)), Outcome(0, 87)) << name;
		EXPECT_EQ(outcome(file->read(pages + shift, count)), Outcome(0, 87)) << name;
	}
	std::memset(pages, 0, kSize);
	EXPECT_TRUE(file->seek(0, SeekOrigin::begin, nullptr));
	EXPECT_EQ(file->read(pages, kSize), kSize);
	EXPECT_TRUE(std::string(pages, kSize) == written);
	EXPECT_EQ(file->read(pages, kTransferAlignment), 0u); // the end
	EXPECT_EQ(sizeOf(*file), kSize);
	file.reset();
	EXPECT_TRUE(readFile(mPath) == written);
	writeFile(mPath, std::string(700, 'o')); // ends inside a sector
	file = openFile(mPath, Disposition::openExisting, kAccessRead, kShareRead, kRawTransfer);
	EXPECT_EQ(file->read(pages, kTransferAlignment), 700u);
	releasePages(pages, kSize + kTransferAlignment);
}

TEST_F(FileTest, FullMedium) {
	if (!fileSystem().exists("/dev/full")) GTEST_SKIP() << "no always-full file on this system";
	auto full = openFile("/dev/full", Disposition::openExisting, kAccessWrite);
	ASSERT_NE(full, nullptr);
	EXPECT_EQ(outcome(full->write("x", 1)), Outcome(0, 112));
}

TEST_F(FileTest, ReplaceIsOneStep) {
	const std::string from = mFolder.path("new");
	const auto replace = [](const std::string& a, const std::string& b) {
		return fileSystem().replace(a.c_str(), b.c_str());
	};
	EXPECT_EQ(outcome(replace(from, mPath)), Outcome(0, 2));
	for (const char* contents : {"first", "second"}) { // without and with a target
		writeFile(from, contents);
		EXPECT_TRUE(replace(from, mPath));
		EXPECT_EQ(readFile(mPath), contents);
		EXPECT_FALSE(fileSystem().exists(from.c_str()));
	}
	writeFile(from, "third");
	EXPECT_FALSE(replace(from, mFolder.path()) || replace(from, "") || fileSystem().replace(nullptr, mPath.c_str()));
	EXPECT_EQ(readFile(from) + readFile(mPath), "thirdsecond");
}

} // namespace
