#include "disk_internal.h"

#include "../machine.h"
#include "errors.h"
#include "file_internal.h"
#include "path_internal.h"

#include <algorithm>
#include <blkid/blkid.h>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <linux/fs.h>
#include <new>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

// Disks and volumes are what the operator's two variables name, and nothing else:
//   qorDisks=/dev/sdb:/data/disk.img             disks 0 and 1
//   qorDrives=C=/dev/sdb1:D=/data/disk.img#2     D is the second partition of that disk
namespace platform {
namespace {

constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kInvalidFunction = 1;
constexpr uint32_t kImageSectorSize = 512;
constexpr int64_t kTableUnit = 512; // partition tables are told in these, whatever the sector size
constexpr uint32_t kDiskDeviceType = 7;
constexpr uint8_t kGptType = 0xEE; // the type byte by which older readers know such a disk
constexpr int kPrimaryPlaces = 4;

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

/// Walks the entries of a variable; an entry may be empty and still counts.
template <class Visit>
void forEachEntry(const char* variable, Visit visit) {
	const char* value = std::getenv(variable);
	if (!value) return;
	for (std::string_view rest = value;;) {
		const size_t colon = rest.find(':');
		if (visit(rest.substr(0, colon)) || colon == rest.npos) return;
		rest.remove_prefix(colon + 1);
	}
}

std::string_view diskEntry(uint32_t number) {
	std::string_view found;
	uint32_t index = 0;
	forEachEntry("qorDisks", [&](std::string_view entry) {
		if (index++ != number) return false;
		found = entry;
		return true;
	});
	return found;
}

char upper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

std::string_view driveEntry(char letter) {
	std::string_view found;
	forEachEntry("qorDrives", [&](std::string_view entry) {
		if (entry.size() < 2 || upper(entry[0]) != letter || entry[1] != '=') return false;
		found = entry.substr(2);
		return true;
	});
	return found;
}

bool parseNumber(std::string_view digits, uint32_t* out) {
	const char* end = digits.data() + digits.size();
	const auto result = std::from_chars(digits.data(), end, *out);
	return !digits.empty() && result.ec == std::errc() && result.ptr == end;
}

bool startsWithoutCase(std::string_view text, std::string_view start) {
	return text.size() >= start.size() &&
	       std::equal(start.begin(), start.end(), text.begin(), [](char a, char b) { return upper(a) == upper(b); });
}

/// Where a name under "\\.\" leads.
struct DeviceTarget {
	bool isDisk = false;
	uint32_t disk = 0;      // of a disk
	uint32_t partition = 0; // of a volume that is a part of its path; 0: the whole
	NativePath path;
};

bool resolve(std::string_view name, DeviceTarget* out) {
	constexpr std::string_view kDisk = "PhysicalDrive";
	std::string_view entry;
	if (startsWithoutCase(name, kDisk)) {
		out->isDisk = parseNumber(name.substr(kDisk.size()), &out->disk);
		if (out->isDisk) entry = diskEntry(out->disk);
	} else if (name.size() == 2 && upper(name[0]) >= 'A' && upper(name[0]) <= 'Z' && name[1] == ':') {
		entry = driveEntry(upper(name[0]));
		const size_t mark = entry.rfind('#');
		if (mark != entry.npos && parseNumber(entry.substr(mark + 1), &out->partition)) entry = entry.substr(0, mark);
	}
	return !entry.empty() && out->path.assignNative(entry.data(), entry.size());
}

/// The types that Windows calls recognised: FAT, NTFS and their relatives.
bool isRecognized(uint8_t type) {
	static constexpr uint8_t kTypes[] = {0x01, 0x04, 0x06, 0x07, 0x0B, 0x0C, 0x0E};
	return std::find(std::begin(kTypes), std::end(kTypes), type) != std::end(kTypes);
}

struct ProbeOwner {
	blkid_probe probe;
	explicit ProbeOwner(const char* path) : probe(blkid_new_probe_from_filename(path)) {}
	~ProbeOwner() { blkid_free_probe(probe); }
	ProbeOwner(const ProbeOwner&) = delete;
	ProbeOwner& operator=(const ProbeOwner&) = delete;
};

DiskPartition toPartition(blkid_partition entry, bool gpt) {
	DiskPartition partition;
	partition.startingOffset = blkid_partition_get_start(entry) * kTableUnit;
	partition.length = blkid_partition_get_size(entry) * kTableUnit;
	const unsigned long long flags = blkid_partition_get_flags(entry);
	if (gpt) {
		partition.type = kGptType;
		partition.bootIndicator = (flags >> 2 & 1) != 0;
		partition.recognized = 1;
	} else {
		partition.type = static_cast<uint8_t>(blkid_partition_get_type(entry));
		partition.bootIndicator = (flags & 0x80) != 0;
		partition.recognized = isRecognized(partition.type);
	}
	// An extended partition only holds others: without a number, as on Windows, nobody
	// takes it for a place to store data.
	const int number = blkid_partition_is_extended(entry) ? 0 : blkid_partition_get_partno(entry);
	partition.number = static_cast<uint32_t>(std::max(number, 0));
	return partition;
}

void readPartitions(blkid_partlist list, DiskLayout* out) {
	int expected = 1;
	const int count = blkid_partlist_numof_partitions(list);
	for (int i = 0; i < count; ++i) {
		blkid_partition entry = blkid_partlist_get_partition(list, i);
		blkid_parttable table = blkid_partition_get_table(entry);
		if (blkid_parttable_get_parent(table)) continue; // a table inside a partition
		const bool gpt = std::string_view(blkid_parttable_get_type(table)) != "dos";
		// The four primary places exist, used or not; the list leaves the unused ones out.
		const int place = std::min(blkid_partition_get_partno(entry), kPrimaryPlaces + 1);
		for (; !gpt && expected < place; ++expected) out->partitions.emplace_back();
		out->partitions.push_back(toPartition(entry, gpt));
		++expected;
		if (i + 1 == count && !gpt) {
			for (; expected <= kPrimaryPlaces; ++expected) out->partitions.emplace_back();
		}
	}
}

/// A disk without a table has an empty layout.
bool readLayout(const char* path, DiskLayout* out) {
	out->partitions.clear();
	ProbeOwner owner(path);
	if (!owner.probe) return fail(windowsError(errno));
	blkid_partlist list = blkid_probe_get_partitions(owner.probe);
	if (!list) return true;
	try {
		readPartitions(list, out);
	} catch (const std::bad_alloc&) {
		out->partitions.clear();
		return fail(kOutOfMemory);
	}
	return true;
}

bool findExtent(const DeviceTarget& target, int64_t size, Extent* out) {
	*out = {0, size};
	if (target.partition == 0) return true;
	DiskLayout layout;
	if (!readLayout(target.path.text(), &layout)) return false;
	const auto& all = layout.partitions;
	const auto found =
	    std::find_if(all.begin(), all.end(), [&](const DiskPartition& p) { return p.number == target.partition; });
	if (found == all.end() || found->startingOffset < 0 || found->startingOffset > size) return fail(kFileNotFound);
	*out = {found->startingOffset, std::clamp<int64_t>(found->length, 0, size - found->startingOffset)};
	return true;
}

bool sameDevice(const struct stat& a, const struct stat& b) {
	if (S_ISBLK(a.st_mode) && S_ISBLK(b.st_mode)) return a.st_rdev == b.st_rdev;
	return S_ISREG(a.st_mode) && S_ISREG(b.st_mode) && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// Calls `matches` with the status of every named disk; `number` receives the first match.
template <class Matches>
bool findDisk(Matches matches, uint32_t* number) {
	bool found = false;
	uint32_t index = 0;
	forEachEntry("qorDisks", [&](std::string_view entry) {
		NativePath path;
		struct stat disk = {};
		found = path.assignNative(entry.data(), entry.size()) && stat(path.text(), &disk) == 0 && matches(disk);
		if (found) *number = index;
		++index;
		return found;
	});
	return found;
}

/// Reads "<a>" or "<a>:<b>" from a file about a block device. @return numbers read.
int readDeviceFile(dev_t device, const char* file, unsigned* a, unsigned* b) {
	char path[128];
	std::snprintf(path, sizeof path, "/sys/dev/block/%u:%u/%s", major(device), minor(device), file);
	std::FILE* stream = std::fopen(path, "re");
	if (!stream) return 0;
	const int count = std::fscanf(stream, "%u:%u", a, b);
	std::fclose(stream);
	return count;
}

bool findParentDisk(const struct stat& volume, DeviceNumber* out) {
	unsigned partition = 0, above = 0, below = 0, unused = 0;
	if (!S_ISBLK(volume.st_mode) || readDeviceFile(volume.st_rdev, "partition", &partition, &unused) < 1 ||
	    readDeviceFile(volume.st_rdev, "../dev", &above, &below) != 2) {
		return false;
	}
	const dev_t parent = makedev(above, below);
	if (!findDisk([&](const struct stat& disk) { return S_ISBLK(disk.st_mode) && disk.st_rdev == parent; },
	        &out->diskNumber)) {
		return false;
	}
	out->partitionNumber = partition;
	return true;
}

class DeviceFile final : public PosixFile {
public:
	DeviceFile(Descriptor handle, const FileOpen& how, Extent extent, uint32_t sector, const DeviceTarget& target)
	    : PosixFile(std::move(handle), how, extent, sector), mTarget(target) {}

	bool geometry(DiskGeometry* out) override;
	bool layout(DiskLayout* out) override;
	bool deviceNumber(DeviceNumber* out) override;

private:
	DeviceTarget mTarget;
};

/// Of a volume: its own, so that the product is what can be stored there.
bool DeviceFile::geometry(DiskGeometry* out) {
	int64_t bytes = 0;
	if (!out || !size(&bytes)) return fail(kInvalidFunction);
	*out = {bytes / sectorSize(), 1, 1, sectorSize()};
	return true;
}

/// Of a volume: the table it stands in.
bool DeviceFile::layout(DiskLayout* out) {
	if (!out) return fail(kInvalidFunction);
	if (mTarget.isDisk || mTarget.partition) return readLayout(mTarget.path.text(), out);
	DeviceNumber number;
	NativePath disk;
	if (!deviceNumber(&number)) return false;
	const std::string_view entry = diskEntry(number.diskNumber);
	return disk.assignNative(entry.data(), entry.size()) && readLayout(disk.text(), out);
}

bool DeviceFile::deviceNumber(DeviceNumber* out) {
	if (!out) return fail(kInvalidFunction);
	DeviceNumber number = {kDiskDeviceType, mTarget.disk, mTarget.partition};
	struct stat own = {};
	if (!mTarget.isDisk) {
		if (fstat(handle(), &own) != 0) return fail(windowsError(errno));
		const bool known =
		    findDisk([&](const struct stat& disk) { return sameDevice(own, disk); }, &number.diskNumber) ||
		    findParentDisk(own, &number);
		if (!known) return fail(kInvalidFunction);
	}
	*out = number;
	return true;
}

} // namespace

std::unique_ptr<File> openDevice(const char* name, const FileOpen& how) {
	DeviceTarget target;
	if (!resolve(name + 4, &target)) { // behind "\\.\"
		setLastError(kFileNotFound);
		return nullptr;
	}
	Descriptor handle = openDescriptor(target.path.text(), how, Target::device);
	int64_t size = 0;
	if (!handle || !descriptorSize(handle.get(), &size)) return nullptr;
	int logical = 0;
	const bool block = ioctl(handle.get(), BLKSSZGET, &logical) == 0 && logical > 0;
	const uint32_t sector = block ? static_cast<uint32_t>(logical) : kImageSectorSize;
	Extent extent;
	if (!findExtent(target, size - size % sector, &extent)) return nullptr;
	extent.length -= extent.length % sector;
	std::unique_ptr<File> file(new (std::nothrow) DeviceFile(std::move(handle), how, extent, sector, target));
	setLastError(file ? 0 : kOutOfMemory);
	return file;
}

} // namespace platform
