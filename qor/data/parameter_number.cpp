#include "parameter_number_internal.h"

#include <charconv>
#include <climits>
#include <limits>

namespace parameter_file {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

bool isHexDigit(char c) { return isDigit(c) || ((c | 0x20) >= 'a' && (c | 0x20) <= 'f'); }

bool isWhite(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

/// Past white space and a plus, which std::from_chars does not take. @return `end` when a minus
/// follows the plus: not a number.
const char* startOfNumber(const char* text, const char* end) {
	while (text < end && isWhite(*text)) ++text;
	if (text == end || *text != '+') return text;
	++text;
	return text < end && *text == '-' ? end : text;
}

/// The digits of a hexadecimal number, behind its sign and "0x"; null when it is none.
const char* hexDigits(const char* text, const char* end) {
	if (text < end && *text == '-') ++text;
	if (end - text < 3 || text[0] != '0' || (text[1] | 0x20) != 'x') return nullptr;
	text += 2;
	const char* digit = *text == '.' ? text + 1 : text;
	return digit < end && isHexDigit(*digit) ? text : nullptr;
}

/// A number without sign beyond the range of double: is it too large, not too small?
bool isTooLarge(const char* at, const char* end, bool hex) {
	long long magnitude = 0; // digits in front of the point, or minus the zeros behind it
	bool counting = false, behindPoint = false;
	for (; at < end && (*at == '.' || (hex ? isHexDigit(*at) : isDigit(*at))); ++at) {
		if (*at == '.')
			behindPoint = true;
		else if (*at != '0' || counting) {
			counting = true;
			if (!behindPoint) ++magnitude;
		} else if (behindPoint)
			--magnitude;
	}
	if (hex) magnitude *= 4; // the exponent counts powers of 2
	if (at < end && (*at | 0x20) == (hex ? 'p' : 'e')) magnitude += toInt(at + 1, end);
	return magnitude > 0;
}

} // namespace

int toInt(const char* text, const char* end) {
	text = startOfNumber(text, end);
	int number = 0;
	const auto result = std::from_chars(text, end, number);
	if (result.ec == std::errc::result_out_of_range) return *text == '-' ? INT_MIN : INT_MAX;
	return number;
}

double toDouble(const char* text, const char* end) {
	text = startOfNumber(text, end);
	const char* digits = hexDigits(text, end);
	const bool hex = digits != nullptr, negative = text < end && *text == '-';
	if (!hex) digits = negative ? text + 1 : text;
	if (digits < end && *digits == '-') return 0; // the only sign that std::from_chars takes
	double number = 0;
	const auto format = hex ? std::chars_format::hex : std::chars_format::general;
	const auto result = std::from_chars(digits, end, number, format);
	if (result.ec == std::errc::invalid_argument) return 0;
	if (result.ec == std::errc::result_out_of_range && isTooLarge(digits, result.ptr, hex))
		number = std::numeric_limits<double>::infinity();
	return negative ? -number : number;
}

} // namespace parameter_file
