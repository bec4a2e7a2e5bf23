#pragma once

#include <cstddef>

namespace platform {

/// Whether `path` is a name under "\\.\": never a path of the file system.
bool isDeviceName(const char* path);

/// A path as the system takes it: '\' became '/'. No allocation, bounded.
class NativePath {
public:
	/// @return false, with `lastError()`: 3 for null or empty, 2 for a device name, 206 when it is too long.
	bool assign(const char* path);
	/// Takes `length` characters of a path that already is the system's own.
	bool assignNative(const char* path, size_t length);
	const char* text() const { return mText; }
	/// Writes the folder of the path ("." when it names none).
	void folder(NativePath* out) const;

private:
	char mText[4096] = {};
};

} // namespace platform
