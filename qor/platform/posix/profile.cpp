#include "../profile.h"

#include "../draft.h"
#include "../draft_internal.h"
#include "../letter_case_internal.h"
#include "../machine.h"
#include "../profile_internal.h"
#include "file_internal.h"
#include "futex_internal.h"
#include "profile_text_internal.h"

#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

// A reader opens the file as it is at this moment: complete, as every change is a new file
// that takes the old one's name. A writer locks the file from reading it until its new
// contents have the name; the lock belongs to the open file, so that it holds between threads
// and processes alike and ends with a process that is killed. Whoever gets the lock of a file
// that has lost its name meanwhile goes on to the one that has it now.
namespace platform {
namespace {

using namespace profile_text;

constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kPathNotFound = 3;
constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kSharingViolation = 32;
constexpr uint32_t kInvalidParameter = 87;
constexpr uint32_t kAlreadyExists = 183;
constexpr uint32_t kTooLarge = 223;
constexpr int64_t kMaximumSize = 16 << 20;

// Anybody who may read the file may lock it, too, so nobody is waited for without end.
constexpr uint32_t kLongestWaitMs = 10000;
constexpr off_t kWriterByte = 0x7FFFFFFFFFFFFF10; // behind any data, and beside the bytes of sharing

/// @return false when another writer keeps the lock too long. Where there are no locks, true.
bool lockWriter(int file, const posix::Deadline& end) {
	struct flock lock = {};
	lock.l_type = F_WRLCK;
	lock.l_whence = SEEK_SET;
	lock.l_start = kWriterByte;
	lock.l_len = 1;
	while (fcntl(file, F_OFD_SETLK, &lock) != 0) {
		if (errno != EAGAIN && errno != EACCES && errno != EINTR) return true;
		if (end.passed()) return false;
		const timespec pause = {0, 1000000};
		nanosleep(&pause, nullptr);
	}
	return true;
}

bool hasName(int file, const char* path) {
	struct stat open = {}, named = {};
	return fstat(file, &open) == 0 && lstat(path, &named) == 0 && open.st_dev == named.st_dev &&
	       open.st_ino == named.st_ino;
}

/// Keeps other writers away from a file. A missing one is made, and goes again unless its
/// contents are written.
class WriterLock {
public:
	explicit WriterLock(const std::string& path) : mPath(path) {}
	~WriterLock() {
		if (mMade && hasName(mFile.get(), mPath.c_str())) unlink(mPath.c_str());
	}
	WriterLock(const WriterLock&) = delete;
	WriterLock& operator=(const WriterLock&) = delete;

	/// @param make whether a missing file is made. @return false with `lastError()`.
	bool lock(bool make) {
		const posix::Deadline end(kLongestWaitMs);
		FileOpen how{make ? Disposition::openAlways : Disposition::openExisting, kAccessRead | kAccessWrite};
		how.followsLinks = false;
		do {
			mFile = openDescriptor(mPath.c_str(), how, Target::file);
			if (!mFile) return false;
			mMade = make && lastError() != kAlreadyExists;
			if (lockWriter(mFile.get(), end)) continue;
			mMade = false; // whoever has the lock has the file, too
			setLastError(kSharingViolation);
			return false;
		} while (!hasName(mFile.get(), mPath.c_str()));
		return true;
	}
	void keep() { mMade = false; }

private:
	const std::string& mPath;
	Descriptor mFile;
	bool mMade = false;
};

/// @return false with `lastError()`.
bool load(const char* path, bool followsLinks, Contents* contents) {
	FileOpen how;
	how.followsLinks = followsLinks;
	const auto file = fileSystem().open(path, how);
	int64_t size = 0;
	if (!file || !file->size(&size)) return false;
	if (size > kMaximumSize) {
		setLastError(kTooLarge);
		return false;
	}
	std::string bytes(static_cast<size_t>(size), '\0');
	if (file->read(bytes.data(), static_cast<uint32_t>(size)) != size) return false;
	*contents = decode(std::move(bytes));
	return true;
}

bool save(const std::string& path, const Contents& contents) {
	const std::string bytes = encode(contents);
	Draft draft;
	return draft.open(path.c_str()) && draft.write(bytes.data(), bytes.size()) && draft.commit();
}

int writeString(const Change& change, const char* path) {
	const std::string target = draftTarget(path);
	if (target.empty()) return 0;
	WriterLock writer(target);
	if (!writer.lock(change.key && change.value)) return lastError() == kFileNotFound ? 1 : 0; // nothing to remove
	Contents contents;
	// A file that is there but cannot be read must not be replaced by a new one.
	if (!load(target.c_str(), false, &contents)) return 0;
	if (apply(change, &contents) && !save(target, contents)) return 0;
	writer.keep();
	return 1;
}

/// As the Windows reader: sign, base prefix, digits; what is beyond 32 bits is dropped.
int toInteger(std::string_view value) {
	size_t at = value.find_first_not_of(" \t"); // they may stand behind a quote
	if (at == value.npos) return 0;
	const bool negative = value[at] == '-';
	if (negative || value[at] == '+') ++at;
	unsigned base = 10;
	if (value.size() > at + 1 && value[at] == '0') {
		const char mark = value[at + 1];
		base = mark == 'x' ? 16 : mark == 'o' ? 8 : mark == 'b' ? 2 : 10;
		if (base != 10) at += 2;
	}
	uint32_t result = 0;
	for (; at < value.size(); ++at) {
		const char c = lowerCase(value[at]);
		const unsigned digit = c >= '0' && c <= '9'   ? static_cast<unsigned>(c - '0')
		                       : c >= 'a' && c <= 'f' ? static_cast<unsigned>(c - 'a' + 10)
		                                              : 16;
		if (digit >= base) break;
		result = result * base + digit;
	}
	return static_cast<int>(negative ? 0 - result : result);
}

/// Hands the value of a key to `use`. @return false when there is none.
template <class Use>
bool withValue(const char* section, const char* key, const char* path, Use use) {
	if (!section || !key || !path || !*path) return false;
	try {
		Contents contents;
		if (!load(path, true, &contents)) return false;
		std::string_view value;
		const bool found =
		    findValue(contents.text, fromHost(section, contents.encoding), fromHost(key, contents.encoding), &value);
		if (found) use(toHost(value, contents.encoding));
		return found;
	} catch (const std::exception&) { // out of memory
		setLastError(kOutOfMemory);
		return false;
	}
}

} // namespace

int profileGetInt(const char* section, const char* key, int fallback, const char* path) {
	char value[64];
	uint32_t length = 0;
	const bool found = withValue(
	    section, key, path, [&](std::string_view text) { length = copyProfileValue(text, value, sizeof value); });
	return found && length ? toInteger({value, length}) : fallback;
}

uint32_t profileGetString(
    const char* section, const char* key, const char* fallback, char* out, uint32_t size, const char* path) {
	if (!out || size == 0) return 0;
	uint32_t length = 0;
	const bool found =
	    withValue(section, key, path, [&](std::string_view text) { length = copyProfileValue(text, out, size); });
	return found ? length : copyProfileFallback(fallback, out, size);
}

int profileWriteString(const char* section, const char* key, const char* value, const char* path) {
	if (!section || !path || !*path || !fitsOneLine(section) || !fitsOneLine(key) || !fitsOneLine(value)) {
		setLastError(path && *path ? kInvalidParameter : kPathNotFound);
		return 0;
	}
	try {
		return writeString({section, key, value}, path);
	} catch (const std::exception&) {
		setLastError(kOutOfMemory);
		return 0;
	}
}

} // namespace platform
