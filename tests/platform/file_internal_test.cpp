#include "qor/platform/file.h"
#include "qor/platform/folder.h"
#include "qor/platform/machine.h"
#include "qor/platform/memory.h"
#include "support/faulty_file_system.h"
#include "support/temp_folder.h"

#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace {

using namespace platform;
using test_support::FaultyFileSystem;
using test_support::readFile;
using test_support::TempFolder;
using test_support::writeFile;

std::unique_ptr<File> openFile(const std::string& path, Disposition disposition = Disposition::openExisting,
    uint32_t access = kAccessRead | kAccessWrite, uint32_t share = kShareRead | kShareWrite,
    uint32_t flags = kAttributeNormal) {
	return fileSystem().open(path.c_str(), {disposition, access, share, flags});
}

int64_t sizeOf(File& file) {
	int64_t bytes = -1;
	EXPECT_TRUE(file.size(&bytes));
	return bytes;
}

TEST(File, Dispositions) {
	static constexpr struct {
		Disposition disposition;
		bool existed;
		int size;       // -1: does not open
		uint32_t error; // of the open
	} cases[] = {{Disposition::createNew, false, 0, 0}, {Disposition::createNew, true, -1, 80},
	    {Disposition::createAlways, false, 0, 0}, {Disposition::createAlways, true, 0, 183},
	    {Disposition::openExisting, false, -1, 2}, {Disposition::openExisting, true, 5, 0},
	    {Disposition::openAlways, false, 0, 0}, {Disposition::openAlways, true, 5, 183},
	    {Disposition::truncateExisting, false, -1, 2}, {Disposition::truncateExisting, true, 0, 0},
	    {static_cast<Disposition>(9), true, -1, 87}};
	TempFolder folder;
	for (const auto& c : cases) {
		SCOPED_TRACE(testing::Message() << static_cast<int>(c.disposition) << " existed " << c.existed);
		const std::string path = folder.path("file");
		std::filesystem::remove(path);
		if (c.existed) writeFile(path, "12345");
		auto file = openFile(path, c.disposition);
		EXPECT_EQ(lastError(), c.error);
		ASSERT_EQ(file != nullptr, c.size >= 0);
		EXPECT_EQ(file ? sizeOf(*file) : -1, c.size);
	}
	EXPECT_EQ(openFile(folder.path("file"), Disposition::truncateExisting, kAccessRead), nullptr);
	EXPECT_EQ(lastError(), 87u);
}

TEST(File, RefusedPaths) {
	TempFolder folder;
	const std::string missing = folder.path("no") + kPathSeparator + "file";
	const struct {
		const char* name;
		const char* path;
		uint32_t error;
	} cases[] = {{"null", nullptr, 3}, {"empty", "", 3}, {"missing folder", missing.c_str(), 3},
	    {"no such device", "\\\\.\\nothing_of_that_name", 2}};
	for (const auto& c : cases) {
		EXPECT_EQ(fileSystem().open(c.path, {Disposition::openAlways, kAccessRead | kAccessWrite}), nullptr) << c.name;
		EXPECT_EQ(lastError(), c.error) << c.name;
		EXPECT_FALSE(fileSystem().exists(c.path)) << c.name;
		EXPECT_FALSE(fileSystem().remove(c.path)) << c.name;
	}
	EXPECT_EQ(openFile(folder.path()), nullptr); // a folder
	EXPECT_EQ(lastError(), 5u);
	EXPECT_TRUE(fileSystem().exists(folder.path().c_str()));
	EXPECT_FALSE(fileSystem().remove(folder.path().c_str()));
}

TEST(File, BothSeparators) {
	TempFolder folder;
	writeFile(folder.path("file"), "x");
	for (const char* separator : {"/", "\\"}) {
		const std::string path = folder.path() + separator + "file";
		EXPECT_NE(openFile(path), nullptr);
		EXPECT_TRUE(fileSystem().exists(path.c_str()));
	}
	EXPECT_TRUE(fileSystem().remove((folder.path() + "\\file").c_str()));
	EXPECT_FALSE(fileSystem().exists(folder.path("file").c_str()));
	EXPECT_FALSE(fileSystem().remove(folder.path("file").c_str()));
	EXPECT_EQ(lastError(), 2u);
}

