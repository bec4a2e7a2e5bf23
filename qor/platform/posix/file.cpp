#include "file_internal.h"

#include "../machine.h"
#include "disk_internal.h"
#include "errors.h"
#include "path_internal.h"
#include "rights_internal.h"
#include "share_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <linux/fs.h>
#include <new>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr uint32_t kInvalidFunction = 1;
constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kPathNotFound = 3;
constexpr uint32_t kAccessDenied = 5;
constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kSharingViolation = 32;
constexpr uint32_t kEndOfFile = 38;
constexpr uint32_t kFileExists = 80;
constexpr uint32_t kInvalidParameter = 87;
constexpr uint32_t kDiskFull = 112;
constexpr uint32_t kNegativeSeek = 131;
constexpr uint32_t kAlreadyExists = 183;

constexpr uint32_t kFileSectorSize = 512;

constexpr mode_t kEverybody = 0666; // less the host's mask
constexpr mode_t kOwnerOnly = 0600;

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

bool failWithErrno() { return fail(windowsError(errno)); }

Descriptor noDescriptor(uint32_t error) {
	setLastError(error);
	return Descriptor();
}

bool truncates(Disposition disposition) {
	return disposition == Disposition::createAlways || disposition == Disposition::truncateExisting;
}

bool makes(Disposition disposition) {
	return disposition == Disposition::createNew || disposition == Disposition::createAlways ||
	       disposition == Disposition::openAlways;
}

/// "Not there" has two numbers: the file is missing, or the folder above it.
uint32_t openError(int number, const char* path) {
	if (number == EEXIST) return kFileExists;
	if (number == ENOTDIR) return kPathNotFound;
	if (number != ENOENT) return windowsError(number);
	NativePath file;
	NativePath folder;
	if (!file.assignNative(path, std::char_traits<char>::length(path))) return kPathNotFound;
	file.folder(&folder);
	struct stat above = {};
	return stat(folder.text(), &above) == 0 && S_ISDIR(above.st_mode) ? kFileNotFound : kPathNotFound;
}

int openRetrying(const char* path, int flags, mode_t rights = kEverybody) {
	int handle;
	do {
		handle = open(path, flags, rights);
	} while (handle < 0 && errno == EINTR);
	return handle;
}

int systemFlags(const FileOpen& how) {
	int flags = O_CLOEXEC | O_NOCTTY | O_NONBLOCK; // a pipe that came up meanwhile is not waited for
	if (!how.followsLinks) flags |= O_NOFOLLOW;
	// Locks of both kinds want both directions, so a file to write is opened for reading too.
	flags |= how.access & kAccessWrite || truncates(how.disposition) ? O_RDWR : O_RDONLY;
	if (makes(how.disposition)) flags |= O_CREAT;
	if (how.disposition == Disposition::createNew) flags |= O_EXCL;
	if (how.flags & kFlagWriteThrough) flags |= O_DSYNC;
	return flags;
}

/// The empty and the full file of the system never keep a caller waiting.
bool isHarmlessDevice(const struct stat& file) {
	return S_ISCHR(file.st_mode) && (file.st_rdev == makedev(1, 3) || file.st_rdev == makedev(1, 7));
}

bool isMeant(const struct stat& file, Target target) {
	if (S_ISREG(file.st_mode)) return true;
	return target == Target::file ? isHarmlessDevice(file) : S_ISBLK(file.st_mode);
}

void waitInTransfers(int handle) {
	const int now = fcntl(handle, F_GETFL);
	if (now >= 0) static_cast<void>(fcntl(handle, F_SETFL, now & ~O_NONBLOCK));
}

/// Unbuffered as far as the file system can; one that cannot (some memory file systems)
/// buffers, which only the speed tells.
void applyHints(int handle, uint32_t flags) {
	if (flags & kFlagUnbuffered) {
		const int now = fcntl(handle, F_GETFL);
		if (now >= 0) static_cast<void>(fcntl(handle, F_SETFL, now | O_DIRECT));
	}
	if (flags & kFlagSequential) static_cast<void>(posix_fadvise(handle, 0, 0, POSIX_FADV_SEQUENTIAL));
}

/// One of `move`'s transfers after the other until all is done, nothing moves or one fails.
/// @return bytes moved.
template <class Move>
uint32_t transfer(uint32_t count, uint32_t unit, Move move) {
	uint32_t done = 0;
	while (done < count) {
		const ssize_t moved = move(done);
		if (moved < 0 && errno == EINTR) continue;
		if (moved < 0) {
			setLastError(windowsError(errno));
			break;
		}
		done += static_cast<uint32_t>(moved);
		// An unbuffered transfer that stopped inside a sector met the end.
		if (moved == 0 || done % unit != 0) break;
	}
	return done;
}

bool syncDescriptor(int handle) {
	int result;
	do {
		result = fsync(handle);
	} while (result != 0 && errno == EINTR);
	// What has no medium (pipes, some folders) says so with these.
	return result == 0 || errno == EINVAL || errno == EROFS || errno == ENOTSUP;
}

