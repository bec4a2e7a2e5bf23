#pragma once

#include "../file.h"

namespace platform {

/// Claims the access of an open file and what it denies to others, against every other open
/// file of this and other processes that came through here. The claim ends with the
/// descriptor. @return false on a conflict; a file system without locks has none.
bool claimSharing(int descriptor, uint32_t access, uint32_t share);

} // namespace platform
