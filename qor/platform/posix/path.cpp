#include "path_internal.h"

#include "../folder.h"
#include "../machine.h"

#include <algorithm>
#include <cstring>

namespace platform {
namespace {

constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kPathNotFound = 3;
constexpr uint32_t kNameTooLong = 206;

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

} // namespace

bool isDeviceName(const char* path) {
	return path && isPathSeparator(path[0]) && isPathSeparator(path[1]) && path[2] == '.' && isPathSeparator(path[3]);
}

bool NativePath::assign(const char* path) {
	if (!path || !*path) return fail(kPathNotFound);
	// As a path this would reach the root folder.
	if (isDeviceName(path)) return fail(kFileNotFound);
	if (!assignNative(path, std::strlen(path))) return false;
	std::replace(mText, mText + std::strlen(mText), '\\', '/');
	return true;
}

bool NativePath::assignNative(const char* path, size_t length) {
	if (length >= sizeof mText) return fail(kNameTooLong);
	std::memcpy(mText, path, length);
	mText[length] = 0;
	return true;
}

void NativePath::folder(NativePath* out) const {
	const char* slash = std::strrchr(mText, '/');
	if (!slash)
		out->assignNative(".", 1);
	else
		out->assignNative(mText, std::max<size_t>(1, static_cast<size_t>(slash - mText)));
}

} // namespace platform
