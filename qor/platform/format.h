#pragma once

#include <cstdarg>
#include <cstddef>

/// The printf of the library: the directives of the Windows contract give the same text
/// on both systems. Beside the C ones these are `%I64d`, `%I64u`, `%I64x` and their kind,
/// `%p` as sixteen upper-case hexadecimal digits, and `%s` of null as "(null)". `%n`
/// writes nothing anywhere. `long` directives take the caller's `long`.
namespace platform {

/// Formats into `out`, cut to `size` - 1 characters and always terminated (size 0: nothing).
/// @return characters written without the terminator.
size_t formatText(char* out, size_t size, const char* format, ...);
size_t formatTextV(char* out, size_t size, const char* format, va_list arguments);

/// The wide form: 16-bit characters. In a wide format `%s` takes a wide text and `%S` a narrow one.
size_t formatWideV(char16_t* out, size_t size, const wchar_t* format, va_list arguments);

/// The second formatting of a finished text: "%%" becomes "%", everything else is copied
/// as it stands, so a text from a file or from the wire can never act as a format.
/// Cut and terminated like `formatText`; `out` may be `text` itself.
size_t collapsePercents(char* out, size_t size, const char* text);

} // namespace platform
