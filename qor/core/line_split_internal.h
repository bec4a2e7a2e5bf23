#pragma once

#include <climits>
#include <cstddef>

/// What the two splitters of parameter lines have in common.
namespace line_split {

/// Offsets and lengths have 32 bits, and a buffer may be twice as long as its line.
inline constexpr std::size_t kMaximumLength = INT_MAX / 2;

/// How `Feed` says that there was no memory for the parameters.
inline constexpr int kNoParameterMemory = static_cast<int>(0xFFFFFFFF);

/// Entries that a full parameter array grows by.
inline constexpr int kParameterGrowth = 32;

/// Two line buffers of one size: the line, and a parameter while its quotes are taken off.
/// @return false without memory; both stay usable at their old size.
bool growBuffers(char*& line, char*& scratch, std::size_t bytes);

/// An array of `capacity` items made larger by `kParameterGrowth`. @return null without memory, the old one stays.
void* growParameters(void* parameters, int capacity, std::size_t itemSize);

/// The first separator or double quote from `text` on; `end` without one.
char* findStop(char* text, char* end, char separator);

/// `text` stands at an opening quote. @return the place behind the closing one; `end` without one.
char* skipQuoted(char* text, char* end, bool escapes);

/// Trims `[start, end)` and takes off its quotes; the result is terminated. A trimmed start makes
/// the result begin behind `start`.
/// @param scratch room for the whole parameter
/// @return where the result begins.
char* postProcess(char* start, char* end, char* scratch);

/// Copies a terminated text, cut to `size` - 1 characters (size 0: nothing). Null texts are empty.
char* copyText(char* out, std::size_t size, const char* text);

} // namespace line_split
