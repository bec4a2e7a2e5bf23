#include "ini_file.h"

#include "../platform/folder.h"
#include "../platform/format.h"
#include "../platform/memory.h"
#include "../platform/number.h"
#include "../platform/profile.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <new>
#include <string>

namespace {

constexpr size_t kNumberTextSize = 261; // 260 characters

/// No section or key has this name: the system's reader lists names for null.
const char* orNone(const char* name) { return name ? name : ""; }

void narrow(char* out, const wchar_t* text, size_t size) {
	size_t length = 0;
	for (; text && text[length] && length + 1 < size; ++length) out[length] = static_cast<char>(text[length] & 0xFF);
	out[length] = 0;
}

/// Sign-extends each byte to 16 bits: 0x80 becomes 0xFF80. No code page is asked, so that
/// what was written is what comes back; wider `wchar_t` keeps these values.
void widen(wchar_t* out, const char* text, size_t length) {
	for (size_t i = 0; i < length; ++i) {
		out[i] = static_cast<wchar_t>(static_cast<uint16_t>(static_cast<signed char>(text[i])));
	}
	out[length] = 0;
}

} // namespace

CstosINIFile::CstosINIFile() : mPath() {}
CstosINIFile::~CstosINIFile() = default;
CstosINIFile::CstosINIFile(const CstosINIFile& other) = default;
CstosINIFile& CstosINIFile::operator=(const CstosINIFile& other) = default;

int CstosINIFile::Open(const char* path) {
	try {
		const std::string full = path && *path ? platform::fullPath(path) : ""; // `path` may be our own
		mPath[0] = 0;
		// A cut path would name another file, which the writers would then change.
		if (full.size() < sizeof mPath) std::memcpy(mPath, full.c_str(), full.size() + 1);
	} catch (const std::bad_alloc&) {
		mPath[0] = 0;
	}
	return 0;
}

int CstosINIFile::GetIntValue(const char* section, const char* key, int defaultValue) {
	if (!mPath[0]) return kQorNoFilePath;
	if (!section || !key) return defaultValue;
	return platform::profileGetInt(section, key, defaultValue, mPath);
}

double CstosINIFile::GetDoubleValue(const char* section, const char* key, double defaultValue) {
	char text[kNumberTextSize] = "";
	if (!mPath[0] || !section || !key) return defaultValue;
	platform::profileGetString(section, key, "", text, sizeof text, mPath);
	return text[0] ? platform::parseDecimal(text) : defaultValue;
}

int CstosINIFile::GetStringValue(const char* section, const char* key, char* out, const char* defaultValue, int size) {
	if (!mPath[0]) return kQorNoFilePath;
	if (!out || size <= 0) return 0;
	if (!section || !key)
		return static_cast<int>(platform::formatText(out, static_cast<size_t>(size), "%s", orNone(defaultValue)));
	return static_cast<int>(
	    platform::profileGetString(section, key, defaultValue, out, static_cast<uint32_t>(size), mPath));
}

int CstosINIFile::GetStringValueWCHAR(
    const char* section, const char* key, wchar_t* out, const wchar_t* defaultValue, int size) {
	if (!mPath[0]) return kQorNoFilePath;
	if (!out || size <= 0) return 0;
	out[0] = 0;
	const size_t defaultSize = std::min(static_cast<size_t>(size), defaultValue ? std::wcslen(defaultValue) + 1 : 1);
	auto* value = static_cast<char*>(platform::allocate(static_cast<size_t>(size)));
	auto* narrowDefault = static_cast<char*>(platform::allocate(defaultSize));
	int length = 0;
	if (value && narrowDefault) {
		narrow(narrowDefault, defaultValue, defaultSize);
		length = GetStringValue(section, key, value, narrowDefault, size);
		widen(out, value, static_cast<size_t>(length));
	}
	platform::release(narrowDefault);
	platform::release(value);
	return length;
}

int CstosINIFile::WriteIntValue(const char* section, const char* key, int value) {
	char text[kNumberTextSize];
	platform::formatText(text, sizeof text, "%d", value);
	return WriteStringValue(section, key, text);
}

int CstosINIFile::WriteDoubleValue(const char* section, const char* key, double value) {
	char text[kNumberTextSize];
	platform::formatText(text, sizeof text, "%g", value);
	return WriteStringValue(section, key, text);
}

int CstosINIFile::WriteStringValue(const char* section, const char* key, const char* value) {
	if (!mPath[0]) return kQorNoFilePath;
	if (!section || !key) return 0; // the system's writer would remove the whole section
	return platform::profileWriteString(section, key, value, mPath);
}