bool syncPath(const char* path, int flags) {
	Descriptor handle(openRetrying(path, O_CLOEXEC | O_NOCTTY | O_NONBLOCK | flags));
	return handle && syncDescriptor(handle.get());
}

class PosixFileSystem final : public FileSystem {
public:
	std::unique_ptr<File> open(const char* path, const FileOpen& how) override;
	bool exists(const char* path) override;
	bool remove(const char* path) override;
	bool replace(const char* from, const char* to) override;
};

std::unique_ptr<File> PosixFileSystem::open(const char* path, const FileOpen& how) {
	if (isDeviceName(path)) return openDevice(path, how);
	NativePath native;
	if (!native.assign(path)) return nullptr;
	// First what may be refused without a trace: opening may make the file, or empty it.
	std::unique_ptr<PosixFile> file(new (std::nothrow) PosixFile(Descriptor(), how, Extent(), kFileSectorSize));
	if (!file) {
		setLastError(kOutOfMemory);
		return nullptr;
	}
	Descriptor handle = openDescriptor(native.text(), how, Target::file);
	if (!handle) return nullptr;
	file->attach(std::move(handle));
	return file;
}

bool PosixFileSystem::exists(const char* path) {
	NativePath native;
	struct stat found = {};
	return native.assign(path) && stat(native.text(), &found) == 0;
}

bool PosixFileSystem::remove(const char* path) {
	NativePath native;
	if (!native.assign(path)) return false;
	if (unlink(native.text()) == 0) return true;
	return fail(errno == EISDIR ? kAccessDenied : openError(errno, native.text()));
}

bool PosixFileSystem::replace(const char* from, const char* to) {
	NativePath source;
	NativePath target;
	NativePath sourceFolder;
	NativePath targetFolder;
	if (!source.assign(from) || !target.assign(to)) return false;
	source.folder(&sourceFolder);
	target.folder(&targetFolder);
	// The new contents must be on the medium before they carry the name.
	if (!syncPath(source.text(), O_RDONLY | O_NOFOLLOW) &&
	    !(errno == EACCES && syncPath(source.text(), O_WRONLY | O_NOFOLLOW))) {
		return fail(openError(errno, source.text()));
	}
	if (rename(source.text(), target.text()) != 0) {
		return fail(errno == EISDIR || errno == ENOTEMPTY ? kAccessDenied : openError(errno, target.text()));
	}
	if (!syncFolder(targetFolder.text())) return failWithErrno();
	const bool sameFolder = std::string_view(sourceFolder.text()) == targetFolder.text();
	return sameFolder || syncFolder(sourceFolder.text()) || failWithErrno();
}

} // namespace

Descriptor::~Descriptor() {
	if (mHandle >= 0) close(mHandle);
}

Descriptor openDescriptor(const char* path, const FileOpen& how, Target target) {
	const bool truncate = truncates(how.disposition);
	if (how.disposition < Disposition::createNew || how.disposition > Disposition::truncateExisting ||
	    (how.disposition == Disposition::truncateExisting && !(how.access & kAccessWrite)) ||
	    (target == Target::device && (truncate || how.disposition == Disposition::createNew))) {
		return noDescriptor(kInvalidParameter);
	}
	struct stat found = {};
	const bool existed = stat(path, &found) == 0;
	if (existed && how.disposition == Disposition::createNew) return noDescriptor(kFileExists);
	// Before the open as well as after it: a device that is not ours is not even opened.
	if (existed && !isMeant(found, target)) return noDescriptor(kAccessDenied);

	int flags = systemFlags(how);
	if (target == Target::device) flags &= ~O_CREAT;
	Descriptor handle(openRetrying(path, flags, how.isPrivate ? kOwnerOnly : kEverybody));
	if (!handle && errno == EACCES && (flags & O_ACCMODE) == O_RDWR && !(how.access & kAccessRead)) {
		handle = Descriptor(openRetrying(path, (flags & ~O_ACCMODE) | O_WRONLY));
	}
	if (!handle) return noDescriptor(openError(errno, path));
	if (fstat(handle.get(), &found) != 0 || !isMeant(found, target)) return noDescriptor(kAccessDenied);
	waitInTransfers(handle.get());
	const bool regular = S_ISREG(found.st_mode);
	if ((regular || S_ISBLK(found.st_mode)) && !claimSharing(handle.get(), how.access, how.share)) {
		return noDescriptor(kSharingViolation);
	}
	if (truncate && regular && ftruncate(handle.get(), 0) != 0) return noDescriptor(windowsError(errno));
	applyHints(handle.get(), how.flags);
	setLastError(existed && makes(how.disposition) ? kAlreadyExists : 0);
	return handle;
}

bool syncFolder(const char* path) { return syncPath(path, O_RDONLY | O_DIRECTORY); }

