#include <windows.h>

#include <winioctl.h>

#include "../file.h"
#include "../folder.h"
#include "../letter_case_internal.h"
#include "../machine.h"
#include "disk_internal.h"

#include <algorithm>
#include <limits>
#include <new>
#include <utility>

namespace platform {
namespace {

constexpr DWORD kMostRights = 64 << 10; // no access list is longer
// A reader or a virus scanner has a file open for a moment, during which nothing replaces it.
constexpr DWORD kReplaceTries = 100;
constexpr DWORD kReplacePauseMs = 1;
constexpr uint32_t kFileSectorSize = 512; // the least there is; a larger one is checked by the system

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

/// Owns a file handle.
class Handle {
public:
	explicit Handle(HANDLE handle) : mHandle(handle) {}
	Handle(Handle&& other) noexcept : mHandle(std::exchange(other.mHandle, INVALID_HANDLE_VALUE)) {}
	Handle& operator=(Handle&& other) noexcept {
		std::swap(mHandle, other.mHandle);
		return *this;
	}
	~Handle() {
		if (mHandle != INVALID_HANDLE_VALUE) CloseHandle(mHandle);
	}
	HANDLE get() const { return mHandle; }
	explicit operator bool() const { return mHandle != INVALID_HANDLE_VALUE; }

private:
	HANDLE mHandle;
};

bool isDeviceName(const char* path) {
	const auto separator = [](char c) { return c == '\\' || c == '/'; };
	return separator(path[0]) && separator(path[1]) && path[2] == '.' && separator(path[3]);
}

/// The position is kept here and given with every transfer, which saves the system a query
/// and keeps it right after a failed one.
class WindowsFile final : public File {
public:
	/// Nothing until `attach`.
	explicit WindowsFile(const FileOpen& how) : mAccess(how.access), mUnbuffered((how.flags & kFlagUnbuffered) != 0) {}
	void attach(Handle handle, bool device) {
		mHandle = std::move(handle);
		mDevice = device;
		DiskGeometry disk;
		if (device && queryGeometry(mHandle.get(), &disk) && disk.bytesPerSector) mSectorSize = disk.bytesPerSector;
	}

	uint32_t write(const void* data, uint32_t count) override;
	uint32_t read(void* buffer, uint32_t count) override;
	bool seek(int64_t offset, SeekOrigin origin, int64_t* newPosition) override;
	bool size(int64_t* bytes) override;
	bool setSize(int64_t bytes) override;
	void takeRightsOf(const char* path) override;
	bool flush() override { return !(mAccess & kAccessWrite) || FlushFileBuffers(mHandle.get()) != FALSE; }
	bool geometry(DiskGeometry* out) override { return isDisk(out) && queryGeometry(mHandle.get(), out); }
	bool layout(DiskLayout* out) override { return isDisk(out) && queryLayout(mHandle.get(), out); }
	bool deviceNumber(DeviceNumber* out) override { return isDisk(out) && queryDeviceNumber(mHandle.get(), out); }

private:
	bool isDisk(const void* out) const { return (mDevice && out) || fail(ERROR_INVALID_FUNCTION); }
	bool mayTransfer(uint32_t access, const void* data, uint32_t count) const;
	OVERLAPPED placeAt(uint32_t done) const;

