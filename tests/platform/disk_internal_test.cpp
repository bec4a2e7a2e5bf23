#include "qor/platform/disk.h"
#include "qor/platform/file.h"
#include "qor/platform/folder.h"
#include "qor/platform/machine.h"
#include "support/temp_folder.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <sstream>

namespace {

using namespace platform;
using test_support::readFile;
using test_support::writeFile;

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
	std::ostringstream text;
	for (const auto& p : layout.partitions) {
		text << p.number << ':' << p.startingOffset / kSector << '+' << p.length / kSector << ':' << std::hex
		     << int{p.type} << std::dec << (p.bootIndicator ? "*" : "") << (p.recognized ? "!" : "") << ' ';
	}
	return text.str();
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

int run(const std::string& command) { return std::system((command + " 2>/dev/null").c_str()); }

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
		const std::string path = mFolder.path("disk.img");
		writeFile(path, "");
		std::filesystem::resize_file(path, static_cast<uintmax_t>(size));
		writeFile(mFolder.path("script"), script);
		const std::string command = "sfdisk -q --no-reread " + path + " < " + mFolder.path("script");
		EXPECT_TRUE(script.empty() || run(command) == 0);
		return path;
	}
	test_support::TempFolder mFolder;
};

constexpr const char* kScript = "label: dos\n1 : start=2048, size=4096, type=83, bootable\n"
                                "2 : start=8192, size=16384, type=5\n"
                                "5 : start=10240, size=2048, type=7\n6 : start=14336, size=2000, type=c\n";
// The second place holds the later two and has no number; the places three and four are unused.
constexpr const char* kTable = "1:2048+4096:83* 0:8192+16384:5 0:0+0:0 0:0+0:0 5:10240+2048:7! 6:14336+2000:c! ";

TEST(SystemDisk, Queries) {
	auto disk = openDevice("\\\\.\\PhysicalDrive0", kAccessRead);
	if (!disk) GTEST_SKIP() << "no disk that this system lets us ask, error " << lastError();
	EXPECT_GT(sizeByGeometry(*disk), 0);
	EXPECT_EQ(numberOf(*disk), "7:0:0");
	EXPECT_FALSE(disk->geometry(nullptr) || disk->deviceNumber(nullptr) || disk->layout(nullptr));
	if (tableOf(*disk) == "none") GTEST_SKIP() << "no partition table from this system, error " << lastError();
}

TEST_F(Disk, OnlyWhatIsNamedExists) {
	const std::string image = makeImage("");
	name(image + "::" + mFolder.path("missing.img"), "C=" + image + ":d=" + image + "#3");
	for (const char* one : {"\\\\.\\PhysicalDrive0", "\\\\.\\physicaldrive0", "\\\\.\\C:", "\\\\.\\c:"}) {
		EXPECT_NE(openDevice(one), nullptr) << one;
	}
	for (const char* one : {"PhysicalDrive1", "PhysicalDrive2", "PhysicalDrive3", "PhysicalDrive", "PhysicalDrive0x",
	         "PhysicalDrive-1", "PhysicalDrive4294967296", "D:", "E:", "C", "C:x", "", "dev/null", "../etc/passwd"}) {
		EXPECT_EQ(openDevice(std::string("\\\\.\\") + one), nullptr) << one;
		EXPECT_EQ(lastError(), 2u) << one;
	}
	EXPECT_EQ(fileSystem().open("\\\\.\\C:", {Disposition::createAlways, kAccessWrite}), nullptr);
	EXPECT_EQ(std::filesystem::file_size(image), static_cast<uintmax_t>(kImageSize));
	if (!std::filesystem::is_block_file("/dev/loop0")) GTEST_SKIP() << "no block device to be refused";
	EXPECT_EQ(openDevice("/dev/loop0", kAccessRead), nullptr); // not under its path either
	EXPECT_EQ(lastError(), 5u);
}

TEST_F(Disk, GeometryAndTables) {
	const struct {
		const char* script;
		int64_t odd; // bytes of a sector at the end that do not count
		const char* table;
	} cases[] = {{"", 700, ""}, {kScript, 0, kTable},
	    {"label: gpt\n1 : start=2048, size=4096\n3 : start=8192, size=100\n", 0, "1:2048+4096:ee! 3:8192+100:ee! "}};
	for (const auto& c : cases) {
		name(makeImage(c.script, kImageSize + c.odd), "");
		auto disk = openDevice("\\\\.\\PhysicalDrive0", kAccessRead);
		ASSERT_NE(disk, nullptr);
		int64_t bytes = 0;
		EXPECT_TRUE(disk->size(&bytes));
		EXPECT_EQ(bytes, kImageSize + c.odd / kSector * kSector);
		EXPECT_EQ(sizeByGeometry(*disk), bytes);
		EXPECT_EQ(tableOf(*disk), c.table);
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
	EXPECT_EQ(volume->write(gBuffer, 4096), 512u); // never beyond the end
	EXPECT_EQ(lastError(), 112u);
	EXPECT_EQ(volume->write(gBuffer, 512), 0u);
	EXPECT_EQ(lastError(), 112u);
	EXPECT_EQ(volume->read(gBuffer, 512), 0u);
	EXPECT_EQ(readFile(image).substr((14336 + 2000) * kSector, 512), std::string(512, '\0'));
	EXPECT_EQ(std::filesystem::file_size(image), static_cast<uintmax_t>(kImageSize));
}

TEST_F(Disk, BlockDevice) {
	const std::string answer = mFolder.path("answer");
	if (run("losetup -P -f --show " + makeImage(kScript) + " > " + answer) != 0) GTEST_SKIP() << "no loop devices";
	const std::string device = readFile(answer).substr(0, readFile(answer).find('\n'));
	const bool hasNode = std::filesystem::exists(device + "p5");
	name(device, "P=" + device + (hasNode ? "p5" : "#5"));
	auto disk = openDevice("\\\\.\\PhysicalDrive0");
	auto volume = openDevice("\\\\.\\P:");
	EXPECT_TRUE(disk && volume);
	if (disk && volume) {
		EXPECT_EQ(sizeByGeometry(*disk), kImageSize);
		EXPECT_EQ(tableOf(*volume), kTable);
		EXPECT_EQ(numberOf(*volume), "7:0:5");
		std::memset(gBuffer, 'p', 512);
		EXPECT_EQ(volume->write(gBuffer, 512), 512u);
		EXPECT_TRUE(volume->seek(0, SeekOrigin::end, nullptr));
		EXPECT_EQ(volume->write(gBuffer, 512), 0u);
		EXPECT_TRUE(disk->seek(10240 * kSector, SeekOrigin::begin, nullptr));
		EXPECT_EQ(disk->read(gBuffer + 512, 512), 512u);
		EXPECT_EQ(std::memcmp(gBuffer, gBuffer + 512, 512), 0);
	}
	disk.reset();
	volume.reset();
	EXPECT_EQ(run("losetup -d " + device), 0);
	if (!hasNode) GTEST_SKIP() << "no device nodes of partitions here; the disk itself was checked";
}

} // namespace
