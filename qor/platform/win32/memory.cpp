#include "../memory.h"

#include "../faults.h"

#include <cstdlib>
#include <windows.h>

namespace platform {

namespace {

bool refuse() {
	if (!injectFault(FaultPoint::memory)) return false;
	SetLastError(ERROR_NOT_ENOUGH_MEMORY);
	return true;
}

} // namespace

void* allocate(size_t bytes) { return refuse() ? nullptr : std::malloc(bytes ? bytes : 1); }

void* allocateZeroed(size_t bytes) { return refuse() ? nullptr : std::calloc(bytes ? bytes : 1, 1); }

void* reallocate(void* block, size_t bytes) { return refuse() ? nullptr : std::realloc(block, bytes ? bytes : 1); }

void release(void* block) { std::free(block); }

void* allocatePages(size_t bytes) {
	return refuse() ? nullptr : VirtualAlloc(nullptr, bytes, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE);
}

void releasePages(void* pages, size_t) {
	if (pages) VirtualFree(pages, 0, MEM_RELEASE);
}

void* virtualAllocate(size_t bytes, void* address, unsigned long type, unsigned long protection) {
	return refuse() ? nullptr : VirtualAlloc(address, bytes, type, protection);
}

bool virtualFree(void* address, size_t bytes, unsigned long type) { return VirtualFree(address, bytes, type) != 0; }

} // namespace platform
