#include "qor/platform/file.h"
#include "qor/platform/folder.h"
#include "qor/platform/machine.h"
#include "qor/platform/memory.h"
#include "support/temp_folder.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using test_support::readFile;
using test_support::TempFolder;
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

constexpr int64_t kSector = 512;
constexpr int64_t kImageSize = int64_t{16} << 20;

alignas(4096) char gBuffer[4096];

std::unique_ptr<File> openDevice(const std::string& name, uint32_t access = kAccessRead | kAccessWrite) {
	return fileSystem().open(name.c_str(), {Disposition::openExisting, access, kShareRead | kShareWrite, kRawTransfer});
}

/// "<number>:<first sector>+<sectors>:<type>" with '*' for bootable and '!' for recognised.
std::string tableOf(File& disk) {
	DiskLayout layout;
	if (!disk.layout(&layout)) return "none";
	std::string text;
	for (const auto& p : layout.partitions) {
		text += std::to_string(p.number) + ':' + std::to_string(p.startingOffset / kSector) + '+' +
		        std::to_string(p.length / kSector) + ':' + std::to_string(p.type) + (p.bootIndicator ? "*" : "") +
		        (p.recognized ? "! " : " ");
	}
	return text;
}

std::string numberOf(File& device) {
	DeviceNumber n;
	if (!device.deviceNumber(&n)) return "none";
	return std::to_string(n.deviceType) + ':' + std::to_string(n.diskNumber) + ':' + std::to_string(n.partitionNumber);
}

int64_t sizeByGeometry(File& device) {
	DiskGeometry g;
	return device.geometry(&g) ? g.cylinders * g.tracksPerCylinder * g.sectorsPerTrack * g.bytesPerSector : -1;
}

struct FileTest : testing::Test {
	FileTest() { setLastError(0); }
	TempFolder mFolder;
	const std::string mPath = mFolder.path("file");
};

