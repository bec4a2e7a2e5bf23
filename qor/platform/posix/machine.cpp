#include "../machine.h"

#include "errors.h"
#include "thread_state_internal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pwd.h>
#include <sys/sysinfo.h>
#include <unistd.h>

namespace platform {

namespace {

constexpr uint32_t kInsufficientBuffer = 122;
constexpr uint32_t kVariableNotFound = 203;

size_t fail(char* out, uint32_t error) {
	out[0] = 0;
	setLastError(error);
	return 0;
}

/// A text that does not fit is a failure: half a path would name another place.
size_t copy(char* out, size_t size, const char* text) {
	const size_t length = std::strlen(text);
	if (length >= size) return fail(out, kInsufficientBuffer);
	std::memcpy(out, text, length + 1);
	return length;
}

/// What programs can still get without swapping; older kernels do not say it.
bool availableMemory(uint64_t& bytes) {
	std::FILE* file = std::fopen("/proc/meminfo", "re");
	if (!file) return false;
	bool found = false;
	char line[128];
	unsigned long long kilobytes = 0;
	while (!found && std::fgets(line, sizeof(line), file)) {
		found = std::sscanf(line, "MemAvailable: %llu", &kilobytes) == 1;
	}
	std::fclose(file);
	if (found) bytes = kilobytes * 1024;
	return found;
}

} // namespace

MemoryStatus memoryStatus() {
	struct sysinfo info {};
	if (sysinfo(&info) != 0) return {};
	MemoryStatus status;
	status.totalPhysical = static_cast<uint64_t>(info.totalram) * info.mem_unit;
	if (!availableMemory(status.availablePhysical)) {
		status.availablePhysical = static_cast<uint64_t>(info.freeram + info.bufferram) * info.mem_unit;
	}
	return status;
}

size_t currentDirectory(char* out, size_t size) {
	if (!out || size == 0) return 0;
	if (!getcwd(out, size)) return fail(out, errno == ERANGE ? kInsufficientBuffer : windowsError(errno));
	return std::strlen(out);
}

size_t userName(char* out, size_t size) {
	if (!out || size == 0) return 0;
	char buffer[4096];
	passwd record{};
	passwd* found = nullptr;
	if (getpwuid_r(geteuid(), &record, buffer, sizeof(buffer), &found) == 0 && found) {
		return copy(out, size, found->pw_name);
	}
	// Containers run under numbers that no account has.
	const char* variable = std::getenv("USER");
	return variable ? copy(out, size, variable) : fail(out, windowsError(ENOENT));
}

size_t computerName(char* out, size_t size) {
	if (!out || size == 0) return 0;
	char buffer[256] = {};
	if (gethostname(buffer, sizeof(buffer) - 1) != 0) return fail(out, windowsError(errno));
	return copy(out, size, buffer);
}

size_t environment(const char* name, char* out, size_t size) {
	if (!out || size == 0) return 0;
	const char* value = name ? std::getenv(name) : nullptr;
	return value ? copy(out, size, value) : fail(out, kVariableNotFound);
}

uint32_t processId() { return static_cast<uint32_t>(getpid()); }

uint32_t threadId() { return posix::currentThread().id; }

uint32_t lastError() { return posix::threadState().error; }

void setLastError(uint32_t error) { posix::threadState().error = error; }

} // namespace platform
