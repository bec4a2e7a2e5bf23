#include "../memory.h"

#include "../faults.h"
#include "../machine.h"
#include "errors.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <mutex>
#include <new>
#include <sys/mman.h>

namespace platform {

namespace {

constexpr size_t kPageSize = 4096;
constexpr size_t kHugePage = size_t{2} << 20;
constexpr unsigned long kCommit = 0x1000;
constexpr unsigned long kReserve = 0x2000;
constexpr unsigned long kDecommit = 0x4000;
constexpr unsigned long kRelease = 0x8000;
constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kInvalidParameter = 87;
constexpr uint32_t kInvalidAddress = 487;

bool refuse() {
	if (!injectFault(FaultPoint::memory)) return false;
	setLastError(kOutOfMemory);
	return true;
}

/// The answer of the C heap, with the error that Windows gives.
void* checked(void* block) {
	if (!block) setLastError(kOutOfMemory);
	return block;
}

/// 0 when nothing is left of the address space.
size_t wholePages(size_t bytes) { return (bytes + kPageSize - 1) & ~(kPageSize - 1); }

void* mapPages(size_t bytes, void* address, int protection, int flags) {
	void* pages = mmap(address, bytes, protection, MAP_PRIVATE | MAP_ANONYMOUS | flags, -1, 0);
	if (pages != MAP_FAILED) return pages;
	setLastError(windowsError(errno));
	return nullptr;
}

/// A reserved range. The system itself does not remember where a reservation begins and
/// ends, which committing, decommitting and releasing depend on.
struct Reservation {
	uintptr_t base;
	size_t bytes;
	Reservation* next;

