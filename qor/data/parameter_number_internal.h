#pragma once

namespace parameter_file {

/// The decimal number at the start of a text, behind white space; 0 without one. Limited to the range of int.
int toInt(const char* text, const char* end);

/// The same for a real number, with exponent, "inf" and "nan", or hexadecimal behind "0x". The point is "." in every
/// locale. What is too large is infinite, what is too small 0.
double toDouble(const char* text, const char* end);

} // namespace parameter_file
