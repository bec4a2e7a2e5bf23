#include <windows.h>

#include "../folder.h"
#include "../machine.h"
#include "../profile.h"
#include "../profile_internal.h"

// The system takes a path without a folder for one in its own folder, and a null path,
// section or key for a wish of another kind, so none of them gets there.
namespace platform {
namespace {

bool isComplete(const char* section, const char* path) { return section && path && *path; }

int failWith(uint32_t error) {
	setLastError(error);
	return 0;
}

} // namespace

int profileGetInt(const char* section, const char* key, int fallback, const char* path) {
	if (!isComplete(section, path) || !key) return fallback;
	const std::string full = fullPath(path);
	return full.empty() ? fallback : static_cast<int>(GetPrivateProfileIntA(section, key, fallback, full.c_str()));
}

uint32_t profileGetString(
    const char* section, const char* key, const char* fallback, char* out, uint32_t size, const char* path) {
	if (!out || size == 0) return 0;
	const std::string full = isComplete(section, path) && key ? fullPath(path) : std::string();
	if (full.empty()) return copyProfileFallback(fallback, out, size);
	return GetPrivateProfileStringA(section, key, fallback ? fallback : "", out, size, full.c_str());
}

int profileWriteString(const char* section, const char* key, const char* value, const char* path) {
	if (!isComplete(section, path)) return failWith(ERROR_INVALID_PARAMETER);
	if (!fitsOneLine(section) || !fitsOneLine(key) || !fitsOneLine(value)) return failWith(ERROR_INVALID_PARAMETER);
	const std::string full = fullPath(path);
	return !full.empty() && WritePrivateProfileStringA(section, key, value, full.c_str()) ? 1 : 0;
}

} // namespace platform
