#include "disk_utilities.h"

#include "../base/status.h"
#include "../core/runtime.h"
#include "../platform/file.h"
#include "../platform/format.h"
#include "../platform/machine.h"
#include "target_internal.h"

#include <cstring>
#include <new>
#include <string>

namespace {

constexpr unsigned int kErrorFileNotFound = 2;
constexpr double kMB = 1048576.0;
constexpr double kGB = 1073741824.0;
constexpr double kTB = 1099511627776.0;

constexpr uint32_t kReadWrite = platform::kAccessRead | platform::kAccessWrite;

template <typename T>
void deleteAll(CstmArray<T*>& items) {
	for (T* item : items) delete item;
	items.Delete(0, items.Count());
}

/// Appends and keeps, or deletes what cannot be kept.
template <typename T>
bool keep(CstmArray<T*>& items, T* item) {
	if (item && items.Add(item)) return true;
	delete item;
	return false;
}

} // namespace

// ---- partition

CqorDiskUtil_DrivePartition::CqorDiskUtil_DrivePartition()
    : mDrive(nullptr), mStartingOffset(0), mLength(0), mPartitionNumber(0), mPartitionType(0), mBootIndicator(0),
      mRecognizedPartition(0), mRewritePartition(0), mDriveLetter(0) {
	settype("CqorDiskUtil_DrivePartition");
}

CqorDiskUtil_DrivePartition::~CqorDiskUtil_DrivePartition() = default;

int CqorDiskUtil_DrivePartition::utilGetST_PD_ID(char* out) const {
	constexpr size_t kNameSize = 48; // two numbers of ten digits fit
	if (!out || !mDrive) return kQorFailure;
	platform::formatText(out, kNameSize, "strd:physicaldisk:%d:%d", static_cast<int>(mDrive->GetDiskNumber()),
	    static_cast<int>(mPartitionNumber));
	return kQorSuccess;
}

double CqorDiskUtil_DrivePartition::utilDP_GetSize() const { return static_cast<double>(mLength); }
double CqorDiskUtil_DrivePartition::utilDP_GetSize_MB() const { return utilDP_GetSize() / kMB; }
double CqorDiskUtil_DrivePartition::utilDP_GetSize_GB() const { return utilDP_GetSize() / kGB; }
double CqorDiskUtil_DrivePartition::utilDP_GetSize_TB() const { return utilDP_GetSize() / kTB; }

// ---- drive

CqorDiskUtil_Drive::CqorDiskUtil_Drive()
    : mPath(), mHandle(nullptr), mDiskNumber(0), mTotalSize(0), mCylinders(0), mTracksPerCylinder(0),
      mSectorsPerTrack(0), mBytesPerSector(0), mOpenError(0) {
	settype("CqorDiskUtil_Drive");
}

CqorDiskUtil_Drive::~CqorDiskUtil_Drive() {
	Close();
	FreePartitions();
}

void CqorDiskUtil_Drive::SetPath(const char* path) {
	const size_t length = path ? std::strlen(path) : 0;
	mPath[0] = 0;
	if (length < sizeof(mPath)) platform::formatText(mPath, sizeof(mPath), "%s", path ? path : "");
}

int CqorDiskUtil_Drive::Open(unsigned long access) {
	Close();
	mHandle = storage_parts::openRaw(mPath, static_cast<uint32_t>(access)).release();
	mOpenError = mHandle ? 0 : platform::lastError();
	return mHandle ? kQorSuccess : kQorFailure;
}

void CqorDiskUtil_Drive::Close() {
	delete mHandle;
	mHandle = nullptr;
}

int CqorDiskUtil_Drive::UpdateInfo(int quiet) {
	if (!mPath[0]) return kQorFailure;
	if (Open(platform::kAccessRead) != kQorSuccess) {
		log("[ERROR] [%s] err=%d", mPath, static_cast<int>(mOpenError));
		return kQorSuccess;
	}
	platform::DiskGeometry geometry;
	if (mHandle->geometry(&geometry)) {
		mCylinders = geometry.cylinders;
		mTracksPerCylinder = geometry.tracksPerCylinder;
		mSectorsPerTrack = geometry.sectorsPerTrack;
		mBytesPerSector = geometry.bytesPerSector;
		mTotalSize = storage_parts::diskSize(geometry);
		if (!quiet) storage_parts::logGeometry(*this, geometry);
	} else {
		log("ERROR> IOCTL_DISK_GET_DRIVE_GEOMETRY (err=%d)", static_cast<int>(platform::lastError()));
	}
	Close();
	return kQorSuccess;
}

int CqorDiskUtil_Drive::RetrievePartitions(int quiet) {
	if (!mPath[0]) return kQorFailure;
	FreePartitions();
	if (Open(platform::kAccessRead) != kQorSuccess) {
		log("[ERROR] [%s] err=%d", mPath, static_cast<int>(mOpenError));
		return kQorSuccess;
	}
	platform::DiskLayout layout;
	if (mHandle->layout(&layout)) {
		const int count = static_cast<int>(layout.partitions.size());
		if (!quiet) {
			log("");
			log("# Disk partitions = %d", count);
			log("%s", std::string(105, '-').c_str());
		}
		for (int i = 0; i < count; ++i) addPartition(layout.partitions[static_cast<size_t>(i)], i, quiet);
		for (int i = 0; i < 3 && !quiet; ++i) log("");
	} else {
		log("ERROR> IOCTL_DISK_GET_DRIVE_LAYOUT (err=%d)", static_cast<int>(platform::lastError()));
	}
	Close();
	return kQorSuccess;
}

