#include "format.h"

#include "format_number_internal.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>

// Each directive is parsed here and its text made in a small buffer on the stack, without
// the C library's printf: the libraries of the two systems differ in their directives, in
// exponents and in infinities, and this is the log's innermost loop. Padding is never
// stored, only counted, so that a width or precision of any size costs no more than what
// fits into the output.
namespace platform {
namespace {

using formatting::Directive;
using formatting::Length;
using formatting::Number;

/// `va_list` is an array on some systems and cannot be passed by reference as it is.
struct Arguments {
	va_list list;
};

constexpr size_t kMaximumCount = size_t{1} << 30; // of a width or precision

/// Takes one code point from UTF-8; a byte that is no part of it counts as its own value.
char32_t takeCodePoint(const char*& at) {
	const auto byte = [&at](int i) { return static_cast<unsigned char>(at[i]); };
	const char32_t first = byte(0);
	const int more = first >= 0xF0 && first < 0xF5   ? 3
	                 : first >= 0xE0 && first < 0xF0 ? 2
	                 : first >= 0xC2 && first < 0xE0 ? 1
	                                                 : 0;
	char32_t point = more ? first & (0x3Fu >> more) : first;
	for (int i = 1; i <= more; ++i) {
		if ((byte(i) & 0xC0) != 0x80) {
			++at;
			return first;
		}
		point = point << 6 | (byte(i) & 0x3F);
	}
	at += more + 1;
	return point;
}

/// Takes one code point from UTF-16 or UTF-32, whichever `wchar_t` is.
char32_t takeCodePoint(const wchar_t*& at) {
	const auto first = static_cast<char32_t>(*at++);
	if constexpr (sizeof(wchar_t) == 2) {
		const auto second = static_cast<char32_t>(*at);
		if (first >= 0xD800 && first < 0xDC00 && second >= 0xDC00 && second < 0xE000) {
			++at;
			return 0x10000 + ((first - 0xD800) << 10) + (second - 0xDC00);
		}
	}
	return first > 0x10FFFF ? 0xFFFD : first;
}

/// Writes a code point as UTF-8 (room for 4). @return units written.
size_t encode(char32_t point, char* out) {
	if (point < 0x80) return out[0] = static_cast<char>(point), 1;
	size_t more = point < 0x800 ? 1 : point < 0x10000 ? 2 : 3;
	const size_t length = more + 1;
	out[0] = static_cast<char>((0xF00u >> length & 0xF0) | point >> 6 * more);
	for (size_t i = 1; i < length; ++i) out[i] = static_cast<char>(0x80 | (point >> 6 * --more & 0x3F));
	return length;
}

/// Writes a code point as UTF-16 (room for 2).
size_t encode(char32_t point, char16_t* out) {
	if (point < 0x10000) return out[0] = static_cast<char16_t>(point), 1;
	out[0] = static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
	out[1] = static_cast<char16_t>(0xDC00 + ((point - 0x10000) & 0x3FF));
	return 2;
}

/// The bounded output; what does not fit is dropped, a character of several units whole.
template <class Out>
class Output {
public:
	Output(Out* out, size_t size) : mStart(out), mAt(out), mEnd(out + size - 1) {}

	size_t room() const { return static_cast<size_t>(mEnd - mAt); }
	bool full() const { return mAt == mEnd; }

