#pragma once

#include <cstdint>

/// Initialisation files: "[section]" lines and "key=value" lines, ended by CR, LF or both.
/// Section and key names are compared without regard to the case of ASCII letters; blanks
/// around names and values, and one pair of quotes around a value, are taken off. Of a name
/// that stands twice the first counts. A file is bytes of the Western code page or, behind a
/// byte order mark, UTF-8 or UTF-16, and stays what it is. A relative path without a folder is
/// relative to the current directory.
///
/// Threads and processes may read and write one file at the same time: a reader finds it as
/// it was before or after each change, and no writer undoes what another did.
namespace platform {

/// @return the integer at the start of the value (0 when it starts with none); `fallback` for an empty value and
/// without file, section or key.
int profileGetInt(const char* section, const char* key, int fallback, const char* path);

/// Copies the value, or `fallback` (null: the empty text), cut to `size` - 1 characters.
/// @return characters copied without the terminator; 0 with a size below 1.
uint32_t profileGetString(
    const char* section, const char* key, const char* fallback, char* out, uint32_t size, const char* path);

/// Sets a value, making file, section and key as needed; a null value removes the key, a
/// null key the section. Other lines of the file keep their order.
/// @return 1; 0 when the file cannot be written.
int profileWriteString(const char* section, const char* key, const char* value, const char* path);

} // namespace platform
