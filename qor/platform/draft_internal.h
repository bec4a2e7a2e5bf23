#pragma once

#include <string>

namespace platform {

/// The absolute path of the file that a draft for `path` replaces: `path` itself, or what a
/// link leads to that may be followed. Throws without memory.
/// @return empty with `lastError()` for what is refused.
std::string draftTarget(const char* path);

} // namespace platform
