#pragma once

#include "../platform/export.h"

/// The result of `CstosINIFile` without a file path.
inline constexpr int kQorNoFilePath = 0x10000002;

/// Reads and writes an initialisation file: "[section]" lines and "key=value" lines.
///
/// The file is opened anew by every operation, so instances may come and go and several may
/// name the same file. Null sections and keys are found nowhere, and nothing is written for
/// them. One thread at a time.
class QOR_API CstosINIFile {
public:
	CstosINIFile();
	~CstosINIFile(); // NOLINT(performance-trivially-destructible): the class may grow behind its hosts
	CstosINIFile(const CstosINIFile& other);
	CstosINIFile& operator=(const CstosINIFile& other);

	/// Remembers the path, made absolute now, so that a change of the current folder does not change
	/// the file; it is neither opened nor looked for. A null path, and one that has 260 characters or
	/// more then, leaves no path set. @return always 0.
	int Open(const char* path);

	/// @return the integer at the start of the value, `defaultValue` without file, section
	/// or key; 0x10000002 without a path.
	int GetIntValue(const char* section, const char* key, int defaultValue);

	/// @return the decimal number at the start of the value's first 260 characters, with a point in
	/// every locale (0 without one, so for "0x10"); `defaultValue` without a path or when the value is
	/// absent or empty.
	double GetDoubleValue(const char* section, const char* key, double defaultValue);

	/// Copies the value, or `defaultValue` (null: empty), cut to `size` - 1 characters.
	/// @param size characters in `out`, the terminator included; nothing is written below 1.
	/// @return characters copied without the terminator; 0x10000002 without a path (`out`
	/// untouched).
	int GetStringValue(const char* section, const char* key, char* out, const char* defaultValue, int size);

	/// As `GetStringValue`, without any code page: the default keeps the low byte of each
	/// character, and value bytes above 127 become 0xFF80 to 0xFFFF.
	int GetStringValueWCHAR(const char* section, const char* key, wchar_t* out, const wchar_t* defaultValue, int size);

	/// The writers make file, section and key as needed.
	/// @return 1; 0 when the file cannot be written; 0x10000002 without a path.
	int WriteIntValue(const char* section, const char* key, int value);
	/// Written as "%g": six significant digits.
	int WriteDoubleValue(const char* section, const char* key, double value);
	/// A null value removes the key.
	int WriteStringValue(const char* section, const char* key, const char* value);

private:
	char mPath[260];
};
