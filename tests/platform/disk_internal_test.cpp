#include "qor/platform/file.h"
#include "qor/platform/folder.h"
#include "qor/platform/machine.h"
#include "support/temp_folder.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>

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
		EXPECT_TRUE(script.empty() || std::system(command.c_str()) == 0);
		return path;
	}
	test_support::TempFolder mFolder;
};

constexpr const char* kScript = "label: dos\n1 : start=2048, size=4096, type=83, bootable\n"
                                "2 : start=8192, size=16384, type=5\n"
                                "5 : start=10240, size=2048, type=7\n6 : start=14336, size=2000, type=c\n";
// The second place holds the later two and has no number; the places three and four are unused.
constexpr const char* kTable = "1:2048+4096:131* 0:8192+16384:5 0:0+0:0 0:0+0:0 5:10240+2048:7! 6:14336+2000:12! ";

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