	void put(char c) {
		if (mAt != mEnd) *mAt++ = static_cast<Out>(c);
	}
	void fill(char c, size_t count) {
		if (count == 0) return; // the usual case
		count = std::min(count, room());
		std::fill_n(mAt, count, static_cast<Out>(c));
		mAt += count;
	}
	/// Plain characters; bytes go into a narrow output as they are.
	void text(const char* from, size_t count) {
		count = std::min(count, room());
		if constexpr (sizeof(Out) == 1) {
			if (count > 0) std::memcpy(mAt, from, count); // `from` may be null without characters
		} else {
			std::copy_n(reinterpret_cast<const unsigned char*>(from), count, mAt);
		}
		mAt += count;
	}
	/// A run of the format, bytes; they are few as a rule, so a loop beats two calls.
	const char* literal(const char* from) {
		Out* at = mAt;
		for (Out* const end = mEnd; at != end && *from && *from != '%'; ++from) *at++ = *from;
		mAt = at;
		return from;
	}
	void character(char32_t point) {
		Out units[4];
		const size_t count = encode(point, units);
		if (count > room()) {
			mEnd = mAt;
			return;
		}
		mAt = std::copy_n(units, count, mAt);
	}
	size_t finish() {
		*mAt = 0;
		return static_cast<size_t>(mAt - mStart);
	}

private:
	Out* mStart;
	Out* mAt;
	Out* mEnd;
};

template <class In>
size_t takeCount(const In*& at) {
	size_t count = 0;
	for (; *at >= '0' && *at <= '9'; ++at) count = std::min(count * 10 + static_cast<size_t>(*at - '0'), kMaximumCount);
	return count;
}

template <class In>
Length takeLength(const In*& at) {
	const In first = *at;
	if (first == 'I') {
		++at;
		if (at[0] == '6' && at[1] == '4') return at += 2, Length::bits64;
		if (at[0] == '3' && at[1] == '2') return at += 2, Length::normal;
		return Length::size;
	}
	if (first == 'l') return *++at == 'l' ? (++at, Length::bits64) : Length::longInt;
	if (first == 'h') return *++at == 'h' ? (++at, Length::character) : Length::shortInt;
	if (first == 'z') return ++at, Length::size;
	if (first == 't') return ++at, Length::difference;
	if (first == 'j') return ++at, Length::maximum;
	if (first == 'L') return ++at, Length::longDouble;
	return Length::normal;
}

template <class In>
void takeWidthAndPrecision(const In*& at, Directive& d, Arguments& arguments) {
	if (*at == '*') {
		++at;
		const int64_t width = va_arg(arguments.list, int);
		d.left = d.left || width < 0;
		d.width = std::min(static_cast<size_t>(width < 0 ? -width : width), kMaximumCount);
	} else {
		d.width = takeCount(at);
	}
	if (*at != '.') return;
	++at;
	d.hasPrecision = true;
	if (*at != '*') {
		d.precision = takeCount(at);
		return;
	}
	++at;
	const int precision = va_arg(arguments.list, int);
	d.hasPrecision = precision >= 0;
	d.precision = d.hasPrecision ? std::min(static_cast<size_t>(precision), kMaximumCount) : 0;
}

/// Parses behind the '%'; leaves `at` behind the directive. An end of text or a wide
/// letter leaves the conversion 0.
template <class In>
Directive takeDirective(const In*& at, Arguments& arguments) {
	Directive d;
	for (;; ++at) {
		if (*at == '-')
			d.left = true;
		else if (*at == '+')
			d.plus = true;
		else if (*at == ' ')
			d.blank = true;
		else if (*at == '#')
			d.alternate = true;
		else if (*at == '0')
			d.zero = true;
		else
			break;
	}
	takeWidthAndPrecision(at, d, arguments);
	d.length = takeLength(at);
	if (*at == 0) return d;
	d.conversion = *at > 0 && *at < 0x7F ? static_cast<char>(*at) : '\0';
	++at;
	return d;
}

int64_t takeSigned(Length length, Arguments& arguments) {
	switch (length) {
	case Length::character: return static_cast<signed char>(va_arg(arguments.list, int));
	case Length::shortInt: return static_cast<short>(va_arg(arguments.list, int));
	case Length::longInt: return va_arg(arguments.list, long);
	case Length::bits64:
	case Length::longDouble: return va_arg(arguments.list, long long);
	case Length::size:
	case Length::difference: return va_arg(arguments.list, ptrdiff_t);
	case Length::maximum: return va_arg(arguments.list, intmax_t);
	case Length::normal: break;
	}
	return va_arg(arguments.list, int);
}

uint64_t takeUnsigned(Length length, Arguments& arguments) {
	switch (length) {
	case Length::character: return static_cast<unsigned char>(va_arg(arguments.list, unsigned));
	case Length::shortInt: return static_cast<unsigned short>(va_arg(arguments.list, unsigned));
	case Length::longInt: return va_arg(arguments.list, unsigned long);
	case Length::bits64:
	case Length::longDouble: return va_arg(arguments.list, unsigned long long);
	case Length::size:
	case Length::difference: return va_arg(arguments.list, size_t);
	case Length::maximum: return va_arg(arguments.list, uintmax_t);
	case Length::normal: break;
	}
	return va_arg(arguments.list, unsigned);
}

template <class Out>
void emit(Output<Out>& out, const Directive& d, const Number& number) {
	const size_t size = number.size();
	const size_t padding = d.width > size ? d.width - size : 0;
	const bool zeros = number.zeroPadded && !d.left;
	if (!d.left && !zeros) out.fill(' ', padding);
	out.text(number.prefix, number.prefixLength);
	if (zeros) out.fill('0', padding);
	out.fill('0', number.leadingZeros);
	out.text(number.digits.data(), number.digits.size());
	if (number.point) out.put('.');
	out.fill('0', number.trailingZeros);
	out.text(number.exponent.data(), number.exponent.size());
	if (d.left) out.fill(' ', padding);
}

template <class Out>
void formatInteger(Output<Out>& out, const Directive& d, Arguments& arguments) {
	char digits[formatting::kIntegerDigits];
	if (d.conversion != 'd' && d.conversion != 'i') {
		return emit(out, d, makeInteger(false, takeUnsigned(d.length, arguments), d, digits));
	}
	const int64_t value = takeSigned(d.length, arguments);
	const auto bits = static_cast<uint64_t>(value);
	emit(out, d, makeInteger(value < 0, value < 0 ? 0 - bits : bits, d, digits));
}

template <class Out>
void formatReal(Output<Out>& out, const Directive& d, Arguments& arguments) {
	const double value = va_arg(arguments.list, double);
	char digits[formatting::kRealDigits];
	const size_t length = formatting::writeShortReal(value, d, digits);
	if (length == 0) return emit(out, d, makeReal(value, d, digits));
	if (d.width > length) out.fill(' ', d.width - length);
	out.text(digits, length);
}

template <class Out>
void formatLongReal(Output<Out>& out, const Directive& d, Arguments& arguments) {
	char digits[formatting::kLongDoubleDigits];
	emit(out, d, makeLongReal(va_arg(arguments.list, long double), d, digits));
}

template <class Out>
void formatPointer(Output<Out>& out, const Directive& d, Arguments& arguments) {
	char digits[formatting::kIntegerDigits];
	emit(out, d, formatting::makePointer(va_arg(arguments.list, void*), digits));
}

/// Bytes into a narrow output.
void formatBytes(Output<char>& out, const Directive& d, const char* text) {
	size_t limit = std::max(d.width, out.room());
	if (d.hasPrecision) limit = std::min(limit, d.precision);
	const void* end = std::memchr(text, 0, limit);
	const size_t length = end ? static_cast<size_t>(static_cast<const char*>(end) - text) : limit;
	const size_t padding = d.width > length ? d.width - length : 0;
	if (!d.left) out.fill(' ', padding);
	out.text(text, length);
	if (d.left) out.fill(' ', padding);
}

/// Text of another character type than the output's, a code point at a time. A precision
/// counts units of the output; only whole characters are written.
template <class Out, class Text>
void formatConverted(Output<Out>& out, const Directive& d, const Text* text) {
	size_t limit = std::max(d.width, out.room());
	if (d.hasPrecision) limit = std::min(limit, d.precision);
	Out units[4];
	size_t length = 0;
	const Text* end = text;
	while (length < limit && *end) {
		const Text* next = end;
		const size_t more = encode(takeCodePoint(next), units);
		if (length + more > limit) break;
		length += more;
		end = next;
	}
	const size_t padding = d.width > length ? d.width - length : 0;
	if (!d.left) out.fill(' ', padding);
	while (text != end && !out.full()) out.character(takeCodePoint(text));
	if (d.left) out.fill(' ', padding);
}

template <class Out>
void formatString(Output<Out>& out, const Directive& d, bool wide, Arguments& arguments) {
	if (wide) {
		const wchar_t* text = va_arg(arguments.list, const wchar_t*);
		return formatConverted(out, d, text ? text : L"(null)");
	}
	const char* text = va_arg(arguments.list, const char*);
	if (!text) text = "(null)";
	if constexpr (sizeof(Out) == 1)
		formatBytes(out, d, text);
	else
		formatConverted(out, d, text);
}

template <class Out>
void formatCharacter(Output<Out>& out, const Directive& d, bool wide, Arguments& arguments) {
	const int value = va_arg(arguments.list, int);
	const size_t padding = d.width > 1 ? d.width - 1 : 0;
	if (!d.left) out.fill(' ', padding);
	if (wide)
		out.character(static_cast<char32_t>(static_cast<std::make_unsigned_t<wchar_t>>(value)));
	else if (sizeof(Out) == 1)
		out.put(static_cast<char>(value));
	else
		out.character(static_cast<unsigned char>(value));
	if (d.left) out.fill(' ', padding);
}

/// @return false for a directive that is not known.
template <class Out>
bool formatDirective(Output<Out>& out, const Directive& d, Arguments& arguments) {
	constexpr bool kWideFormat = sizeof(Out) != 1;
	const bool sameWidth = d.conversion == 's' || d.conversion == 'c'; // as the format; 'S' and 'C' are the other
	const bool wide = d.length == Length::longInt    ? true
	                  : d.length == Length::shortInt ? false
	                                                 : sameWidth == kWideFormat;
	switch (d.conversion) {
	case 'd':
	case 'i':
	case 'u':
	case 'x':
	case 'X':
	case 'o': formatInteger(out, d, arguments); return true;
	case 's':
	case 'S': formatString(out, d, wide, arguments); return true;
	case 'c':
	case 'C': formatCharacter(out, d, wide, arguments); return true;
	case 'f':
	case 'F':
	case 'e':
	case 'E':
	case 'g':
	case 'G':
	case 'a':
	case 'A':
		if (d.length == Length::longDouble)
			formatLongReal(out, d, arguments);
		else
			formatReal(out, d, arguments);
		return true;
	case 'p': formatPointer(out, d, arguments); return true;
	case 'n': static_cast<void>(va_arg(arguments.list, void*)); return true;
	case '%': out.put('%'); return true;
	default: return false;
	}
}

/// The directives that most lines consist of, `%s`, `%d` and `%12.2f`, without the records
/// of the general way. @return false, nothing taken, for any other.
bool formatPlain(Output<char>& out, const char*& at, Arguments& arguments) {
	if (*at == 's') {
		formatString(out, Directive(), false, arguments);
		return ++at, true;
	}
	char digits[formatting::kIntegerDigits];
	if (*at == 'd') {
		const size_t length = formatting::writeInteger(va_arg(arguments.list, int), digits);
		out.text(digits, length);
		return ++at, true;
	}
	if (*at == '0') return false; // a flag
	const char* next = at;
	Directive d;
	d.width = takeCount(next);
	if (next[0] != '.' || next[1] < '0' || next[1] > '3' || next[2] != 'f') return false;
	d.hasPrecision = true;
	d.precision = static_cast<size_t>(next[1] - '0');
	d.conversion = 'f';
	at = next + 3;
	formatReal(out, d, arguments);
	return true;
}

bool formatPlain(Output<char16_t>&, const wchar_t*&, Arguments&) { return false; }

void copyLiteral(Output<char>& out, const char* from, const char* to) {
	out.text(from, static_cast<size_t>(to - from));
}

void copyLiteral(Output<char16_t>& out, const wchar_t* from, const wchar_t* to) {
	while (from < to && !out.full()) out.character(takeCodePoint(from));
}

/// Copies up to the next directive, the end or a full output. @return where that is.
const char* takeLiteral(Output<char>& out, const char* at) { return out.literal(at); }

const wchar_t* takeLiteral(Output<char16_t>& out, const wchar_t* at) {
	while (*at && *at != '%' && !out.full()) out.character(takeCodePoint(at));
	return at;
}

template <class Out, class In>
size_t run(Out* to, size_t size, const In* format, va_list list) {
	if (!to || size == 0) return 0;
	Output<Out> out(to, size);
	if (!format) return out.finish();
	Arguments arguments;
	va_copy(arguments.list, list);
	for (const In* at = format; *at && !out.full();) {
		at = takeLiteral(out, at);
		if (!*at || out.full()) break;
		const In* start = at++;
		if (formatPlain(out, at, arguments)) continue;
		const Directive d = takeDirective(at, arguments);
		if (!formatDirective(out, d, arguments)) copyLiteral(out, start, at);
	}
	va_end(arguments.list);
	return out.finish();
}

} // namespace

size_t formatText(char* out, size_t size, const char* format, ...) {
	va_list list;
	va_start(list, format);
	const size_t length = formatTextV(out, size, format, list);
	va_end(list);
	return length;
}

size_t formatTextV(char* out, size_t size, const char* format, va_list arguments) {
	return run(out, size, format, arguments);
}

size_t formatWideV(char16_t* out, size_t size, const wchar_t* format, va_list arguments) {
	return run(out, size, format, arguments);
}

size_t collapsePercents(char* out, size_t size, const char* text) {
	if (!out || size == 0) return 0;
	size_t length = 0;
	for (; text && *text && length < size - 1; ++text) {
		if (text[0] == '%' && text[1] == '%') ++text;
		out[length++] = *text;
	}
	out[length] = 0;
	return length;
}

} // namespace platform
