#pragma once

#include "managed_object.h"

namespace core {

/// Levels of elements in the XML text of a tree. A tree that is nested deeper is not written, since
/// the XML library refuses to read it back; the bound also keeps the recursion over a file's
/// elements short.
inline constexpr int kMaximumXmlNesting = CmcConstants::kXmlMaximumLevels;

inline constexpr char kXmlNameAttribute[] = "_mcName";

} // namespace core
