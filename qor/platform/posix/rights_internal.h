#pragma once

#include <sys/stat.h>

namespace platform {

/// Gives an open file the owner, group and mode of the file at `path`, or, without one, the
/// mode of a new file. What the system refuses is left out, never widened.
void takeRights(int handle, const char* path);

/// Whether a link may lead this process to another file: it belongs to this user or to root,
/// and stands in a folder that not everybody may write.
bool isTrustedLink(const struct stat& link, const struct stat& folder);

} // namespace platform
