#pragma once

namespace platform {

/// Whether a file name ends with that extension (without the point), without regard to the
/// case of ASCII letters. An empty extension is that of names without a point.
bool hasExtension(const char* name, const char* extension);

} // namespace platform
