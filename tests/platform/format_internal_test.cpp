#include "qor/platform/format.h"
#include "qor/platform/number.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>
#include <string>

namespace {

std::string format(const char* format, ...) {
	char out[8192];
	va_list list;
	va_start(list, format);
	const size_t length = platform::formatTextV(out, sizeof out, format, list);
	va_end(list);
	return std::string(out, length);
}

std::u16string formatWide(const wchar_t* format, ...) {
	char16_t out[64];
	va_list list;
	va_start(list, format);
	const size_t length = platform::formatWideV(out, 64, format, list);
	va_end(list);
	EXPECT_EQ(out[length], 0);
	return std::u16string(out, length);
}

/// For what C says itself.
template <class... Values>
void agrees(const char* one, Values... values) {
	char expected[512];
	std::snprintf(expected, sizeof expected, one, values...);
	std::replace(expected, expected + std::strlen(expected), ',', '.'); // the point of the host's locale
	EXPECT_EQ(format(one, values...), expected) << one;
}

void* pointer(uintptr_t value) { return reinterpret_cast<void*>(value); }

TEST(Format, DirectivesOfItsOwn) {
	const double infinity = std::numeric_limits<double>::infinity(), nan = std::numeric_limits<double>::quiet_NaN();
	// The cut of a wide text drops whole characters; halves go to even; what is unknown stays as it stands.
	const std::pair<std::string, const char*> rows[] = {
	    {format("%I64d|%15I64d|%-6I64d|", -5000000000LL, 1LL << 40, 7LL), "-5000000000|  1099511627776|7     |"},
	    {format("%I64u %I64x %I64X %#I64x", ~0ULL, 0xABCDEF0123ULL, 0xABCDEF0123ULL, 255ULL),
	        "18446744073709551615 abcdef0123 ABCDEF0123 0xff"},
	    {format("%I32d %I32u %Iu", -1, ~0u, size_t{1} << 33), "-1 4294967295 8589934592"},
	    {format("%I64d", INT64_MIN), "-9223372036854775808"},
	    {format("%p|%20p|%-18p|%p", pointer(0x7FFE12AB), pointer(1), pointer(2), nullptr),
	        "000000007FFE12AB|    0000000000000001|0000000000000002  |0000000000000000"},
	    {format("%s|%8s|%-8s|%.2s|%ls", nullptr, nullptr, nullptr, nullptr, nullptr),
	        "(null)|  (null)|(null)  |(n|(null)"},
	    {format("%ls|%S|%5ls|%.3ls|%lc|%hs", L"wide", L"up", L"ab", L"a\u20ACx", L'w', "h"), "wide|up|   ab|a|w|h"},
	    {format("%ls%lc", L"\u00E9\u20AC\U0001F600", L'\u00E9'), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xC3\xA9"},
	    {format("a%nb%d", nullptr, 7), "ab7"}, {format("%y %5.1k %1$d %! 100%", 0), "%y %5.1k %1$d %! 100%"},
	    {format("%.0f %.0f %.0f %.2f %.2f %.1f", 0.5, 1.5, 2.5, 0.125, 0.375, 0.25), "0 2 2 0.12 0.38 0.2"},
	    {format("%a %A %.1a", 1.0, 0.5, 1.96875), "0x1p+0 0X1P-1 0x2.0p+0"},
	    {format("%f %5.1f %F %08f %+f %e %G", infinity, -infinity, infinity, infinity, nan, -nan, nan),
	        "inf  -inf INF      inf +nan -nan NAN"},
	    {format("%.2Lf %Lg %.3Le", 2.5L, 1e300L * 1e300L, 1.5L), "2.50 1e+600 1.500e+00"}};
	for (const auto& [text, expected] : rows) EXPECT_EQ(text, expected);
}

TEST(Format, IntegersAndTextsAgreeWithTheCLibrary) {
	agrees("%+d|% d|%05d|%-5d|%+05d|%5d", 5, 5, -42, 42, 7, 0);
	agrees("%.3d|%8.3d|%-8.3d|%08.3d|%.0d|%+.0d", 5, -5, 5, 5, 0, 0);
	agrees("%x %X %#x %#X %o %#o %#x %#o", 255, 255, 255, 255, 8, 8, 0, 0);
	agrees("%#010x|%#.4x|%#.3o|%4X", 255, 255, 8, 10);
	agrees("%hhd %hd %hhu %hu %d %u", 300, 70000, 300, 70000, INT32_MIN, UINT32_MAX);
	agrees("%lld %zu %td %jd", -1LL, size_t{9}, ptrdiff_t{-9}, intmax_t{8});
	agrees("%ld %lu", std::numeric_limits<long>::min(), std::numeric_limits<unsigned long>::max());
	agrees("[%-6s:%6s] %.3s %.0s%c%%", "ab", "cd", "abcdef", "x", 'z');
	agrees("%*d|%-*d|%*d|%.*s|%.*d", 5, 1, 5, 2, -5, 3, 2, "abc", -1, 4);
}

TEST(Format, RealsAgreeWithTheCLibrary) {
	static const char* const formats[] = {"%.0f", "%.1f", "%12.2f", "%.3f", "%f", "%.9f", "%e", "%.3e", "%g", "%.12g",
	    "%3.1f|", "%+.1f", "% .1f", "%08.2f", "%-8.2f|", "%#.0f", "%+08.2f", "%E", "%.0e", "%#.0e", "%G", "%#g",
	    "%#.3g", "%.1lf"};
	for (const double value : {0.0, -0.0, 5e-324, -1e-300, 0.0001, 1e-5, 0.0004999, 1.005, 2.675, 9.999, 99.95, 0.9996,
	         100000.0, 123456789.0, 4503599627370495.5, 1e22, 1e23, 1e100}) {
		for (const char* one : formats) agrees(one, value);
	}
	std::mt19937_64 random(20261121);
	for (int i = 0; i < 20000 && !testing::Test::HasFailure(); ++i) {
		const int64_t digits = static_cast<int64_t>(random() >> random() % 60);
		double value =
		    static_cast<double>(digits) / static_cast<double>(int64_t{1} << random() % 50); // many exact halves
		if (i % 3 == 0) value = std::ldexp(static_cast<double>(random() % 2000), -static_cast<int>(random() % 12));
		agrees(formats[random() % std::size(formats)], random() & 1 ? value : -value);
	}
}

TEST(Number, ReadsWhatStandsAtTheStart) {
	static constexpr struct {
		const char* text;
		double number, decimal;
		int stop, integer;
	} cases[] = {{" \t-2.75e1x", -27.5, -27.5, 9, -2}, {"2,75", 2, 2, 1, 2}, {"0x10", 16, 0, 4, 0},
	    {"1d2", 1, 100, 1, 1}, {"inf", HUGE_VAL, 0, 3, 0}, {"1e999", HUGE_VAL, HUGE_VAL, 5, 1},
	    {"-.5e-999", 0, 0, 8, 0}, {"+-1", 0, 0, 0, 0}, {"99999999999", 99999999999.0, 99999999999.0, 11, INT32_MAX},
	    {"\xA0"
	     "1",
	        0, 0, 0, 0}};
	for (const auto& c : cases) {
		const char* stop = nullptr;
		EXPECT_EQ(platform::parseDouble(c.text, c.text + std::strlen(c.text), &stop), c.number) << c.text;
		EXPECT_EQ(platform::parseDecimal(c.text), c.decimal) << c.text;
		EXPECT_EQ(stop - c.text, c.stop) << c.text;
		EXPECT_EQ(platform::parseInt(c.text), c.integer) << c.text;
	}
}

TEST(Format, CutsAndTerminates) {
	static constexpr std::tuple<size_t, const char*, const char*> cases[] = {
	    {4, "abcdef", "abc"}, {4, "%s", "123"}, {1, "%s", ""}, {10, "%s", "123456789"}, {8, "%20s", "       "}};
	for (const auto& [size, form, expected] : cases) {
		std::string out(16, '#');
		EXPECT_EQ(platform::formatText(out.data(), size, form, "123456789"), std::strlen(expected)) << form;
		EXPECT_STREQ(out.c_str(), expected);
		EXPECT_EQ(out[size], '#') << form;
	}
	char out = '#';
	EXPECT_EQ(platform::formatText(&out, 0, "x") + platform::formatText(nullptr, 9, "x"), 0u);
	EXPECT_EQ(out, '#');
}

TEST(Format, HugeWidthsAreBounded) {
	for (const char* one : {"%2147483647d", "%.2147483647d", "%99999999999999999999d", "%02147483647d"})
		EXPECT_EQ(format(one, 7).size(), 8191u) << one;
	EXPECT_EQ(format("%*d", INT32_MIN, 7).substr(0, 3), "7  ");
	EXPECT_EQ(format("%.2147483647f", 0.5).size(), 8191u);
	EXPECT_EQ(format("%.2000f|", 5e-324).back(), '|'); // longer than any double's digits
	EXPECT_EQ(format("%.1500e|", 1.5).substr(1498), "0000e+00|");
	EXPECT_EQ(format("%f", 1.7976931348623157e308).size(), 316u);
}

TEST(Format, WideForm) {
	EXPECT_EQ(formatWide(L"%s|%S|%hs|%ls|%5d|%c", L"w\u20AC", "n\xC3\xA9", "h", L"l", 42, L'c'),
	    u"w\u20AC|n\u00E9|h|l|   42|c");
	EXPECT_EQ(formatWide(L"\U0001F600%S|%s", "\xF0\x9F\x98\x80\xE9", nullptr), u"\U0001F600\U0001F600\u00E9|(null)");
	EXPECT_EQ(formatWide(L"%62s\U0001F600", L"x").size(), 62u); // half a character is not written
	EXPECT_EQ(formatWide(L"%I64d %.1f %p %y", -1LL, 0.5, nullptr), u"-1 0.5 0000000000000000 %y");
}

TEST(Format, CollapsePercents) {
	static constexpr std::tuple<size_t, const char*, const char*> cases[] = {
	    {64, "100%% of %s and %n", "100% of %s and %n"}, {64, "%%%%%", "%%%"}, {3, "a%%b", "a%"}, {64, "", ""},
	    {64, nullptr, ""}, {1, "x", ""}};
	for (const auto& [size, text, expected] : cases) {
		char out[64], inPlace[64] = "";
		if (text) std::strcpy(inPlace, text);
		EXPECT_EQ(platform::collapsePercents(out, size, text), std::strlen(expected));
		EXPECT_EQ(platform::collapsePercents(inPlace, size, inPlace), std::strlen(expected));
		EXPECT_STREQ(out, expected);
		EXPECT_STREQ(inPlace, expected);
	}
	EXPECT_EQ(platform::collapsePercents(nullptr, 4, "x"), 0u);
}

} // namespace
