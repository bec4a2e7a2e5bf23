#pragma once

#include "../platform/letter_case_internal.h"

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

/// How the path of a numbered file divides into its parts. The library and the plug-ins, which
/// link nothing of it, share this one rule; hence plain inline functions.
namespace storage_parts {

/// The parts of a path, views of it. Put together again with a point before the extension
/// they are the path, but for one without a point.
struct SequenceName {
	std::string_view folder; // with the separator at its end; empty when none is named
	std::string_view baseName;
	std::string_view digits; // just before the point; none without a point
	std::string_view extension;
};

inline bool isSequenceSeparator(char c) { return c == '\\' || c == '/'; }

/// The extension stands behind the last point of the whole path, the first character aside.
/// In "a.b/file12", whose only point is the folder's, that is "b/file12" and the base name
/// "a": unexpected, but the same for every such path, and the parts still give the path.
inline SequenceName splitSequenceName(std::string_view path) {
	SequenceName parts;
	const size_t point = path.rfind('.');
	const bool hasPoint = point != path.npos && point != 0;
	const size_t end = hasPoint ? point : path.size();
	if (hasPoint) parts.extension = path.substr(end + 1);
	size_t digits = end;
	while (hasPoint && digits > 0 && path[digits - 1] >= '0' && path[digits - 1] <= '9') --digits;
	parts.digits = path.substr(digits, end - digits);
	size_t base = digits;
	while (base > 0 && !isSequenceSeparator(path[base - 1])) --base;
	parts.baseName = path.substr(base, digits - base);
	parts.folder = path.substr(0, base);
	return parts;
}

/// A character as it is compared: ASCII letters without their case, both separators alike.
inline char foldSequenceChar(char c) { return c == '\\' ? '/' : platform::lowerCase(c); }

inline bool equalInSequence(std::string_view a, std::string_view b) {
	if (a.size() != b.size()) return false;
	size_t i = 0;
	while (i < a.size() && foldSequenceChar(a[i]) == foldSequenceChar(b[i])) ++i;
	return i == a.size();
}

/// A text that is the same for all files of a sequence and for no others.
inline std::string sequenceKey(std::string_view folder, std::string_view baseName, std::string_view extension) {
	std::string key;
	key.reserve(folder.size() + baseName.size() + extension.size() + 2);
	for (const auto part : {folder, baseName, extension}) {
		for (const char c : part) key += foldSequenceChar(c);
		key += '\0';
	}
	return key;
}

} // namespace storage_parts