void CqorDiskUtil_Drive::addPartition(const platform::DiskPartition& entry, int index, int quiet) {
	if (!entry.number) return;
	auto* partition = new (std::nothrow) CqorDiskUtil_DrivePartition;
	if (!keep(mPartitions, partition)) {
		log(3, "No memory for partition %d", index);
		return;
	}
	partition->mDrive = this;
	partition->mStartingOffset = entry.startingOffset;
	partition->mLength = entry.length;
	partition->mPartitionNumber = entry.number;
	partition->mPartitionType = entry.type;
	partition->mBootIndicator = entry.bootIndicator;
	partition->mRecognizedPartition = entry.recognized;
	partition->mRewritePartition = entry.rewrite;
	if (quiet) return;
	const auto offset = static_cast<long long>(entry.startingOffset);
	const auto length = static_cast<long long>(entry.length);
	log("Partition %d / BootIndicator=%d / RecognizedPartition=%d / RewritePartition=%d / PartitionType=%d (%2X)",
	    index, entry.bootIndicator, entry.recognized, entry.rewrite, entry.type, entry.type);
	log("Starting offset      = %15I64d Bytes    %12.2f MB  %12.2f GB", offset, static_cast<double>(offset) / kMB,
	    static_cast<double>(offset) / kGB);
	// "Lenght" stays as it is: readers of these logs look for it.
	log("Partition Lenght     = %15I64d Bytes    %12.2f MB  %12.2f GB", length, partition->utilDP_GetSize_MB(),
	    partition->utilDP_GetSize_GB());
	log("Partition number     = %d", static_cast<int>(entry.number));
	log("");
}

void CqorDiskUtil_Drive::FreePartitions() { deleteAll(mPartitions); }

int CqorDiskUtil_Drive::GetPartitionCount() const { return mPartitions.Count(); }

CqorDiskUtil_DrivePartition* CqorDiskUtil_Drive::GetPartition(int index) const {
	auto* place = mPartitions.Get(index);
	return place ? *place : nullptr;
}

double CqorDiskUtil_Drive::utilDP_GetSize() const { return static_cast<double>(mTotalSize); }
double CqorDiskUtil_Drive::utilDP_GetSize_MB() const { return utilDP_GetSize() / kMB; }
double CqorDiskUtil_Drive::utilDP_GetSize_GB() const { return utilDP_GetSize() / kGB; }
double CqorDiskUtil_Drive::utilDP_GetSize_TB() const { return utilDP_GetSize() / kTB; }

// ---- list

CqorDiskUtil_DriveList::CqorDiskUtil_DriveList() { settype("CqorDiskUtil_DriveList"); }

CqorDiskUtil_DriveList::~CqorDiskUtil_DriveList() { Destroy(); }

void CqorDiskUtil_DriveList::Destroy() { deleteAll(mDrives); }

int CqorDiskUtil_DriveList::Detect(int quiet, int letters) {
	if (!quiet) appmsg("BEGIN> CqorDiskUtil_DriveList::Detect()");
	Destroy();
	int result = kQorSuccess;
	for (unsigned int number = 0; number < kMaximumDisks && result == kQorSuccess; ++number) {
		result = addDisk(number, quiet);
	}
	if (letters) assignLetters();
	if (!quiet) appmsg("END  > CqorDiskUtil_DriveList::Detect()");
	return result;
}

int CqorDiskUtil_DriveList::addDisk(unsigned int number, int quiet) {
	char path[64];
	platform::formatText(path, sizeof(path), "\\\\.\\PhysicalDrive%d", static_cast<int>(number));
	if (!storage_parts::openRaw(path, kReadWrite)) {
		const unsigned int error = platform::lastError();
		if (error != kErrorFileNotFound) appmsg("[ERROR] [%s] err=%d", path, static_cast<int>(error));
		return kQorSuccess;
	}
	if (!quiet) appmsg("OK> %s", path);
	auto* drive = new (std::nothrow) CqorDiskUtil_Drive;
	if (!keep(mDrives, drive)) return kQorFailure;
	drive->SetDiskNumber(number);
	drive->SetPath(path);
	drive->UpdateInfo(quiet);
	drive->RetrievePartitions(quiet);
	return kQorSuccess;
}

void CqorDiskUtil_DriveList::assignLetters() {
	for (char letter = 'A'; letter <= 'Z'; ++letter) {
		if (auto* partition = GetDrivePartitionByDriveLetter(letter)) partition->mDriveLetter = letter;
	}
}

int CqorDiskUtil_DriveList::GetDriveCount() const { return mDrives.Count(); }

CqorDiskUtil_Drive* CqorDiskUtil_DriveList::GetDrive(int index) const {
	auto* place = mDrives.Get(index);
	return place ? *place : nullptr;
}

CqorDiskUtil_DrivePartition* CqorDiskUtil_DriveList::GetDrivePartitionByDeviceAndPartNumber(
    unsigned int diskNumber, unsigned int partitionNumber) const {
	for (const CqorDiskUtil_Drive* drive : mDrives) {
		if (drive->GetDiskNumber() != diskNumber) continue;
		for (int i = 0; i < drive->GetPartitionCount(); ++i) {
			auto* partition = drive->GetPartition(i);
			if (partition->mPartitionNumber == partitionNumber) return partition;
		}
	}
	return nullptr;
}

CqorDiskUtil_DrivePartition* CqorDiskUtil_DriveList::GetDrivePartitionByDriveLetter(char letter) const {
	char path[8];
	platform::formatText(path, sizeof(path), "\\\\.\\%c:", letter);
	const auto volume = storage_parts::openRaw(path, kReadWrite);
	platform::DeviceNumber number;
	if (!volume || !volume->deviceNumber(&number)) return nullptr;
	return GetDrivePartitionByDeviceAndPartNumber(number.diskNumber, number.partitionNumber);
}
