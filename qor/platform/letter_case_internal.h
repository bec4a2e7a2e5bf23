#pragma once

namespace platform {

/// The small form of the letters A to Z, whatever the locale; other characters as they are.
template <class Character>
constexpr Character lowerCase(Character c) {
	return c >= 'A' && c <= 'Z' ? static_cast<Character>(c - 'A' + 'a') : c;
}

/// Whether two texts are the same but for the case of these letters.
inline bool equalWithoutCase(const char* a, const char* b) {
	while (*a && lowerCase(*a) == lowerCase(*b)) ++a, ++b;
	return *a == *b;
}

} // namespace platform
