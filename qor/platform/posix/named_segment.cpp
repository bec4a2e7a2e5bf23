#include "named_segment_internal.h"

#include "../machine.h"
#include "errors.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::posix {

namespace {

constexpr uint32_t kMagic = 0x716F7201;
constexpr uint32_t kFileNotFound = 2;
constexpr off_t kOpenByte = 0;
constexpr off_t kUseByte = 1;
constexpr mode_t kEverybody = 0666; // objects belong to the machine, not to a user

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

bool lockByte(int file, off_t byte, short type, bool waiting) {
	struct flock lock {};
	lock.l_type = type;
	lock.l_whence = SEEK_SET;
	lock.l_start = byte;
	lock.l_len = 1;
	int result = 0;
	do {
		result = fcntl(file, waiting ? F_OFD_SETLKW : F_OFD_SETLK, &lock);
	} while (result != 0 && errno == EINTR);
	return result == 0;
}

uint64_t hash(const char* text, uint64_t value) {
	for (; *text; ++text) value = (value ^ static_cast<unsigned char>(*text)) * UINT64_C(0x100000001B3);
	return value;
}

/// Any name becomes a file name of fixed length; case counts, as it does for objects on Windows.
void pathOf(const char* name, char* path, size_t size) {
	std::snprintf(path, size, "/qor-%016llx%016llx",
	    static_cast<unsigned long long>(hash(name, UINT64_C(0xCBF29CE484222325))),
	    static_cast<unsigned long long>(hash(name, UINT64_C(0x9AE16A3B2F90404F))));
}

bool removed(int file) {
	struct stat status {};
	return fstat(file, &status) != 0 || status.st_nlink == 0;
}

void makeLock(pthread_mutex_t& lock) {
	pthread_mutexattr_t attributes;
	pthread_mutexattr_init(&attributes);
	pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
	pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
	pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
	pthread_mutex_init(&lock, &attributes);
	pthread_mutexattr_destroy(&attributes);
}

} // namespace

/// Opens or makes the file; another process may make or remove it at any time.
bool NamedSegment::openFile(bool mustExist) {
	for (;;) {
		mFile = shm_open(mPath, O_RDWR | O_CLOEXEC, 0);
		if (mFile < 0 && errno == ENOENT && !mustExist) {
			mFile = shm_open(mPath, O_RDWR | O_CLOEXEC | O_CREAT | O_EXCL, kEverybody);
			if (mFile < 0 && errno == EEXIST) continue;
			if (mFile >= 0) fchmod(mFile, kEverybody);
		}
		if (mFile < 0) return fail(windowsError(errno));
		if (!lockByte(mFile, kOpenByte, F_WRLCK, true)) return fail(windowsError(errno));
		if (!removed(mFile)) return true;
		close(mFile);
	}
}

bool NamedSegment::map(bool alone, const std::function<void(SharedState&)>& fill) {
	if (alone && (ftruncate(mFile, 0) != 0 || ftruncate(mFile, sizeof(SharedState)) != 0)) {
		return fail(windowsError(errno));
	}
	struct stat status {};
	if (fstat(mFile, &status) != 0 || status.st_size < static_cast<off_t>(sizeof(SharedState))) {
		return fail(windowsError(EBADF));
	}
	void* memory = mmap(nullptr, sizeof(SharedState), PROT_READ | PROT_WRITE, MAP_SHARED, mFile, 0);
	if (memory == MAP_FAILED) return fail(windowsError(errno));
	mState = static_cast<SharedState*>(memory);
	if (alone) {
		makeLock(mState->lock);
		fill(*mState);
		mState->magic = kMagic;
	}
	return mState->magic == kMagic || fail(windowsError(EBADF));
}

bool NamedSegment::open(
    const char* name, bool mustExist, const std::function<void(SharedState&)>& fill, bool& existed) {
	pathOf(name, mPath, sizeof(mPath));
	if (!openFile(mustExist)) return false;
	const bool alone = lockByte(mFile, kUseByte, F_WRLCK, false);
	existed = !alone;
	if (alone && mustExist) return fail(kFileNotFound); // left over; the destructor removes it
	if (!map(alone, fill)) return false;
	if (!lockByte(mFile, kUseByte, F_RDLCK, true)) return fail(windowsError(errno));
	lockByte(mFile, kOpenByte, F_UNLCK, false);
	return true;
}

void NamedSegment::removeUnlessShared() {
	if (lockByte(mFile, kOpenByte, F_WRLCK, true) && lockByte(mFile, kUseByte, F_WRLCK, false) && !removed(mFile)) {
		shm_unlink(mPath);
	}
	lockByte(mFile, kOpenByte, F_UNLCK, false);
}

NamedSegment::~NamedSegment() {
	if (mState) munmap(mState, sizeof(SharedState));
	if (mFile < 0) return;
	removeUnlessShared();
	close(mFile);
}

} // namespace platform::posix
