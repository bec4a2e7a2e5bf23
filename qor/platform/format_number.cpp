#include "format_number_internal.h"

#include "number.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace platform::formatting {
namespace {

void raise(char* from, char* to) {
	for (; from != to; ++from) {
		if (*from >= 'a' && *from <= 'z') *from = static_cast<char>(*from - 'a' + 'A');
	}
}

void addSign(bool negative, const Directive& d, Number& number) {
	if (negative)
		number.addPrefix('-');
	else if (d.plus)
		number.addPrefix('+');
	else if (d.blank)
		number.addPrefix(' ');
}

/// Behind the point stand `kPlaces` digits of `scaled`. @return the end.
template <size_t kPlaces>
char* writePlaces(uint64_t scaled, char* out) {
	constexpr uint64_t kPower = kPlaces == 3 ? 1000 : kPlaces == 2 ? 100 : kPlaces == 1 ? 10 : 1;
	char* at = std::to_chars(out, out + kIntegerDigits, scaled / kPower).ptr;
	if constexpr (kPlaces > 0) {
		uint64_t behind = scaled % kPower;
		*at = '.';
		for (size_t i = kPlaces; i > 0; --i, behind /= 10) at[i] = static_cast<char>('0' + behind % 10);
		at += kPlaces + 1;
	}
	return at;
}

/// The C library's "%.<precision>f" of a magnitude, exactly, halves to even, for a
/// precision of 0 to 3. @return the length, 0 for magnitudes left to the general way.
size_t shortFixed(double magnitude, size_t precision, char* out) {
	static constexpr uint64_t kPowers[] = {1, 10, 100, 1000};
	const auto bits = std::bit_cast<uint64_t>(magnitude);
	const int exponent = static_cast<int>(bits >> 52);
	if (precision > 3 || exponent >= 1075) return 0; // 2^52 and above
	const uint64_t fraction = bits & ((uint64_t{1} << 52) - 1);
	const uint64_t mantissa = exponent ? fraction | uint64_t{1} << 52 : fraction;
	const int shift = 1075 - (exponent ? exponent : 1);
	const uint64_t scaled = mantissa * kPowers[precision]; // below 2^63
	uint64_t rounded = 0;
	if (shift < 64) {
		rounded = scaled >> shift;
		const uint64_t rest = scaled & ((uint64_t{1} << shift) - 1);
		const uint64_t half = uint64_t{1} << (shift - 1);
		rounded += rest > half || (rest == half && (rounded & 1));
	}
	const char* end = precision == 2   ? writePlaces<2>(rounded, out)
	                  : precision == 3 ? writePlaces<3>(rounded, out)
	                  : precision == 1 ? writePlaces<1>(rounded, out)
	                                   : writePlaces<0>(rounded, out);
	return static_cast<size_t>(end - out);
}

int decimalExponent(double magnitude, size_t precision) {
	char digits[kRealDigits];
	const char* end = std::to_chars(
	    digits, digits + sizeof digits, magnitude, std::chars_format::scientific, static_cast<int>(precision))
	                      .ptr;
	const char* at = std::find(static_cast<const char*>(digits), end, 'e') + 1;
	if (*at == '+') ++at;
	int exponent = 0;
	std::from_chars(at, end, exponent);
	return exponent;
}

/// The digits of a finite magnitude into `out` (kRealDigits long). @return their number.
size_t writeMagnitude(double magnitude, char style, const Directive& d, size_t precision, char* out) {
	char* const end = out + kRealDigits;
	const auto write = [&](std::chars_format format, size_t places) {
		return static_cast<size_t>(std::to_chars(out, end, magnitude, format, static_cast<int>(places)).ptr - out);
	};
	switch (style) {
	case 'f':
		if (const size_t length = shortFixed(magnitude, precision, out)) return length;
		return write(std::chars_format::fixed, precision);
	case 'e': return write(std::chars_format::scientific, precision);
	case 'g': {
		if (!d.alternate) return write(std::chars_format::general, precision);
		const auto places = static_cast<int>(precision ? precision : 1); // '#' keeps the zeros at the end
		const int exponent = decimalExponent(magnitude, static_cast<size_t>(places - 1));
		if (exponent >= -4 && exponent < places) {
			return write(std::chars_format::fixed, static_cast<size_t>(places - 1 - exponent));
		}
		return write(std::chars_format::scientific, static_cast<size_t>(places - 1));
	}
	default: break;
	}
	if (d.hasPrecision) return write(std::chars_format::hex, precision);
	return static_cast<size_t>(std::to_chars(out, end, magnitude, std::chars_format::hex).ptr - out);
}

bool isUpper(const Directive& d) { return d.conversion < 'a'; }

/// Splits digits into mantissa and exponent and adds what '#' and a large precision ask for.
Number arrangeReal(const Directive& d, bool negative, size_t extraZeros, char* digits, size_t length) {
	const char style = static_cast<char>(d.conversion | 0x20);
	Number number;
	addSign(negative, d, number);
	if (style == 'a') {
		number.addPrefix('0');
		number.addPrefix(isUpper(d) ? 'X' : 'x');
	}
	if (isUpper(d)) raise(digits, digits + length);
	const std::string_view text(digits, length);
	const size_t exponent = style == 'f' ? text.npos : text.find_first_of(style == 'a' ? "pP" : "eE");
	number.digits = text.substr(0, exponent);
	if (exponent != text.npos) number.exponent = text.substr(exponent);
	number.point = d.alternate && number.digits.find('.') == text.npos;
	if (style != 'g' || d.alternate) number.trailingZeros = extraZeros;
	number.zeroPadded = d.zero;
	return number;
}

Number makeNotFinite(bool negative, bool infinite, const Directive& d) {
	Number number;
	addSign(negative, d, number);
	if (infinite)
		number.digits = isUpper(d) ? "INF" : "inf";
	else
		number.digits = isUpper(d) ? "NAN" : "nan";
	return number;
}

} // namespace

