#pragma once

#include <cstddef>

namespace platform {

/// The heap that the library shares with its hosts: `release` is `free`. Each can be made
/// to fail (faults.h).
/// @return null when there is no memory. A size of 0 gives a block that must be released.
void* allocate(size_t bytes);
void* allocateZeroed(size_t bytes);
/// Keeps the contents up to the smaller size; on failure the old block stays as it is.
void* reallocate(void* block, size_t bytes);
void release(void* block);

/// Whole pages of zeroed, readable and writable memory, at a multiple of 4096.
void* allocatePages(size_t bytes);
void releasePages(void* pages, size_t bytes);

/// Reserves, commits, decommits or releases virtual memory, with the flag values of the
/// Windows contract (commit 0x1000, reserve 0x2000, decommit 0x4000, release 0x8000;
/// no access 0x01, read only 0x02, read and write 0x04).
void* virtualAllocate(size_t bytes, void* address, unsigned long type, unsigned long protection);
bool virtualFree(void* address, size_t bytes, unsigned long type);

} // namespace platform