bool descriptorSize(int handle, int64_t* bytes) {
	struct stat file = {};
	if (fstat(handle, &file) != 0) return failWithErrno();
	if (!S_ISBLK(file.st_mode)) {
		*bytes = file.st_size;
		return true;
	}
	uint64_t length = 0;
	if (ioctl(handle, BLKGETSIZE64, &length) != 0) return failWithErrno();
	*bytes = static_cast<int64_t>(length);
	return true;
}

PosixFile::PosixFile(Descriptor handle, const FileOpen& how, Extent extent, uint32_t sectorSize)
    : mAccess(how.access), mUnbuffered((how.flags & kFlagUnbuffered) != 0), mExtent(extent), mSectorSize(sectorSize) {
	if (handle) attach(std::move(handle));
}

void PosixFile::attach(Descriptor handle) {
	mHandle = std::move(handle);
	struct stat file = {};
	mSeekable = fstat(mHandle.get(), &file) == 0 && (S_ISREG(file.st_mode) || S_ISBLK(file.st_mode));
}

/// What the system may let pass, refused alike on every file system.
bool PosixFile::mayTransfer(uint32_t access, const void* data, uint32_t count) const {
	if (!(mAccess & access)) return fail(kAccessDenied);
	if (!data) return fail(kInvalidParameter);
	const uint64_t mixed = static_cast<uint64_t>(mPosition) | reinterpret_cast<uintptr_t>(data) | count;
	return !mUnbuffered || mixed % mSectorSize == 0 || fail(kInvalidParameter);
}

uint32_t PosixFile::roomUntilEnd(uint32_t count) const {
	const int64_t end = mExtent.length >= 0 ? mExtent.length : std::numeric_limits<int64_t>::max();
	return static_cast<uint32_t>(std::clamp<int64_t>(end - mPosition, 0, count));
}

uint32_t PosixFile::write(const void* data, uint32_t count) {
	if (count == 0 || !mayTransfer(kAccessWrite, data, count)) return 0;
	const uint32_t fits = roomUntilEnd(count);
	setLastError(kDiskFull); // unless the transfer says otherwise, nothing else makes it short
	const auto* bytes = static_cast<const char*>(data);
	const uint32_t done = transfer(fits, 1, [&](uint32_t at) {
		if (!mSeekable) return ::write(handle(), bytes + at, fits - at);
		return pwrite(handle(), bytes + at, fits - at, mExtent.start + mPosition + at);
	});
	if (done == count) setLastError(0);
	mPosition += done;
	return done;
}

uint32_t PosixFile::read(void* buffer, uint32_t count) {
	if (count == 0 || !mayTransfer(kAccessRead, buffer, count)) return 0;
	const uint32_t fits = roomUntilEnd(count);
	setLastError(kEndOfFile); // likewise
	auto* bytes = static_cast<char*>(buffer);
	const uint32_t done = transfer(fits, mUnbuffered ? mSectorSize : 1, [&](uint32_t at) {
		if (!mSeekable) return ::read(handle(), bytes + at, fits - at);
		return pread(handle(), bytes + at, fits - at, mExtent.start + mPosition + at);
	});
	if (done == count) setLastError(0);
	mPosition += done;
	return done;
}

bool PosixFile::seek(int64_t offset, SeekOrigin origin, int64_t* newPosition) {
	int64_t from = 0;
	if (origin == SeekOrigin::current)
		from = mPosition;
	else if (origin == SeekOrigin::end && !size(&from))
		return false;
	else if (origin > SeekOrigin::end)
		return fail(kInvalidParameter);
	int64_t position;
	if (__builtin_add_overflow(from, offset, &position)) return fail(kInvalidParameter);
	if (position < 0) return fail(kNegativeSeek);
	mPosition = position;
	if (newPosition) *newPosition = position;
	return true;
}

bool PosixFile::size(int64_t* bytes) {
	if (!bytes) return fail(kInvalidParameter);
	if (mExtent.length < 0) return descriptorSize(handle(), bytes);
	*bytes = mExtent.length;
	return true;
}

bool PosixFile::setSize(int64_t bytes) {
	if (!(mAccess & kAccessWrite) || mExtent.length >= 0 || bytes < 0) return fail(kInvalidParameter);
	return ftruncate(handle(), bytes) == 0 || failWithErrno();
}

bool PosixFile::flush() {
	if (!(mAccess & kAccessWrite) || syncDescriptor(handle())) return true;
	return failWithErrno();
}

void PosixFile::takeRightsOf(const char* path) {
	NativePath native;
	if (native.assign(path)) takeRights(handle(), native.text());
}

bool PosixFile::geometry(DiskGeometry*) { return fail(kInvalidFunction); }
bool PosixFile::layout(DiskLayout*) { return fail(kInvalidFunction); }
bool PosixFile::deviceNumber(DeviceNumber*) { return fail(kInvalidFunction); }

// Never destroyed: a host's static objects may still close their files after it.
FileSystem& systemFileSystem() {
	alignas(PosixFileSystem) static unsigned char place[sizeof(PosixFileSystem)];
	static FileSystem* const made = new (place) PosixFileSystem;
	return *made;
}

} // namespace platform