TEST_F(FileTest, Dispositions) {
	static constexpr std::tuple<int, bool, int, uint32_t> cases[] = {{1, false, 0, 0}, {1, true, -1, 80},
	    {2, false, 0, 0}, {2, true, 0, 183}, {3, false, -1, 2}, {3, true, 5, 0}, {4, false, 0, 0}, {4, true, 5, 183},
	    {5, false, -1, 2}, {5, true, 0, 0}, {9, true, -1, 87}};
	for (const auto& [disposition, existed, expected, error] : cases) {
		SCOPED_TRACE(testing::Message() << disposition << " existed " << existed);
		const std::string path = mFolder.path() + (disposition % 2 ? "\\file" : "/file");
		const bool was = fileSystem().exists(path.c_str());
		EXPECT_TRUE(fileSystem().remove(path.c_str()) == was && !fileSystem().exists(mPath.c_str()));
		if (existed) writeFile(mPath, "12345");
		auto file = openFile(path, static_cast<Disposition>(disposition));
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
	EXPECT_EQ(outcome(fileSystem().replace(mPath.c_str(), missing.c_str())), Outcome(0, 2));
	EXPECT_EQ(outcome(openFile(mFolder.path()) != nullptr), Outcome(0, 5)); // a folder
	EXPECT_TRUE(fileSystem().exists(mFolder.path().c_str()) && !fileSystem().remove(mFolder.path().c_str()));
}

TEST_F(FileTest, Sharing) {
	static constexpr std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, bool> cases[] = {
	    {kBoth, kAll, kBoth, kAll, true}, {kAccessRead, kShareNone, kAccessRead, kAll, false},
	    {kAccessRead, kAll, kAccessRead, kShareNone, false}, {kAccessRead, kShareRead, kAccessRead, kShareRead, true},
	    {kAccessRead, kShareRead, kAccessWrite, kAll, false}, {kAccessWrite, kAll, kAccessRead, kShareRead, false},
	    {kAccessWrite, kShareRead, kAccessRead, kShareWrite, true},
	    {kAccessWrite, kShareWrite, kAccessWrite, kShareWrite, true},
	    {kAccessWrite, kShareWrite, kAccessRead, kAll, false}};
	writeFile(mPath, "kept");
	for (const auto& [access, share, nextAccess, nextShare, opens] : cases) {
		SCOPED_TRACE(testing::Message() << access << ' ' << share << " beside " << nextAccess << ' ' << nextShare);
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
	const auto full = openFile("/dev/full", Disposition::openExisting, kAccessWrite);
	EXPECT_TRUE(!full || outcome(full->write("x", 1)) == Outcome(0, 112)); // not everywhere
	EXPECT_EQ(tableOf(*reader) + numberOf(*reader) + std::to_string(sizeByGeometry(*reader)), "nonenone-1");
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

TEST(Folder, NameParts) {
	for (const auto& [path, name] : std::initializer_list<std::pair<const char*, const char*>>{
	         {"a/b\\c.txt", "c.txt"}, {"a\\b/c.txt", "c.txt"}, {"plain", "plain"}, {"a/", ""}, {"", ""}, {nullptr, ""}})
		EXPECT_STREQ(fileNamePart(path), name);
}

TEST(Folder, MakesFoldersAndListsTheirFiles) {
	TempFolder folder;
	const std::string start = folder.path(""), sub = start + "sub.raw" + kPathSeparator;
	for (const char* deep : {"sub.raw/a\\b", "sub.raw\\a/b/"}) EXPECT_TRUE(makeFolders((start + deep).c_str()));
	std::error_code refused;
	std::filesystem::create_directory_symlink(start, start + "circle", refused); // needs a privilege on Windows
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
	EXPECT_FALSE(listFiles(nullptr, "raw", true, 9, &found) || makeFolders(nullptr) || makeFolders(""));
	for (const char* below : {"b.raw", "b.raw/below"}) EXPECT_FALSE(makeFolders(folder.path(below).c_str()));
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
	writeFile(folder.path("far/x"), "");
	EXPECT_EQ(fullPath((base + "link/../x").c_str()), base + "link/../x");
}

class Disk : public testing::Test {
protected:
	void SetUp() override {
		if (kPathSeparator == '\\') GTEST_SKIP() << "disks cannot be named freely on this system";
	}
	void TearDown() override { name("", ""); }
	void name(const std::string& disks, const std::string& drives) {
		static std::string variables[2]; // the environment refers to them
		variables[0] = "qorDisks=" + disks;
		variables[1] = "qorDrives=" + drives;
		for (auto& variable : variables) putenv(variable.data());
	}
	/// Makes an image, with a table from the partitioning tool's script.
	std::string makeImage(const std::string& script, int64_t size = kImageSize) {
		const std::string path = mFolder.path("disk.img"), text = mFolder.path("script");
		writeFile(path, "");
		std::filesystem::resize_file(path, static_cast<uintmax_t>(size));
		writeFile(text, script);
		EXPECT_TRUE(script.empty() || std::system(("sfdisk -q --no-reread " + path + " < " + text).c_str()) == 0);
		return path;
	}
	TempFolder mFolder;
};

constexpr const char* kScript = "label: dos\n1 : start=2048, size=4096, type=83, bootable\n"
                                "2 : start=8192, size=16384, type=5\n"
                                "5 : start=10240, size=2048, type=7\n6 : start=14336, size=2000, type=c\n";
// The second place holds the later two and has no number; the places three and four are unused.
constexpr const char* kTable = "1:2048+4096:131* 0:8192+16384:5 0:0+0:0 0:0+0:0 5:10240+2048:7! 6:14336+2000:12! ";

TEST_F(Disk, OnlyWhatIsNamedExists) {
	const std::string image = makeImage("");
	name(image + "::" + mFolder.path("missing.img"), "C=" + image + ":d=" + image + "#3");
	for (const char* one : {"PhysicalDrive0", "physicaldrive0", "C:", "c:"})
		EXPECT_NE(openDevice(std::string("\\\\.\\") + one), nullptr) << one;
	for (const char* one : {"PhysicalDrive1", "PhysicalDrive2", "PhysicalDrive3", "PhysicalDrive", "PhysicalDrive0x",
	         "PhysicalDrive-1", "PhysicalDrive4294967296", "D:", "E:", "C", "C:x", "", "dev/null", "../etc/passwd"}) {
		EXPECT_EQ(openDevice(std::string("\\\\.\\") + one), nullptr) << one;
		EXPECT_EQ(lastError(), 2u) << one;
	}
	EXPECT_EQ(fileSystem().open("\\\\.\\C:", {Disposition::createAlways, kAccessWrite}), nullptr);
	EXPECT_EQ(std::filesystem::file_size(image), static_cast<uintmax_t>(kImageSize));
}

TEST_F(Disk, GeometryAndTables) {
	// The odd bytes are those of a sector at the end that is not whole; they do not count.
	static constexpr std::tuple<const char*, int64_t, const char*> cases[] = {{"", 700, ""}, {kScript, 0, kTable},
	    {"label: gpt\n1 : start=2048, size=4096\n3 : start=8192, size=100\n", 0, "1:2048+4096:238! 3:8192+100:238! "}};
	for (const auto& [script, odd, table] : cases) {
		name(makeImage(script, kImageSize + odd), "");
		auto disk = openDevice("\\\\.\\PhysicalDrive0", kAccessRead);
		ASSERT_NE(disk, nullptr);
		int64_t bytes = 0;
		EXPECT_FALSE(disk->geometry(nullptr) || disk->deviceNumber(nullptr) || disk->layout(nullptr));
		EXPECT_TRUE(disk->size(&bytes) && bytes == kImageSize + odd / kSector * kSector);
		EXPECT_EQ(sizeByGeometry(*disk), bytes);
		EXPECT_EQ(tableOf(*disk), table);
		EXPECT_EQ(numberOf(*disk), "7:0:0");
	}
}

TEST_F(Disk, VolumeIsAWindowOntoItsDisk) {
	const std::string image = makeImage(kScript);
	name(mFolder.path("missing.img") + ":" + image, "V=" + image + "#6");
	auto volume = openDevice("\\\\.\\V:");
	ASSERT_NE(volume, nullptr);
	EXPECT_EQ(numberOf(*volume), "7:1:6");
	EXPECT_EQ(tableOf(*volume), kTable);
	EXPECT_EQ(sizeByGeometry(*volume), 2000 * kSector);
	std::memset(gBuffer, 'v', sizeof gBuffer);
	EXPECT_EQ(volume->write(gBuffer, 512), 512u);
	EXPECT_EQ(readFile(image).substr(14336 * kSector, 513), std::string(512, 'v') + '\0');
	EXPECT_TRUE(volume->seek(-512, SeekOrigin::end, nullptr));
	for (const uint32_t taken : {512u, 0u}) { // never beyond the end
		EXPECT_EQ(volume->write(gBuffer, 4096), taken);
		EXPECT_EQ(lastError(), 112u);
	}
	EXPECT_EQ(volume->read(gBuffer, 512), 0u);
	EXPECT_EQ(readFile(image).substr((14336 + 2000) * kSector, 512), std::string(512, '\0'));
	EXPECT_EQ(std::filesystem::file_size(image), static_cast<uintmax_t>(kImageSize));
}

} // namespace
