#pragma once

#include <cstdint>
#include <vector>

/// What disks tell about themselves.
///
/// On Windows the answers come from the disk control queries. On Linux only what the
/// operator names exists: the environment variable `qorDisks` lists block devices or
/// image files for disks 0, 1, 2 ... and `qorDrives` maps letters ("C=/dev/sdb1"); the
/// entries of both are separated by ':'. No other raw device is ever opened.
namespace platform {

/// cylinders x tracks x sectors x bytes is the size of the disk. Linux reports one track
/// of one sector per cylinder, so that the product is exact.
struct DiskGeometry {
	int64_t cylinders = 0;
	uint32_t tracksPerCylinder = 0;
	uint32_t sectorsPerTrack = 0;
	uint32_t bytesPerSector = 0;
};

struct DiskPartition {
	int64_t startingOffset = 0; // bytes
	int64_t length = 0;         // bytes
	uint32_t number = 0;        // 0 marks an unused place of the table
	uint8_t type = 0;
	uint8_t bootIndicator = 0;
	uint8_t recognized = 0;
	uint8_t rewrite = 0;
};

struct DiskLayout {
	std::vector<DiskPartition> partitions; // every place of the table, in table order
};

/// Which disk and which of its partitions a volume is.
struct DeviceNumber {
	uint32_t deviceType = 0;
	uint32_t diskNumber = 0;
	uint32_t partitionNumber = 0;
};

} // namespace platform