	bool holds(uintptr_t address, size_t size) const {
		return address >= base && size <= bytes && address - base <= bytes - size;
	}
};

std::mutex gReservationsLock; // guards the list and every change of a reservation's pages
Reservation* gReservations = nullptr;

/// The link that leads to the reservation holding the range; null without one.
Reservation** findReservation(uintptr_t address, size_t bytes) {
	for (Reservation** link = &gReservations; *link; link = &(*link)->next) {
		if ((*link)->holds(address, bytes)) return link;
	}
	return nullptr;
}

void* fail(uint32_t error) {
	setLastError(error);
	return nullptr;
}

void* reserve(size_t bytes, void* address, int protection) {
	Reservation* made = new (std::nothrow) Reservation{0, bytes, nullptr};
	if (!made) return fail(kOutOfMemory);
	const uintptr_t wanted = reinterpret_cast<uintptr_t>(address) & ~(kPageSize - 1);
	void* pages = mapPages(
	    bytes, reinterpret_cast<void*>(wanted), protection, MAP_NORESERVE | (address ? MAP_FIXED_NOREPLACE : 0));
	if (!pages) {
		if (address) setLastError(kInvalidAddress);
		delete made;
		return nullptr;
	}
	made->base = reinterpret_cast<uintptr_t>(pages);
	const std::lock_guard lock(gReservationsLock);
	made->next = gReservations;
	gReservations = made;
	return pages;
}

/// Committing again keeps what the pages hold and takes the new protection.
void* commit(size_t bytes, uintptr_t address, int protection) {
	const uintptr_t first = address & ~(kPageSize - 1);
	const size_t length = wholePages(address - first + bytes);
	const std::lock_guard lock(gReservationsLock);
	if (length == 0 || !findReservation(first, length)) return fail(kInvalidAddress);
	void* pages = reinterpret_cast<void*>(first);
	if (mprotect(pages, length, protection) != 0) return fail(windowsError(errno));
	return pages;
}

bool decommit(uintptr_t address, size_t bytes) {
	Reservation** link = findReservation(address, bytes ? bytes : 1);
	if (!link || (bytes == 0 && (*link)->base != address)) return fail(kInvalidAddress) != nullptr;
	const uintptr_t first = address & ~(kPageSize - 1);
	const size_t length = bytes ? wholePages(address - first + bytes) : (*link)->bytes;
	// Fresh pages in place of the old ones: the contents are gone and no memory is held.
	return mapPages(length, reinterpret_cast<void*>(first), PROT_NONE, MAP_NORESERVE | MAP_FIXED) != nullptr;
}

bool releaseReservation(uintptr_t address) {
	Reservation** link = findReservation(address, 1);
	if (!link || (*link)->base != address) return fail(kInvalidAddress) != nullptr;
	Reservation* found = *link;
	*link = found->next;
	munmap(reinterpret_cast<void*>(found->base), found->bytes);
	delete found;
	return true;
}

} // namespace

void* allocate(size_t bytes) { return refuse() ? nullptr : checked(std::malloc(bytes ? bytes : 1)); }

void* allocateZeroed(size_t bytes) { return refuse() ? nullptr : checked(std::calloc(bytes ? bytes : 1, 1)); }

void* reallocate(void* block, size_t bytes) {
	return refuse() ? nullptr : checked(std::realloc(block, bytes ? bytes : 1));
}

void release(void* block) { std::free(block); }

/// Large blocks begin at a multiple of a huge page and ask for huge pages: copying into them
/// and handing them to a disk costs less. Without them they are ordinary pages.
void* allocatePages(size_t bytes) {
	if (refuse()) return nullptr;
	const size_t length = wholePages(bytes);
	if (length == 0 || length > SIZE_MAX - kHugePage) return fail(bytes ? kOutOfMemory : kInvalidParameter);
	if (length < kHugePage) return mapPages(length, nullptr, PROT_READ | PROT_WRITE, 0);
	auto* mapped = static_cast<char*>(mapPages(length + kHugePage, nullptr, PROT_READ | PROT_WRITE, 0));
	if (!mapped) return nullptr;
	const size_t before = (kHugePage - reinterpret_cast<uintptr_t>(mapped) % kHugePage) % kHugePage;
	if (before > 0) munmap(mapped, before);
	munmap(mapped + before + length, kHugePage - before);
	madvise(mapped + before, length, MADV_HUGEPAGE);
	return mapped + before;
}

void releasePages(void* pages, size_t bytes) {
	if (pages) munmap(pages, wholePages(bytes));
}

/// Reservations begin at multiples of a page here, not of 64 KiB.
void* virtualAllocate(size_t bytes, void* address, unsigned long type, unsigned long protection) {
	if (refuse()) return nullptr;
	int access = 0;
	switch (protection) {
	case 0x01: access = PROT_NONE; break;
	case 0x02: access = PROT_READ; break;
	case 0x04: access = PROT_READ | PROT_WRITE; break;
	default: return fail(kInvalidParameter);
	}
	if (bytes == 0 || (type & (kCommit | kReserve)) == 0 || (type & ~(kCommit | kReserve)) != 0) {
		return fail(kInvalidParameter);
	}
	// Committing "anywhere" reserves as well.
	if (type == kCommit && address) return commit(bytes, reinterpret_cast<uintptr_t>(address), access);
	const uintptr_t offset = reinterpret_cast<uintptr_t>(address) & (kPageSize - 1);
	const size_t length = bytes <= SIZE_MAX - kPageSize * 2 ? wholePages(bytes + offset) : 0;
	if (length == 0) return fail(kOutOfMemory);
	return reserve(length, address, type & kCommit ? access : PROT_NONE);
}

bool virtualFree(void* address, size_t bytes, unsigned long type) {
	if ((type != kDecommit && type != kRelease) || (type == kRelease && bytes != 0)) {
		return fail(kInvalidParameter) != nullptr;
	}
	const std::lock_guard lock(gReservationsLock);
	const uintptr_t start = reinterpret_cast<uintptr_t>(address);
	return type == kDecommit ? decommit(start, bytes) : releaseReservation(start);
}

} // namespace platform
