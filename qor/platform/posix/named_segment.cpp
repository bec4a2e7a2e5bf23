#include "named_segment_internal.h"

#include "../machine.h"
#include "errors.h"
#include "futex_internal.h"
#include "thread_identity_internal.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

namespace platform::posix {

namespace {

constexpr uint32_t kMagic = 0x716F7202;
constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kAccessDenied = 5;
constexpr uint32_t kInvalidHandle = 6;
constexpr uint32_t kBusy = 170;
constexpr off_t kOpenByte = 0;
constexpr off_t kUseByte = 1;
constexpr mode_t kOwnerOnly = 0600;
// Opening and closing take microseconds; who holds the lock longer was stopped, or is hostile.
constexpr uint32_t kLongestWaitMs = 5000;

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

bool failWithErrno() { return fail(windowsError(errno)); }

bool tryLock(int file, off_t byte, short type) {
	struct flock lock {};
	lock.l_type = type;
	lock.l_whence = SEEK_SET;
	lock.l_start = byte;
	lock.l_len = 1;
	int result = 0;
	do {
		result = fcntl(file, F_OFD_SETLK, &lock);
	} while (result != 0 && errno == EINTR);
	return result == 0;
}

bool waitForLock(int file, off_t byte, short type) {
	const Deadline end(kLongestWaitMs);
	while (!tryLock(file, byte, type)) {
		if (errno != EAGAIN && errno != EACCES) return failWithErrno();
		if (end.passed()) return fail(kBusy);
		const timespec pause = {0, 500000};
		nanosleep(&pause, nullptr);
	}
	return true;
}

uint64_t hash(const char* text, uint64_t value) {
	for (; *text; ++text) value = (value ^ static_cast<unsigned char>(*text)) * UINT64_C(0x100000001B3);
	return value;
}

/// Any name becomes a file name of fixed length; case counts, as it does for objects on Windows.
bool makePath(const char* name, char* path, size_t size) {
	const uint64_t numbering = processNumbering();
	if (!numbering) return false;
	std::snprintf(path, size, "/qor-%u-%llx-%016llx%016llx", geteuid(), static_cast<unsigned long long>(numbering),
	    static_cast<unsigned long long>(hash(name, UINT64_C(0xCBF29CE484222325))),
	    static_cast<unsigned long long>(hash(name, UINT64_C(0x9AE16A3B2F90404F))));
	return true;
}

/// Whether nobody but this user could have written the file. @return false with the last error.
bool isTrusted(const struct stat& file) {
	return (S_ISREG(file.st_mode) && file.st_uid == geteuid() && (file.st_mode & 0777) == kOwnerOnly) ||
	       fail(kAccessDenied);
}

/// The memory is there for good afterwards: touching a page that the system could not give
/// would end the process.
bool reserve(int file, size_t bytes) {
	int result = 0;
	do {
		result = posix_fallocate(file, 0, static_cast<off_t>(bytes));
	} while (result == EINTR);
	return result == 0 || fail(windowsError(result));
}

} // namespace

/// Opens or makes the file; another process may make or remove it at any time.
bool NamedSegment::openFile(bool mustExist) {
	for (;;) {
		mFile = Descriptor(shm_open(mPath, O_RDWR | O_CLOEXEC, 0));
		if (!mFile && errno == ENOENT && !mustExist) {
			mFile = Descriptor(shm_open(mPath, O_RDWR | O_CLOEXEC | O_CREAT | O_EXCL, kOwnerOnly));
			if (!mFile && errno == EEXIST) continue;
			if (mFile) static_cast<void>(fchmod(mFile.get(), kOwnerOnly)); // whatever the host's mask takes away
		}
		if (!mFile) return failWithErrno();
		struct stat file = {};
		if (fstat(mFile.get(), &file) != 0) return failWithErrno();
		if (!isTrusted(file) || !waitForLock(mFile.get(), kOpenByte, F_WRLCK)) return false;
		mInode = file.st_ino;
		if (fstat(mFile.get(), &file) == 0 && file.st_nlink != 0) return true;
	}
}

bool NamedSegment::map(bool alone, const std::function<void(SharedState&)>& fill) {
	if (alone && ftruncate(mFile.get(), 0) != 0) return failWithErrno();
	if (alone && !reserve(mFile.get(), sizeof(SharedState))) return false;
	struct stat status {};
	if (fstat(mFile.get(), &status) != 0 || status.st_size < static_cast<off_t>(sizeof(SharedState))) {
		return fail(kInvalidHandle);
	}
	void* memory = mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED, mFile.get(), 0);
	if (memory == MAP_FAILED) return failWithErrno();
	mState = static_cast<SharedState*>(memory);
	if (alone) {
		fill(*mState);
		mState->magic.store(kMagic, std::memory_order_release);
	}
	return mState->magic.load(std::memory_order_acquire) == kMagic || fail(kInvalidHandle);
}

bool NamedSegment::open(
    const char* name, bool mustExist, const std::function<void(SharedState&)>& fill, bool& existed) {
	if (!makePath(name, mPath, sizeof(mPath))) return false;
	if (!openFile(mustExist)) return false;
	mProcess = processId();
	const bool alone = tryLock(mFile.get(), kUseByte, F_WRLCK);
	existed = !alone;
	if (alone && mustExist) return fail(kFileNotFound); // left over; the destructor removes it
	if (!map(alone, fill) || !waitForLock(mFile.get(), kUseByte, F_RDLCK)) return false;
	tryLock(mFile.get(), kOpenByte, F_UNLCK);
	return true;
}

bool NamedSegment::isOwn() const { return mProcess == processId(); }

void NamedSegment::removeUnlessShared() {
	if (!mFile || !isOwn()) return;
	const int file = mFile.get();
	struct stat status {};
	// A host that closes all descriptors may have another file under this number by now.
	const auto isThere = [&] { return fstat(file, &status) == 0 && status.st_ino == mInode && status.st_nlink != 0; };
	if (!isThere() || !waitForLock(file, kOpenByte, F_WRLCK)) return;
	if (tryLock(file, kUseByte, F_WRLCK) && isThere()) shm_unlink(mPath);
	tryLock(file, kOpenByte, F_UNLCK);
}

NamedSegment::~NamedSegment() {
	const uint32_t error = lastError();
	if (mState) munmap(mState, sizeof(SharedState));
	removeUnlessShared();
	setLastError(error);
}

void NamedSegment::beforeFork() {
	char path[32];
	std::snprintf(path, sizeof path, "/proc/self/fd/%d", mFile.get());
	mForChild = Descriptor(::open(path, O_RDWR | O_CLOEXEC));
	if (mForChild && !tryLock(mForChild.get(), kUseByte, F_RDLCK)) mForChild = Descriptor();
}

void NamedSegment::afterForkInParent() { mForChild = Descriptor(); }

/// Without a file of its own the child has only memory, which it does not use.
void NamedSegment::afterForkInChild() {
	mFile = std::move(mForChild);
	mForChild = Descriptor();
	if (mFile) mProcess = processId();
}

} // namespace platform::posix
