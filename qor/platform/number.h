#pragma once

#include <cstddef>
#include <cstdint>

/// Numbers in texts, the same whatever locale the host has set: the point is ".", digits and blanks
/// are those of ASCII. Each reads the number at the start of a text, behind white space, and is 0
/// without one. Writing is `formatText` (format.h), which knows no locale either.
namespace platform {

/// As `strtod` in the "C" locale: with exponent, "inf" and "nan", or hexadecimal behind "0x". What is
/// too large is infinite, what is too small 0.
/// @param stop receives the place behind the number; `text` without one. May be null.
double parseDouble(const char* text, const char* end, const char** stop = nullptr);
double parseDouble(const char* text);

/// As values of initialisation files are read: decimal only, so "0x10" is 0 like "inf" and "nan"; "d" is
/// an exponent as "e" is.
double parseDecimal(const char* text);

/// A decimal integer, limited to the range of the result.
/// @param stop as above.
int64_t parseInteger(const char* text, const char* end, const char** stop = nullptr);
int parseInt(const char* text, const char* end);
int parseInt(const char* text);

constexpr bool isDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool isLetter(char c) { return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z'); }
/// White space of C: blank, tab, line feed, vertical tab, form feed, carriage return.
constexpr bool isBlank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

} // namespace platform
