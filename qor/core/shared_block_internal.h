#pragma once

#include <cstddef>

/// Heap blocks that count their users, for what copies of a managed object have in common.
/// The count stands in front of the contents, so that a field stays one plain pointer.
namespace core {

/// A block with one user. @return null without memory.
void* allocateShared(std::size_t bytes);

/// Another user of the block; null does nothing.
void addSharedUser(void* block);

/// One user less; the last one frees the block. Null does nothing.
void releaseShared(void* block);

/// Whether the caller is the only user, and may change the contents.
bool isSoleUser(const void* block);

/// Gives a user a block of `bytes` of its own with the first `used` bytes of `block` (which may be
/// null) and takes the user off `block`. @return null without memory, with nothing changed.
void* resizeShared(void* block, std::size_t used, std::size_t bytes);

} // namespace core
