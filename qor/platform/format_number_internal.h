#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace platform::formatting {

enum class Length { character, shortInt, normal, longInt, bits64, size, difference, maximum, longDouble };

/// One directive of a format, parsed.
struct Directive {
	bool left = false;
	bool plus = false;
	bool blank = false;
	bool alternate = false;
	bool zero = false;
	size_t width = 0;
	bool hasPrecision = false;
	size_t precision = 0;
	Length length = Length::normal;
	char conversion = 0;
};

/// A number on its way out, in the order of its pieces. What a width or precision asks for
/// beyond the value's own digits is only counted, never stored. The views lead into the
/// caller's buffer.
struct Number {
	char prefix[4] = {};
	size_t prefixLength = 0;
	size_t leadingZeros = 0;
	std::string_view digits;
	bool point = false; // one that '#' asks for
	size_t trailingZeros = 0;
	std::string_view exponent;
	bool zeroPadded = false; // a width is filled with zeros behind the prefix

	void addPrefix(char c) { prefix[prefixLength++] = c; }
	size_t size() const {
		return prefixLength + leadingZeros + digits.size() + (point ? 1 : 0) + trailingZeros + exponent.size();
	}
};

// No double has more digits behind the point than 1074; what a precision asks beyond is zeros.
inline constexpr size_t kMaximumFraction = 1100;
inline constexpr size_t kIntegerDigits = 24;
inline constexpr size_t kRealDigits = 1500;
inline constexpr size_t kLongDoubleDigits = 6200;

/// Each writes its digits into `digits`, as long as the constant of its kind says.
Number makeInteger(bool negative, uint64_t magnitude, const Directive& d, char* digits);
Number makePointer(const void* value, char* digits);
Number makeReal(double value, const Directive& d, char* digits);
Number makeLongReal(long double value, const Directive& d, char* digits);

/// "%d" in the same buffer, whole. @return the length.
size_t writeInteger(int value, char* digits);
/// "%f" without flags and with a precision of 0 to 3, whole but for its width.
/// @return the length; 0 for other directives and values.
size_t writeShortReal(double value, const Directive& d, char* digits);

} // namespace platform::formatting
