#include <windows.h>

#include "../draft_internal.h"
#include "../folder.h"
#include "../machine.h"

#include <cstring>

namespace platform {
namespace {

constexpr DWORD kLongestPath = 1024;

std::string fail(uint32_t error) {
	setLastError(error);
	return {};
}

/// Links need a privilege to be made here, so one that is there may be followed.
std::string linkTarget(const std::string& path) {
	HANDLE file = CreateFileA(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
	    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
	if (file == INVALID_HANDLE_VALUE) return {};
	char to[kLongestPath];
	const DWORD length = GetFinalPathNameByHandleA(file, to, kLongestPath, FILE_NAME_NORMALIZED);
	CloseHandle(file);
	return length > 0 && length < kLongestPath ? std::string(to, length) : fail(ERROR_FILENAME_EXCED_RANGE);
}

} // namespace

std::string draftTarget(const char* path) {
	if (!path || !*path) return fail(ERROR_PATH_NOT_FOUND);
	std::string target = fullPath(path);
	if (target.empty()) return {};
	if (target.compare(0, 4, "\\\\.\\") == 0) return fail(ERROR_FILE_NOT_FOUND); // a device
	const DWORD attributes = GetFileAttributesA(target.c_str());
	if (attributes == INVALID_FILE_ATTRIBUTES) return target;
	if (attributes & FILE_ATTRIBUTE_DIRECTORY) return fail(ERROR_ACCESS_DENIED);
	return attributes & FILE_ATTRIBUTE_REPARSE_POINT ? linkTarget(target) : target;
}

} // namespace platform
