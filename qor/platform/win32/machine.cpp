#include "../machine.h"

#include <windows.h>

namespace platform {

namespace {

/// The common end of the text functions: `length` characters were written when they fit,
/// otherwise the system left the length it needs.
size_t finish(char* out, size_t size, size_t length) {
	if (length == 0 || length >= size) {
		out[0] = 0;
		if (length >= size) SetLastError(ERROR_INSUFFICIENT_BUFFER);
		return 0;
	}
	return length;
}

DWORD capacity(size_t size) { return size < 0x7FFFFFFF ? static_cast<DWORD>(size) : 0x7FFFFFFF; }

} // namespace

MemoryStatus memoryStatus() {
	MEMORYSTATUSEX status{};
	status.dwLength = sizeof(status);
	if (!GlobalMemoryStatusEx(&status)) return {};
	return {status.ullTotalPhys, status.ullAvailPhys};
}

size_t currentDirectory(char* out, size_t size) {
	if (!out || size == 0) return 0;
	return finish(out, size, GetCurrentDirectoryA(capacity(size), out));
}

size_t userName(char* out, size_t size) {
	if (!out || size == 0) return 0;
	DWORD length = capacity(size); // with its terminator, before and after
	if (!GetUserNameA(out, &length)) length = 0;
	return finish(out, size, length ? length - 1 : 0);
}

size_t computerName(char* out, size_t size) {
	if (!out || size == 0) return 0;
	DWORD length = capacity(size); // without the terminator afterwards
	if (!GetComputerNameA(out, &length)) length = 0;
	return finish(out, size, length);
}

size_t environment(const char* name, char* out, size_t size) {
	if (!out || size == 0) return 0;
	out[0] = 0;
	if (!name || !*name) return 0;
	return finish(out, size, GetEnvironmentVariableA(name, out, capacity(size)));
}

uint32_t processId() { return GetCurrentProcessId(); }

uint32_t threadId() { return GetCurrentThreadId(); }

uint32_t lastError() { return GetLastError(); }

void setLastError(uint32_t error) { SetLastError(error); }

} // namespace platform
