#pragma once

#include "../base/linear_array.h"
#include "../core/object.h"
#include "../platform/export.h"
#include "../platform/types.h"

#include <cstdint>

class CqorDiskUtil_Drive;

namespace platform {
struct DiskGeometry;
struct DiskPartition;
} // namespace platform

/// Disks looked for by `CqorDiskUtil_DriveList::Detect`: numbers 0 to 31.
inline constexpr int kMaximumDisks = 32;

/// One entry of a disk's partition table. A plain record of what the table said; it
/// belongs to its drive.
class QOR_API CqorDiskUtil_DrivePartition final : public qor {
public:
	CqorDiskUtil_DrivePartition();
	~CqorDiskUtil_DrivePartition();

	/// Writes the partition's stream device name "strd:physicaldisk:<disk>:<partition>".
	/// @param out receives at most 48 characters with the terminator.
	/// @return 0; 0x10000000 for a null `out` or a partition without drive.
	int utilGetST_PD_ID(char* out) const;

	/// The length in bytes, or in units of 2^20, 2^30, 2^40 bytes.
	double utilDP_GetSize() const;
	double utilDP_GetSize_MB() const;
	double utilDP_GetSize_GB() const;
	double utilDP_GetSize_TB() const;

	CqorDiskUtil_Drive* mDrive;    // the owner; null for a partition that stands alone
	long long mStartingOffset;     // bytes from the start of the disk
	long long mLength;             // bytes
	unsigned int mPartitionNumber; // from 1
	unsigned char mPartitionType;  // as in the table
	unsigned char mBootIndicator;  // 1 or 0
	unsigned char mRecognizedPartition;
	unsigned char mRewritePartition;
	char mDriveLetter; // 0: none
};

/// One physical disk: size, geometry and partitions as its last query found them.
///
/// No handle stays open between calls; each query opens and closes the disk. Not locked.
class QOR_API CqorDiskUtil_Drive final : public qor {
public:
	CqorDiskUtil_Drive();
	~CqorDiskUtil_Drive();

	/// Names the disk, such as "\\.\PhysicalDrive0"; null empties the path. A longer text
	/// than 511 characters is refused and leaves the path empty.
	void SetPath(const char* path);
	const char* GetPath() const { return mPath; }
	void SetDiskNumber(unsigned int number) { mDiskNumber = number; }
	unsigned int GetDiskNumber() const { return mDiskNumber; }

	/// Opens the path unbuffered and write-through, shared for reading and writing. An open
	/// handle is closed first.
	/// @param access 0x80000000 read, 0x40000000 write, or both.
	/// @return 0; 0x10000000 with the reason in `GetLastOpenError`.
	int Open(unsigned long access);
	void Close();
	/// The system error of the last failed `Open`.
	unsigned int GetLastOpenError() const { return mOpenError; }

	/// Asks the disk for its geometry. Failures are logged and leave the old values.
	/// @param quiet non-zero: without the lines of the report.
	/// @return 0, also when the disk did not answer; 0x10000000 for an empty path.
	int UpdateInfo(int quiet);

	/// Asks the disk for its partition table and replaces the list. Entries with number 0
	/// are unused places and left out. Failures are logged and leave the list empty.
	/// @return 0, also when the disk did not answer; 0x10000000 for an empty path.
	int RetrievePartitions(int quiet);
	void FreePartitions();

	int GetPartitionCount() const;
	/// @return null for an index outside the list; valid until the next change of the list.
	CqorDiskUtil_DrivePartition* GetPartition(int index) const;

	/// The total size in bytes, or in units of 2^20, 2^30, 2^40 bytes.
	double utilDP_GetSize() const;
	double utilDP_GetSize_MB() const;
	double utilDP_GetSize_GB() const;
	double utilDP_GetSize_TB() const;

	long long GetTotalSize() const { return mTotalSize; }
	long long GetCylinders() const { return mCylinders; }
	unsigned int GetTracksPerCylinder() const { return mTracksPerCylinder; }
	unsigned int GetSectorsPerTrack() const { return mSectorsPerTrack; }
	unsigned int GetBytesPerSector() const { return mBytesPerSector; }

private:
	void addPartition(const platform::DiskPartition& entry, int index, int quiet);

	char mPath[512];
	platform::File* mHandle; // owned; open only during a query
	unsigned int mDiskNumber;
	long long mTotalSize; // bytes
	long long mCylinders;
	unsigned int mTracksPerCylinder;
	unsigned int mSectorsPerTrack;
	unsigned int mBytesPerSector;
	CstmArray<CqorDiskUtil_DrivePartition*> mPartitions; // owned
	unsigned int mOpenError;
};

/// The disks of this machine. Owns its drives. Not locked.
class QOR_API CqorDiskUtil_DriveList : public qor {
public:
	CqorDiskUtil_DriveList();
	~CqorDiskUtil_DriveList();

	/// Looks for disks 0 to 31 and replaces the list by those that open for reading and
	/// writing. A disk that is there and cannot be opened is reported and left out.
	/// @param quiet non-zero: without begin, end and success reports.
	/// @param letters non-zero: gives every partition its drive letter.
	/// @return 0; 0x10000000 without memory (the list then holds what was found so far).
	int Detect(int quiet, int letters);
	void Destroy();

	int GetDriveCount() const;
	/// @return null for an index outside the list; valid until `Detect` or `Destroy`.
	CqorDiskUtil_Drive* GetDrive(int index) const;

	/// @return the first partition of that number on that disk; null when there is none.
	CqorDiskUtil_DrivePartition* GetDrivePartitionByDeviceAndPartNumber(
	    unsigned int diskNumber, unsigned int partitionNumber) const;

	/// Asks the volume of that letter which partition it is.
	/// @return null when the volume does not open, does not answer, or stands on no listed disk.
	CqorDiskUtil_DrivePartition* GetDrivePartitionByDriveLetter(char letter) const;

private:
	int addDisk(unsigned int number, int quiet);
	void assignLetters();

	CstmArray<CqorDiskUtil_Drive*> mDrives; // owned
};
