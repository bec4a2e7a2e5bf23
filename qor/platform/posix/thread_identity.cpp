#include "thread_identity_internal.h"

#include "../machine.h"
#include "errors.h"
#include "file_internal.h"
#include "thread_state_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform::posix {
namespace {

constexpr int kStateToStart = 19; // fields of a "stat" line

enum class Answer : uint8_t { runs, ended, unknown };

/// Reads number, state and start of a thread from the system's line about it:
/// "number (name) state field field ...", where the name may hold anything.
Answer readStart(const char* path, uint32_t thread, uint64_t* start) {
	char line[512];
	const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
	if (!file) return errno == ENOENT ? Answer::ended : Answer::unknown;
	const ssize_t length = read(file.get(), line, sizeof line - 1);
	if (length <= 0) return length < 0 && errno == ESRCH ? Answer::ended : Answer::unknown;
	line[length] = 0;
	errno = ENOSYS;
	// The system's files may be those of another numbering.
	if (std::strtoul(line, nullptr, 10) != thread) return Answer::unknown;
	const char* at = std::strrchr(line, ')');
	if (!at || at[1] != ' ') return Answer::unknown;
	const char state = at[2];
	if (state == 'Z' || state == 'X') return Answer::ended;
	at += 2;
	for (int i = 0; i < kStateToStart && at; ++i) at = std::strchr(at + 1, ' ');
	if (!at) return Answer::unknown;
	*start = std::strtoull(at + 1, nullptr, 10);
	return Answer::runs;
}

uint64_t identityOf(uint32_t thread, uint64_t start) { return (start + 1) << kIdentityShift | thread; }

} // namespace

uint64_t ownIdentity() {
	ThreadState& thread = currentThread();
	if (thread.identity) return thread.identity;
	uint64_t start = 0;
	if (readStart("/proc/thread-self/stat", thread.id, &start) != Answer::runs) {
		setLastError(windowsError(errno));
		return 0;
	}
	return thread.identity = identityOf(thread.id, start);
}

bool hasEnded(uint64_t identity) {
	const uint32_t thread = static_cast<uint32_t>(identity & ((1u << kIdentityShift) - 1));
	uint64_t start = 0;
	char path[32];
	std::snprintf(path, sizeof path, "/proc/%u/stat", thread);
	const Answer answer = readStart(path, thread, &start);
	return answer == Answer::ended || (answer == Answer::runs && identityOf(thread, start) != identity);
}

uint64_t processNumbering() {
	struct stat numbering = {};
	if (stat("/proc/self/ns/pid", &numbering) == 0) return numbering.st_ino;
	setLastError(windowsError(errno));
	return 0;
}

} // namespace platform::posix
