#include "storage_fixture.h"
#include "support/memory_files.h"

#include "qor/platform/machine.h"

using namespace storage_test;

namespace {

constexpr long long kGB = 1 << 30;

/// Disk 1 with three used places of its table, disk 2 that answers nothing, disk 5 that
/// does not open; letter D is the second partition of disk 1, letter E of no listed disk.
class FakeDisks final : public platform::FileSystem {
public:
	FakeDisks() { platform::replaceFileSystem(this); }
	~FakeDisks() override { platform::replaceFileSystem(nullptr); }
	std::unique_ptr<platform::File> open(const char* path, const platform::FileOpen& how) override {
		EXPECT_EQ(how.flags, 0xA8000080u);
		const std::string name(path);
		platform::setLastError(name == "\\\\.\\PhysicalDrive5" ? 5 : 2);
		for (const char* known : {"\\\\.\\PhysicalDrive1", "\\\\.\\PhysicalDrive2", "\\\\.\\D:", "\\\\.\\E:"}) {
			if (name == known) return std::make_unique<Disk>(name);
		}
		return nullptr;
	}
	bool exists(const char*) override { return false; }
	bool remove(const char*) override { return false; }
	bool replace(const char*, const char*) override { return false; }

private:
	struct Disk final : test_support::MemoryFile {
		explicit Disk(std::string name) : MemoryFile(mName), mName(std::move(name)) {}
		bool geometry(platform::DiskGeometry* out) override {
			*out = {1000000, 255, 63, 512};
			return mName.back() == '1';
		}
		bool layout(platform::DiskLayout* out) override {
			out->partitions = {{1 << 20, 16 * kGB, 1, 7, 1, 1, 0}, {0, 0, 0, 0, 0, 0, 0},
			    {17 * kGB, 3 * kGB / 2, 2, 0x83, 0, 1, 1}, {20 * kGB, kGB, 3, 5, 0, 0, 0}};
			return mName.back() == '1';
		}
		bool deviceNumber(platform::DeviceNumber* out) override {
			*out = {7, mName == "\\\\.\\D:" ? 1u : 9u, 2};
			return mName.back() == ':';
		}
		std::string mName;
	};
};

using DiskUtilities = StorageTest;

TEST_F(DiskUtilities, DetectsDisksPartitionsAndLetters) {
	FakeDisks disks;
	CqorDiskUtil_DriveList list;
	EXPECT_EQ(list.Detect(1, 0), 0); // quiet: errors alone, no letters
	EXPECT_TRUE(hasLogged("[ERROR] [\\\\.\\PhysicalDrive5] err=5"));
	for (const char* line : {"BEGIN>", "OK>", "Geometry", "Partition", "END  >"}) EXPECT_FALSE(hasLogged(line)) << line;
	EXPECT_EQ(list.GetDrive(0)->GetPartition(1)->mDriveLetter, 0);
	EXPECT_EQ(list.Detect(0, 1), 0);
	for (const char* line : {"BEGIN> CqorDiskUtil_DriveList::Detect()", "OK> \\\\.\\PhysicalDrive1",
	         "[ERROR] [\\\\.\\PhysicalDrive5] err=5", "Cylinder count .......... 1000000", "# Disk partitions = 4",
	         "Total Byte Size ......... 8225280000000    7844238.28 MB       7660.39 GB",
	         "Partition 2 / BootIndicator=0 / RecognizedPartition=1 / RewritePartition=1 / PartitionType=131 (83)",
	         "Starting offset      =         1048576 Bytes            1.00 MB          0.00 GB",
	         "Partition Lenght     =      1610612736 Bytes         1536.00 MB          1.50 GB",
	         "Partition number     = 3", "ERROR> IOCTL_DISK_GET_DRIVE_LAYOUT (err=2)",
	         "END  > CqorDiskUtil_DriveList::Detect()"}) {
		EXPECT_TRUE(hasLogged(line)) << line;
	}
	EXPECT_FALSE(hasLogged("PhysicalDrive0"));
	const CqorDiskUtil_Drive& drive = *list.GetDrive(0);
	ASSERT_TRUE(list.GetDriveCount() == 2 && drive.GetPartitionCount() == 3);
	EXPECT_EQ(drive.GetPartition(-1), nullptr);
	const CqorDiskUtil_DrivePartition* second = list.GetDrivePartitionByDeviceAndPartNumber(1, 2);
	ASSERT_EQ(second, drive.GetPartition(1));
	EXPECT_TRUE(second->mDriveLetter == 'D' && drive.GetPartition(0)->mDriveLetter == 0);
	EXPECT_EQ(list.GetDrivePartitionByDriveLetter('E'), nullptr);
	EXPECT_EQ(second->utilDP_GetSize_GB(), 1.5);
	char name[48];
	EXPECT_EQ(second->utilGetST_PD_ID(name), 0);
	EXPECT_STREQ(name, "strd:physicaldisk:1:2");
	for (const int result : {second->utilGetST_PD_ID(nullptr), CqorDiskUtil_DrivePartition().utilGetST_PD_ID(name),
	         CqorDiskUtil_Drive().UpdateInfo(1), CqorDiskUtil_Drive().RetrievePartitions(1)})
		EXPECT_EQ(result, 0x10000000);
}

} // namespace
