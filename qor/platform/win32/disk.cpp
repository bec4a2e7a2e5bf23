#include <windows.h>

#include <winioctl.h>

#include "../machine.h"
#include "disk_internal.h"

#include <algorithm>
#include <new>

namespace platform {
namespace {

constexpr size_t kGeometryAnswer = 768;
constexpr size_t kLayoutAnswer = 1280; // 39 partitions

/// @return bytes answered, 0 on failure.
template <size_t kSize>
DWORD query(HANDLE handle, DWORD code, char (&answer)[kSize]) {
	DWORD length = 0;
	return DeviceIoControl(handle, code, nullptr, 0, answer, kSize, &length, nullptr) ? length : 0;
}

bool tooShort() {
	setLastError(ERROR_INVALID_FUNCTION);
	return false;
}

DiskPartition toPartition(const PARTITION_INFORMATION& entry) {
	DiskPartition partition;
	partition.startingOffset = entry.StartingOffset.QuadPart;
	partition.length = entry.PartitionLength.QuadPart;
	partition.number = entry.PartitionNumber;
	partition.type = entry.PartitionType;
	partition.bootIndicator = entry.BootIndicator;
	partition.recognized = entry.RecognizedPartition;
	partition.rewrite = entry.RewritePartition;
	return partition;
}

} // namespace

bool queryGeometry(void* handle, DiskGeometry* out) {
	alignas(DISK_GEOMETRY) char answer[kGeometryAnswer];
	const DWORD length = query(handle, IOCTL_DISK_GET_DRIVE_GEOMETRY, answer);
	if (length == 0) return false;
	if (length < sizeof(DISK_GEOMETRY)) return tooShort();
	const auto& disk = *reinterpret_cast<const DISK_GEOMETRY*>(answer);
	out->cylinders = disk.Cylinders.QuadPart;
	out->tracksPerCylinder = disk.TracksPerCylinder;
	out->sectorsPerTrack = disk.SectorsPerTrack;
	out->bytesPerSector = disk.BytesPerSector;
	return true;
}

bool queryLayout(void* handle, DiskLayout* out) {
	alignas(DRIVE_LAYOUT_INFORMATION) char answer[kLayoutAnswer];
	const DWORD length = query(handle, IOCTL_DISK_GET_DRIVE_LAYOUT, answer);
	if (length == 0) return false;
	constexpr size_t kHeader = offsetof(DRIVE_LAYOUT_INFORMATION, PartitionEntry);
	if (length < kHeader) return tooShort();
	const auto& layout = *reinterpret_cast<const DRIVE_LAYOUT_INFORMATION*>(answer);
	const size_t answered = (length - kHeader) / sizeof(PARTITION_INFORMATION);
	const size_t count = std::min<size_t>(layout.PartitionCount, answered);
	out->partitions.clear();
	try {
		for (size_t i = 0; i < count; ++i) out->partitions.push_back(toPartition(layout.PartitionEntry[i]));
	} catch (const std::bad_alloc&) {
		setLastError(ERROR_NOT_ENOUGH_MEMORY);
		return false;
	}
	return true;
}

bool queryDeviceNumber(void* handle, DeviceNumber* out) {
	alignas(STORAGE_DEVICE_NUMBER) char answer[sizeof(STORAGE_DEVICE_NUMBER)];
	const DWORD length = query(handle, IOCTL_STORAGE_GET_DEVICE_NUMBER, answer);
	if (length == 0) return false;
	if (length < sizeof answer) return tooShort();
	const auto& device = *reinterpret_cast<const STORAGE_DEVICE_NUMBER*>(answer);
	out->deviceType = device.DeviceType;
	out->diskNumber = device.DeviceNumber;
	out->partitionNumber = device.PartitionNumber;
	return true;
}

bool queryLength(void* handle, int64_t* bytes) {
	alignas(GET_LENGTH_INFORMATION) char answer[sizeof(GET_LENGTH_INFORMATION)];
	const DWORD length = query(handle, IOCTL_DISK_GET_LENGTH_INFO, answer);
	if (length == 0) return false;
	if (length < sizeof answer) return tooShort();
	*bytes = reinterpret_cast<const GET_LENGTH_INFORMATION*>(answer)->Length.QuadPart;
	return true;
}

} // namespace platform
