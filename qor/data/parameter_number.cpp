#include "parameter_number_internal.h"

#include <charconv>
#include <climits>
#include <limits>

namespace parameter_file {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

/// Past blanks and a plus, which std::from_chars does not take. @return `end` when a minus
/// follows the plus: not a number.
const char* startOfNumber(const char* text, const char* end) {
	while (text < end && static_cast<unsigned char>(*text) <= ' ') ++text;
	if (text == end || *text != '+') return text;
	++text;
	return text < end && *text == '-' ? end : text;
}

/// A number beyond the range of double: is it too large, not too small?
bool isTooLarge(const char* at, const char* end) {
	long long magnitude = 0; // digits in front of the point, or minus the zeros behind it
	bool counting = false, behindPoint = false;
	for (; at < end && (isDigit(*at) || *at == '.' || *at == '-'); ++at) {
		if (*at == '.')
			behindPoint = true;
		else if (isDigit(*at) && (*at != '0' || counting)) {
			counting = true;
			if (!behindPoint) ++magnitude;
		} else if (behindPoint && !counting)
			--magnitude;
	}
	if (at < end && (*at | 0x20) == 'e') magnitude += toInt(at + 1, end);
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
	double number = 0;
	const auto result = std::from_chars(text, end, number);
	if (result.ec != std::errc::result_out_of_range) return number;
	number = isTooLarge(text, result.ptr) ? std::numeric_limits<double>::infinity() : 0;
	return *text == '-' ? -number : number;
}

} // namespace parameter_file
