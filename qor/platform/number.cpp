#include "number.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstring>
#include <limits>

namespace platform {

namespace {

constexpr bool isHexDigit(char c) { return isDigit(c) || ((c | 0x20) >= 'a' && (c | 0x20) <= 'f'); }

/// Past white space and a plus, which std::from_chars does not take. @return `end` when a minus
/// follows the plus: not a number.
const char* startOfNumber(const char* text, const char* end) {
	while (text < end && isBlank(*text)) ++text;
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
	if (at < end && (*at | 0x20) == (hex ? 'p' : 'e')) magnitude += parseInt(at + 1, end);
	return magnitude > 0;
}

/// `std::from_chars`, and what it leaves out: infinity and 0 beyond the range.
double parseDigits(const char* digits, const char* end, bool hex, const char** stop) {
	double number = 0;
	const auto format = hex ? std::chars_format::hex : std::chars_format::general;
	const auto result = std::from_chars(digits, end, number, format);
	*stop = result.ptr;
	if (result.ec == std::errc::invalid_argument) return 0;
	if (result.ec != std::errc::result_out_of_range) return number;
	return isTooLarge(digits, result.ptr, hex) ? std::numeric_limits<double>::infinity() : 0;
}

} // namespace

double parseDouble(const char* text, const char* end, const char** stop) {
	if (stop) *stop = text;
	text = startOfNumber(text, end);
	const char* digits = hexDigits(text, end);
	const bool hex = digits != nullptr, negative = text < end && *text == '-';
	if (!hex) digits = negative ? text + 1 : text;
	if (digits < end && *digits == '-') return 0; // the only sign that std::from_chars takes
	const char* behind = digits;
	const double number = parseDigits(digits, end, hex, &behind);
	if (behind == digits) return 0;
	if (stop) *stop = behind;
	return negative ? -number : number;
}

double parseDouble(const char* text) { return parseDouble(text, text + std::strlen(text)); }

double parseDecimal(const char* text) {
	constexpr size_t kLongest = 1100; // more digits than any double has
	char decimal[kLongest];
	size_t length = 0;
	while (isBlank(*text)) ++text;
	for (; length < kLongest && *text; ++text) {
		const char c = (*text | 0x20) == 'd' ? 'e' : *text;
		if (!isDigit(c) && c != '.' && c != '+' && c != '-' && (c | 0x20) != 'e') break;
		decimal[length++] = c;
	}
	return parseDouble(decimal, decimal + length);
}

int64_t parseInteger(const char* text, const char* end, const char** stop) {
	if (stop) *stop = text;
	text = startOfNumber(text, end);
	int64_t number = 0;
	const auto result = std::from_chars(text, end, number);
	if (stop && result.ptr != text) *stop = result.ptr;
	if (result.ec == std::errc::result_out_of_range) return *text == '-' ? INT64_MIN : INT64_MAX;
	return number;
}

int parseInt(const char* text, const char* end) {
	return static_cast<int>(std::clamp<int64_t>(parseInteger(text, end), INT_MIN, INT_MAX));
}

int parseInt(const char* text) { return parseInt(text, text + std::strlen(text)); }

} // namespace platform
