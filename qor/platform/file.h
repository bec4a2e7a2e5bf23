#pragma once

#include "disk.h"
#include "types.h"

#include <cstdint>
#include <memory>

/// Files, volumes and disks.
///
/// The library reaches them through `fileSystem()`, so a test can put a file system in
/// front that fails the n-th call, tears a write or runs out of space. Errors are left
/// for `lastError()`.
namespace platform {

enum class Disposition : uint32_t {
	createNew = 1,
	createAlways = 2,
	openExisting = 3,
	openAlways = 4,
	truncateExisting = 5
};

inline constexpr uint32_t kAccessRead = 0x80000000;
inline constexpr uint32_t kAccessWrite = 0x40000000;
inline constexpr uint32_t kShareNone = 0;
inline constexpr uint32_t kShareRead = 1;
inline constexpr uint32_t kShareWrite = 2;

inline constexpr uint32_t kAttributeNormal = 0x00000080;
inline constexpr uint32_t kFlagWriteThrough = 0x80000000; // a write returns when the medium has it
inline constexpr uint32_t kFlagUnbuffered = 0x20000000; // address, count and position are multiples of the sector size
inline constexpr uint32_t kFlagSequential = 0x08000000;
/// Write-through, unbuffered, sequential, normal: how raw targets are opened.
inline constexpr uint32_t kRawTransfer = 0xA8000080;

/// A transfer that needs no copy in the system starts at a multiple of this.
inline constexpr uint32_t kTransferAlignment = 4096;

struct FileOpen {
	Disposition disposition = Disposition::openExisting;
	uint32_t access = kAccessRead;
	/// What later opens of the same file may do. Between processes of Linux it is advisory.
	uint32_t share = kShareRead | kShareWrite;
	uint32_t flags = kAttributeNormal;
	/// A file that is made is for this user alone, until `takeRightsOf`.
	bool isPrivate = false;
	/// Whether a link in the last part of the path leads on. On Windows, where links need a
	/// privilege to be made, it does.
	bool followsLinks = true;
};

enum class SeekOrigin : uint32_t { begin = 0, current = 1, end = 2 };

/// An open file, volume or disk; closing it is its destruction. One thread at a time.
class File {
public:
	virtual ~File() = default;
	/// One transfer at the current position, which advances by the result.
	/// @return bytes transferred; less than `count` at the end of the file, on a full disk or on an error.
	virtual uint32_t write(const void* data, uint32_t count) = 0;
	virtual uint32_t read(void* buffer, uint32_t count) = 0;
	/// @return false (position unchanged) for a position before the start.
	virtual bool seek(int64_t offset, SeekOrigin origin, int64_t* newPosition) = 0;
	virtual bool size(int64_t* bytes) = 0;
	/// Cuts or lengthens the file; the position stays. @return false where that is not possible.
	virtual bool setSize(int64_t bytes) { return static_cast<void>(bytes), false; }
	/// Hands everything written to the medium.
	virtual bool flush() = 0;
	/// Gives a private file the owner, group and rights of the file at `path` (a link itself
	/// is not followed), or those of a newly made file without one. What the system refuses
	/// stays private.
	virtual void takeRightsOf(const char* path) { static_cast<void>(path); }
	/// Disk queries; false for what is not a disk or volume (see disk.h).
	virtual bool geometry(DiskGeometry* out) = 0;
	virtual bool layout(DiskLayout* out) = 0;
	virtual bool deviceNumber(DeviceNumber* out) = 0;
};

class FileSystem {
public:
	virtual ~FileSystem() = default;
	/// Opens or makes a file. "\\.\PhysicalDrive<n>" is a disk and "\\.\<letter>:" a volume
	/// (their names on Linux: disk.h). Null or empty paths are refused (error 3), and so is
	/// what is neither of them nor a regular file, such as a pipe, that might keep the caller
	/// waiting (error 5); the system's empty file (NUL, /dev/null, and /dev/full) passes for one.
	/// @return null on failure, `lastError()` says why.
	virtual std::unique_ptr<File> open(const char* path, const FileOpen& how) = 0;
	/// Whether a file or folder of that name is there.
	virtual bool exists(const char* path) = 0;
	virtual bool remove(const char* path) = 0;
	/// Gives `from` the name `to` in one step: a reader, or a crash, meets the old contents
	/// of `to` or the new ones, never anything between. Both are on one volume. The step
	/// waits until the medium has it. On Windows nothing replaces an open file: the call
	/// waits a moment for readers to close it, and then fails (error 5 or 32).
	virtual bool replace(const char* from, const char* to) = 0;
};

/// The file system in force.
FileSystem& fileSystem();
/// The operating system's own.
FileSystem& systemFileSystem();
/// Puts another file system in force and returns the former one; null restores the
/// operating system's. For tests; files already open keep the one they came from.
FileSystem* replaceFileSystem(FileSystem* other);

} // namespace platform
