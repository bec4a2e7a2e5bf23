#include "../platform/memory.h"
#include "parameter_arena_internal.h"

#include <algorithm>
#include <new>

namespace parameter_file {

namespace {

constexpr std::size_t kFirstBlock = 512; // a section of a host has an arena of its own
constexpr std::size_t kLargestBlock = std::size_t{8} << 20;

/// From here on a block is made of whole pages, which may be huge ones: most of the time that a
/// large file takes would be spent in page faults.
constexpr std::size_t kPagedBlock = std::size_t{2} << 20;

} // namespace

Arena::Arena(const CqorBXML_Section* owner, Block* block)
    : mOwner(owner), mBlocks(block), mAt(reinterpret_cast<char*>(this + 1)),
      mEnd(reinterpret_cast<char*>(block) + block->bytes) {}

Arena::Block* Arena::takeBlock(std::size_t bytes) {
	void* memory = bytes < kPagedBlock ? platform::allocate(bytes) : platform::allocatePages(bytes);
	return memory ? ::new (memory) Block{nullptr, bytes} : nullptr;
}

Arena* Arena::create(const CqorBXML_Section* owner) {
	Block* block = takeBlock(kFirstBlock);
	return block ? ::new (static_cast<void*>(block + 1)) Arena(owner, block) : nullptr;
}

void* Arena::allocateFromNewBlock(std::size_t bytes) {
	const std::size_t usual = std::min(mBlocks->bytes * 2, kLargestBlock);
	if (bytes > SIZE_MAX / 2) return nullptr;
	const std::size_t needed = bytes + sizeof(Block);
	Block* block = takeBlock(std::max(usual, needed));
	if (!block) return nullptr;
	char* start = reinterpret_cast<char*>(block + 1);
	if (needed > usual) { // a block of its own, behind the one that is filled
		block->next = std::exchange(mBlocks->next, block);
		return start;
	}
	block->next = std::exchange(mBlocks, block);
	mAt = start + bytes;
	mEnd = reinterpret_cast<char*>(block) + block->bytes;
	return start;
}

bool Arena::adopt(CqorBXML_Section* section) {
	void* memory = allocate(sizeof(Adopted));
	if (memory) mAdopted = ::new (memory) Adopted{mAdopted, section};
	return memory != nullptr;
}

/// @return `orphans` with the adopted sections in front; the parents, which end here, link them.
CqorBXML_Section* Arena::releaseBlocks(Arena* arena, CqorBXML_Section* orphans) {
	for (const Adopted* at = arena->mAdopted; at; at = at->next) {
		at->section->mParent = orphans;
		orphans = at->section;
	}
	for (Block* block = arena->mBlocks; block;) { // the arena itself goes with one of them
		Block* next = block->next;
		if (block->bytes < kPagedBlock)
			platform::release(block);
		else
			platform::releasePages(block, block->bytes);
		block = next;
	}
	return orphans;
}

/// Trees of hosts may be nested to any depth, so what is left to destroy stands in a list.
void Arena::destroy(Arena* arena) {
	CqorBXML_Section* orphans = releaseBlocks(arena, nullptr);
	while (orphans) {
		CqorBXML_Section* section = std::exchange(orphans, orphans->mParent);
		section->mParent = nullptr;
		Arena* own = std::exchange(section->mArena, nullptr);
		if (own) orphans = releaseBlocks(own, orphans);
		delete section;
	}
}

} // namespace parameter_file