TEST(File, Sharing) {
	constexpr uint32_t kBoth = kAccessRead | kAccessWrite;
	constexpr uint32_t kAll = kShareRead | kShareWrite;
	static constexpr struct {
		const char* name;
		uint32_t access, share, nextAccess, nextShare;
		bool opens;
	} cases[] = {{"everything shared", kBoth, kAll, kBoth, kAll, true},
	    {"nothing shared", kAccessRead, kShareNone, kAccessRead, kAll, false},
	    {"later open shares nothing", kAccessRead, kAll, kAccessRead, kShareNone, false},
	    {"readers together", kAccessRead, kShareRead, kAccessRead, kShareRead, true},
	    {"writer beside share read", kAccessRead, kShareRead, kAccessWrite, kAll, false},
	    {"reader that denies writing beside a writer", kAccessWrite, kAll, kAccessRead, kShareRead, false},
	    {"reader that allows writing beside a writer", kAccessWrite, kShareRead, kAccessRead, kShareWrite, true},
	    {"two that only deny reading", kAccessWrite, kShareWrite, kAccessWrite, kShareWrite, true},
	    {"reader beside share write", kAccessWrite, kShareWrite, kAccessRead, kAll, false}};
	TempFolder folder;
	const std::string path = folder.path("file");
	writeFile(path, "kept");
	for (const auto& c : cases) {
		SCOPED_TRACE(c.name);
		auto first = openFile(path, Disposition::openExisting, c.access, c.share);
		ASSERT_NE(first, nullptr);
		auto next = openFile(path, Disposition::openExisting, c.nextAccess, c.nextShare);
		EXPECT_EQ(next != nullptr, c.opens);
		EXPECT_TRUE(c.opens || lastError() == 32);
		first.reset();
		next.reset();
		EXPECT_NE(openFile(path, Disposition::openExisting, kBoth, kShareNone), nullptr); // nothing stays claimed
	}
	auto owner = openFile(path, Disposition::openExisting, kAccessRead, kShareRead);
	EXPECT_EQ(openFile(path, Disposition::createAlways), nullptr);
	EXPECT_EQ(readFile(path), "kept"); // refused before it was cut
}

TEST(File, TransfersAndPositions) {
	TempFolder folder;
	auto file = openFile(folder.path("file"), Disposition::createNew);
	ASSERT_NE(file, nullptr);
	EXPECT_EQ(file->write("0123456789", 10), 10u);
	EXPECT_EQ(file->write(nullptr, 5), 0u);
	EXPECT_EQ(file->write("", 0), 0u);
	static constexpr struct {
		int64_t offset;
		SeekOrigin origin;
		int64_t position; // -1: refused
	} seeks[] = {{4, SeekOrigin::begin, 4}, {3, SeekOrigin::current, 7}, {-2, SeekOrigin::current, 5},
	    {-9, SeekOrigin::end, 1}, {-2, SeekOrigin::current, -1}, {-11, SeekOrigin::end, -1},
	    {-1, SeekOrigin::begin, -1}, {0, SeekOrigin::current, 1}, {INT64_MAX, SeekOrigin::current, -1},
	    {8, SeekOrigin::begin, 8}};
	for (const auto& s : seeks) {
		int64_t position = -1;
		EXPECT_EQ(file->seek(s.offset, s.origin, &position), s.position >= 0);
		EXPECT_EQ(position, s.position);
	}
	char bytes[8] = {};
	EXPECT_EQ(file->read(bytes, 8), 2u); // the end
	EXPECT_STREQ(bytes, "89");
	EXPECT_EQ(file->read(bytes, 8), 0u);
	EXPECT_TRUE(file->seek(12, SeekOrigin::begin, nullptr));
	EXPECT_EQ(file->write("x", 1), 1u);
	EXPECT_EQ(sizeOf(*file), 13);
	EXPECT_TRUE(file->flush());
	EXPECT_EQ(readFile(folder.path("file")), std::string("0123456789\0\0x", 13));
}

TEST(File, AccessIsKept) {
	TempFolder folder;
	writeFile(folder.path("file"), "data");
	auto reader = openFile(folder.path("file"), Disposition::openExisting, kAccessRead);
	auto writer = openFile(folder.path("file"), Disposition::openExisting, kAccessWrite);
	char byte;
	setLastError(0);
	EXPECT_EQ(reader->write("x", 1) + (lastError() == 5 ? 0 : 1), 0u);
	setLastError(0);
	EXPECT_EQ(writer->read(&byte, 1) + (lastError() == 5 ? 0 : 1), 0u);
	EXPECT_TRUE(reader->flush());
	DiskGeometry geometry;
	DiskLayout layout;
	DeviceNumber number;
	EXPECT_FALSE(reader->geometry(&geometry) || reader->layout(&layout) || reader->deviceNumber(&number));
}