Number makeInteger(bool negative, uint64_t magnitude, const Directive& d, char* digits) {
	const bool hexadecimal = d.conversion == 'x' || d.conversion == 'X';
	const int base = hexadecimal ? 16 : d.conversion == 'o' ? 8 : 10;
	char* end = base == 10 ? std::to_chars(digits, digits + kIntegerDigits, magnitude).ptr
	                       : std::to_chars(digits, digits + kIntegerDigits, magnitude, base).ptr;
	if (d.conversion == 'X') raise(digits, end);
	if (d.hasPrecision && d.precision == 0 && magnitude == 0) end = digits;
	Number number;
	if (d.conversion == 'd' || d.conversion == 'i') addSign(negative, d, number);
	number.digits = {digits, static_cast<size_t>(end - digits)};
	if (d.hasPrecision && d.precision > number.digits.size()) number.leadingZeros = d.precision - number.digits.size();
	if (d.alternate && hexadecimal && magnitude) {
		number.addPrefix('0');
		number.addPrefix(d.conversion);
	}
	const bool startsWithZero = number.leadingZeros || (!number.digits.empty() && digits[0] == '0');
	if (d.alternate && base == 8 && !startsWithZero) number.leadingZeros = 1;
	number.zeroPadded = d.zero && !d.hasPrecision;
	return number;
}

size_t writeInteger(int value, char* digits) {
	return static_cast<size_t>(std::to_chars(digits, digits + kIntegerDigits, value).ptr - digits);
}

size_t writeShortReal(double value, const Directive& d, char* digits) {
	const bool flags = d.left || d.plus || d.blank || d.alternate || d.zero;
	if (flags || d.conversion != 'f' || !d.hasPrecision) return 0;
	const size_t sign = std::signbit(value) ? 1 : 0;
	digits[0] = '-';
	const size_t length = shortFixed(std::fabs(value), d.precision, digits + sign);
	return length ? sign + length : 0;
}

Number makePointer(const void* value, char* digits) {
	const uint64_t address = reinterpret_cast<uintptr_t>(value);
	for (int i = 0; i < 16; ++i) digits[i] = "0123456789ABCDEF"[address >> (60 - 4 * i) & 15];
	Number number;
	number.digits = {digits, 16};
	return number;
}

Number makeReal(double value, const Directive& d, char* digits) {
	if (!std::isfinite(value)) return makeNotFinite(std::signbit(value), std::isinf(value), d);
	const char style = static_cast<char>(d.conversion | 0x20);
	const bool exactHex = style == 'a' && !d.hasPrecision;
	const size_t wanted = d.hasPrecision ? d.precision : 6;
	const size_t precision = std::min(wanted, kMaximumFraction);
	const size_t length = writeMagnitude(std::fabs(value), style, d, precision, digits);
	return arrangeReal(d, std::signbit(value), exactHex ? 0 : wanted - precision, digits, length);
}

namespace {

/// The host's locale may write the point as another character, of several bytes even. @return the new length.
size_t withPoint(char* digits, size_t length) {
	char* const end = digits + length;
	char* const point = std::find_if_not(digits, end, isDigit);
	if (point == end || (*point | 0x20) == 'e') return length;
	char* const behind = std::find_if(point, end, [](char c) { return isDigit(c) || (c | 0x20) == 'e'; });
	*point = '.';
	return static_cast<size_t>(std::move(behind, end, point + 1) - digits);
}

} // namespace

/// Only what a double cannot hold goes to the C library.
Number makeLongReal(long double value, const Directive& d, char* digits) {
	const char style = static_cast<char>(d.conversion | 0x20);
	const auto narrowed = static_cast<double>(value);
	const bool same = !std::isfinite(value) || static_cast<long double>(narrowed) == value;
	if (same || style == 'a') return makeReal(narrowed, d, digits); // the C libraries disagree on its first digit
	const size_t wanted = d.hasPrecision ? d.precision : 6;
	const size_t precision = std::min(wanted, kMaximumFraction);
	const char plain[] = {'%', '.', '*', 'L', style, 0};
	const char alternate[] = {'%', '#', '.', '*', 'L', style, 0};
	const int length = std::snprintf(
	    digits, kLongDoubleDigits, d.alternate ? alternate : plain, static_cast<int>(precision), std::fabs(value));
	if (length <= 0 || static_cast<size_t>(length) >= kLongDoubleDigits) return arrangeReal(d, false, 0, digits, 0);
	const size_t used = withPoint(digits, static_cast<size_t>(length));
	return arrangeReal(d, std::signbit(value), wanted - precision, digits, used);
}

} // namespace platform::formatting