	Handle mHandle{INVALID_HANDLE_VALUE};
	uint32_t mAccess;
	bool mUnbuffered;
	bool mDevice = false;
	uint32_t mSectorSize = kFileSectorSize;
	int64_t mPosition = 0;
};

bool WindowsFile::mayTransfer(uint32_t access, const void* data, uint32_t count) const {
	if (!(mAccess & access)) return fail(ERROR_ACCESS_DENIED);
	if (!data) return fail(ERROR_INVALID_PARAMETER);
	const uint64_t mixed = static_cast<uint64_t>(mPosition) | reinterpret_cast<uintptr_t>(data) | count;
	return !mUnbuffered || mixed % mSectorSize == 0 || fail(ERROR_INVALID_PARAMETER);
}

OVERLAPPED WindowsFile::placeAt(uint32_t done) const {
	const auto position = static_cast<uint64_t>(mPosition) + done;
	OVERLAPPED place = {};
	place.Offset = static_cast<DWORD>(position);
	place.OffsetHigh = static_cast<DWORD>(position >> 32);
	return place;
}

uint32_t WindowsFile::write(const void* data, uint32_t count) {
	if (count == 0 || !mayTransfer(kAccessWrite, data, count)) return 0;
	uint32_t done = 0;
	while (done < count) {
		OVERLAPPED place = placeAt(done);
		DWORD moved = 0;
		const BOOL ok = WriteFile(mHandle.get(), static_cast<const char*>(data) + done, count - done, &moved, &place);
		done += moved;
		if (ok && moved == 0) setLastError(ERROR_DISK_FULL);
		if (!ok || moved == 0) break;
	}
	mPosition += done;
	return done;
}

uint32_t WindowsFile::read(void* buffer, uint32_t count) {
	if (count == 0 || !mayTransfer(kAccessRead, buffer, count)) return 0;
	uint32_t done = 0;
	while (done < count) {
		OVERLAPPED place = placeAt(done);
		DWORD moved = 0;
		const BOOL ok = ReadFile(mHandle.get(), static_cast<char*>(buffer) + done, count - done, &moved, &place);
		done += moved;
		if (ok && (moved == 0 || (mUnbuffered && done % mSectorSize != 0))) setLastError(ERROR_HANDLE_EOF);
		if (!ok || moved == 0 || (mUnbuffered && done % mSectorSize != 0)) break;
	}
	if (done == count) setLastError(0);
	mPosition += done;
	return done;
}

bool WindowsFile::seek(int64_t offset, SeekOrigin origin, int64_t* newPosition) {
	int64_t from = 0;
	if (origin == SeekOrigin::current)
		from = mPosition;
	else if (origin == SeekOrigin::end && !size(&from))
		return false;
	else if (origin > SeekOrigin::end)
		return fail(ERROR_INVALID_PARAMETER);
	if (offset > 0 && from > std::numeric_limits<int64_t>::max() - offset) return fail(ERROR_INVALID_PARAMETER);
	if (from + offset < 0) return fail(ERROR_NEGATIVE_SEEK);
	mPosition = from + offset;
	if (newPosition) *newPosition = mPosition;
	return true;
}

bool WindowsFile::size(int64_t* bytes) {
	if (!bytes) return fail(ERROR_INVALID_PARAMETER);
	if (mDevice) return queryLength(mHandle.get(), bytes);
	LARGE_INTEGER length = {};
	if (!GetFileSizeEx(mHandle.get(), &length)) return false;
	*bytes = length.QuadPart;
	return true;
}

/// A new file has the rights that its folder gives, private or not; those of an old one may
/// have been set by hand.
void WindowsFile::takeRightsOf(const char* path) {
	constexpr SECURITY_INFORMATION kAccessList = DACL_SECURITY_INFORMATION;
	const std::unique_ptr<char[]> rights(new (std::nothrow) char[kMostRights]);
	DWORD needed = 0;
	if (rights && path && GetFileSecurityA(path, kAccessList, rights.get(), kMostRights, &needed)) {
		static_cast<void>(SetKernelObjectSecurity(mHandle.get(), kAccessList, rights.get()));
	}
}

bool WindowsFile::setSize(int64_t bytes) {
	FILE_END_OF_FILE_INFO end = {};
	end.EndOfFile.QuadPart = bytes;
	return SetFileInformationByHandle(mHandle.get(), FileEndOfFileInfo, &end, sizeof(end)) != FALSE;
}

class WindowsFileSystem final : public FileSystem {
public:
	std::unique_ptr<File> open(const char* path, const FileOpen& how) override;
	bool exists(const char* path) override;
	bool remove(const char* path) override;
	bool replace(const char* from, const char* to) override;
};

bool isNamed(const char* path) { return (path && *path) || fail(ERROR_PATH_NOT_FOUND); }

Handle openHandle(const char* path, uint32_t access, uint32_t share, uint32_t disposition, uint32_t flags) {
	return Handle(CreateFileA(path, access, share, nullptr, disposition, flags, nullptr));
}

/// Whether a file was opened, or the empty one of the system, and not a console, a port or a
/// pipe, which might keep the caller waiting.
bool isMeant(HANDLE handle, const char* path) {
	return GetFileType(handle) == FILE_TYPE_DISK || equalWithoutCase(fileNamePart(path), "NUL");
}

std::unique_ptr<File> WindowsFileSystem::open(const char* path, const FileOpen& how) {
	if (!isNamed(path)) return nullptr;
	if (how.disposition == Disposition::truncateExisting && !(how.access & kAccessWrite)) {
		setLastError(ERROR_INVALID_PARAMETER); // which not every emulation of the system says
		return nullptr;
	}
	// First what may be refused without a trace: opening may make the file, or empty it.
	std::unique_ptr<WindowsFile> file(new (std::nothrow) WindowsFile(how));
	if (!file) {
		setLastError(ERROR_NOT_ENOUGH_MEMORY);
		return nullptr;
	}
	setLastError(0);
	const uint32_t access = how.access | (how.isPrivate ? WRITE_DAC : 0u); // to set its rights later
	Handle handle = openHandle(path, access, how.share, static_cast<uint32_t>(how.disposition), how.flags);
	if (!handle) return nullptr;
	const uint32_t outcome = lastError();
	const bool device = isDeviceName(path);
	if (!device && !isMeant(handle.get(), path)) {
		setLastError(ERROR_ACCESS_DENIED);
		return nullptr;
	}
	file->attach(std::move(handle), device);
	setLastError(outcome);
	return file;
}

bool WindowsFileSystem::exists(const char* path) {
	return isNamed(path) && GetFileAttributesA(path) != INVALID_FILE_ATTRIBUTES;
}

bool WindowsFileSystem::remove(const char* path) { return isNamed(path) && DeleteFileA(path) != FALSE; }

bool WindowsFileSystem::replace(const char* from, const char* to) {
	if (!isNamed(from) || !isNamed(to)) return false;
	{
		// The new contents must be on the medium before they carry the name.
		Handle source = openHandle(from, kAccessWrite, kShareRead | kShareWrite,
		    static_cast<uint32_t>(Disposition::openExisting), kAttributeNormal);
		if (!source || !FlushFileBuffers(source.get())) return false;
	}
	for (DWORD i = 1;; ++i) {
		if (MoveFileExA(from, to, MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) return true;
		const uint32_t error = lastError();
		if ((error != ERROR_SHARING_VIOLATION && error != ERROR_ACCESS_DENIED) || i == kReplaceTries) return false;
		Sleep(kReplacePauseMs);
	}
}

} // namespace

// Never destroyed: a host's static objects may still close their files after it.
FileSystem& systemFileSystem() {
	alignas(WindowsFileSystem) static unsigned char place[sizeof(WindowsFileSystem)];
	static FileSystem* const made = new (place) WindowsFileSystem;
	return *made;
}

} // namespace platform
