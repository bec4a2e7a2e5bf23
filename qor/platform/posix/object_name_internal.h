#pragma once

namespace platform::posix {

/// Checks the name of an object to be shared: shorter than 260 characters, and without a "\"
/// except in the prefixes "Local\" and "Global\".
/// @return the name without "Local\", which means the same as none; null with the last error.
const char* objectName(const char* name);

} // namespace platform::posix