TEST(File, RawTransfers) {
	TempFolder folder;
	auto file =
	    openFile(folder.path("raw"), Disposition::createNew, kAccessRead | kAccessWrite, kShareRead, kRawTransfer);
	ASSERT_NE(file, nullptr);
	constexpr uint32_t kSize = 4 << 20;
	auto* pages = static_cast<char*>(allocatePages(kSize + kTransferAlignment));
	ASSERT_NE(pages, nullptr);
	for (uint32_t i = 0; i < kSize; ++i) pages[i] = static_cast<char>(i * 31 >> 7);
	const std::string written(pages, kSize);
	EXPECT_EQ(file->write(pages, kSize), kSize);
	static constexpr struct {
		const char* name;
		int64_t position;
		uint32_t shift, count;
	} misaligned[] = {{"position", 100, 0, 512}, {"address", 0, 1, 512}, {"count", 0, 0, 511}};
	for (const auto& m : misaligned) {
		EXPECT_TRUE(file->seek(m.position, SeekOrigin::begin, nullptr));
		EXPECT_EQ(file->write(pages + m.shift, m.count), 0u) << m.name;
		EXPECT_EQ(lastError(), 87u) << m.name;
		EXPECT_EQ(file->read(pages + m.shift, m.count), 0u) << m.name;
		EXPECT_EQ(lastError(), 87u) << m.name;
	}
	std::memset(pages, 0, kSize);
	EXPECT_TRUE(file->seek(0, SeekOrigin::begin, nullptr));
	EXPECT_EQ(file->read(pages, kSize), kSize);
	EXPECT_EQ(std::string(pages, kSize), written);
	EXPECT_EQ(file->read(pages, kTransferAlignment), 0u); // the end
	EXPECT_EQ(sizeOf(*file), kSize);
	file.reset();
	EXPECT_EQ(readFile(folder.path("raw")), written);
	writeFile(folder.path("odd"), std::string(700, 'o')); // ends inside a sector
	file = openFile(folder.path("odd"), Disposition::openExisting, kAccessRead, kShareRead, kRawTransfer);
	EXPECT_EQ(file->read(pages, kTransferAlignment), 700u);
	file.reset();
	releasePages(pages, kSize + kTransferAlignment);
}

TEST(File, FullMedium) {
	if (!fileSystem().exists("/dev/full")) GTEST_SKIP() << "no always-full file on this system";
	auto full = openFile("/dev/full", Disposition::openExisting, kAccessWrite);
	ASSERT_NE(full, nullptr);
	EXPECT_EQ(full->write("x", 1), 0u);
	EXPECT_EQ(lastError(), 112u);
}

TEST(File, ReplaceIsOneStep) {
	TempFolder folder;
	const std::string from = folder.path("new");
	const std::string to = folder.path("old");
	EXPECT_FALSE(fileSystem().replace(from.c_str(), to.c_str()));
	EXPECT_EQ(lastError(), 2u);
	for (const char* contents : {"first", "second"}) { // without and with a target
		writeFile(from, contents);
		EXPECT_TRUE(fileSystem().replace(from.c_str(), to.c_str()));
		EXPECT_EQ(readFile(to), contents);
		EXPECT_FALSE(fileSystem().exists(from.c_str()));
	}
	writeFile(from, "third");
	EXPECT_FALSE(fileSystem().replace(from.c_str(), folder.path().c_str())); // a folder
	EXPECT_EQ(readFile(from), "third");
	EXPECT_FALSE(fileSystem().replace(nullptr, to.c_str()) || fileSystem().replace(from.c_str(), ""));
	EXPECT_EQ(readFile(to), "second");
}

TEST(FileSystem, AnotherOneCanBeInForce) {
	using Call = FaultyFileSystem::Call;
	TempFolder folder;
	const std::string path = folder.path("file");
	{
		FaultyFileSystem faulty;
		EXPECT_EQ(&fileSystem(), &faulty);
		faulty.fail(Call::open, 2, 4);
		auto file = openFile(path, Disposition::createAlways);
		ASSERT_NE(file, nullptr);
		EXPECT_EQ(openFile(path), nullptr);
		EXPECT_EQ(lastError(), 4u);
		EXPECT_EQ(faulty.calls(Call::open), 2);
		faulty.fail(Call::write, 2, 5);
		EXPECT_EQ(file->write("one", 3), 3u);
		EXPECT_EQ(file->write("two", 3), 0u);
		EXPECT_EQ(lastError(), 5u);
		faulty.tearWrite(1, 2);
		EXPECT_EQ(file->write("torn", 4), 2u);
		EXPECT_EQ(lastError(), 112u);
		faulty.setSpace(4);
		EXPECT_EQ(file->write("full", 4), 4u);
		EXPECT_EQ(file->write("over", 4), 0u);
		EXPECT_EQ(lastError(), 112u);
		faulty.fail(Call::seek, 1);
		EXPECT_FALSE(file->seek(0, SeekOrigin::begin, nullptr));
		EXPECT_TRUE(file->seek(0, SeekOrigin::begin, nullptr));
		faulty.fail(Call::replace, 1, 5, true);
		EXPECT_FALSE(
		    fileSystem().replace(path.c_str(), path.c_str()) || fileSystem().replace(path.c_str(), path.c_str()));
		faulty.makeReadOnly(path);
		EXPECT_EQ(openFile(path), nullptr);
		EXPECT_NE(openFile(path, Disposition::openExisting, kAccessRead), nullptr);
	}
	EXPECT_EQ(&fileSystem(), &systemFileSystem());
	EXPECT_EQ(readFile(path), "onetofull");
	EXPECT_EQ(replaceFileSystem(nullptr), &systemFileSystem());
}

} // namespace
