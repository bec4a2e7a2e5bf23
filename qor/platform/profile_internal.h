#pragma once

#include <cstdint>
#include <string_view>

namespace platform {

/// Whether a text can stand in one line of an initialisation file; a break would make
/// further lines of it. Null can.
bool fitsOneLine(const char* text);

/// Copies a value, less one pair of quotes, as `profileGetString` answers.
uint32_t copyProfileValue(std::string_view value, char* out, uint32_t size);

/// Copies `fallback` as a missing value is answered: without the blanks at its end.
uint32_t copyProfileFallback(const char* fallback, char* out, uint32_t size);

} // namespace platform
