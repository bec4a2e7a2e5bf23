#pragma once

#include "../platform/letter_case_internal.h"

#include <cstddef>
#include <cstring>

namespace parameter_file {

using platform::lowerCase;

/// One name of a path, or a name on its own.
struct PathName {
	const char* text;
	std::size_t length;

	/// The whole text as one name.
	static PathName whole(const char* text) { return {text, std::strlen(text)}; }
	/// The name that begins at `text`.
	static PathName at(const char* text) { return {text, std::strcspn(text, ".")}; }

	bool isLast() const { return text[length] == '\0'; }
	PathName next() const { return at(text + length + 1); }
	/// Not for the first name of `path`.
	PathName previous(const char* path) const {
		const char* end = text - 1;
		const char* begin = end;
		while (begin > path && begin[-1] != '.') --begin;
		return {begin, static_cast<std::size_t>(end - begin)};
	}
	/// @return below 0, 0 or above 0, as this name comes before `other`, is the same or comes behind it.
	int compare(const char* other) const {
		for (std::size_t i = 0; i < length; ++i)
			if (const int difference = lowerCase(text[i]) - lowerCase(other[i]))
				return difference; // also where `other` ends
		return other[length] == '\0' ? 0 : -1;
	}
	bool equals(const char* other) const { return compare(other) == 0; }
};

} // namespace parameter_file
