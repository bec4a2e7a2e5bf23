#pragma once

#include "parameter_section.h"

#include <atomic>
#include <bit>
#include <cstring>
#include <utility>

namespace parameter_file {

/// All memory of one tree of sections, taken in growing blocks and given back at once: a large
/// file costs few calls of the heap, and its end costs a few more, not one for each section.
///
/// The arena stands at the start of its own first block.
class Arena {
public:
	/// @return null without memory.
	static Arena* create(const CqorBXML_Section* owner);
	/// Gives back an arena, the adopted sections in it and all that they own.
	static void destroy(Arena* arena);

	/// @return null without memory; otherwise 8-byte aligned.
	void* allocate(std::size_t bytes) {
		bytes = (bytes + 7) & ~std::size_t{7};
		if (bytes > static_cast<std::size_t>(mEnd - mAt)) return allocateFromNewBlock(bytes);
		return std::exchange(mAt, mAt + bytes);
	}
	/// A terminated copy. @return null without memory.
	char* copyText(const char* text, std::size_t length) {
		auto* copy = static_cast<char*>(allocate(length + 1));
		if (!copy) return nullptr;
		std::memcpy(copy, text, length);
		copy[length] = '\0';
		return copy;
	}
	/// Appends to an array whose capacity is the power of two that holds `count`, and at least 2. An array that
	/// is outgrown stays behind in the arena: all of them together are smaller than the last.
	template <class Item>
	bool append(Item**& items, int& count, Item* item) {
		const auto used = static_cast<std::size_t>(count);
		if (used == 0 || (used >= 2 && std::has_single_bit(used))) {
			auto** grown = static_cast<Item**>(allocate((used ? used * 2 : 2) * sizeof *items));
			if (!grown) return false;
			if (used) std::memcpy(grown, items, used * sizeof *items);
			items = grown;
		}
		items[count++] = item;
		return true;
	}

	/// For threads that look up at the same time: the one that enters may allocate. @return false, without
	/// waiting, while another one is in.
	bool enter() { return !mEntered.exchange(true, std::memory_order_acquire); }
	void leave() { mEntered.store(false, std::memory_order_release); }

	/// Takes over a section that was made with `new`. @return false without memory.
	bool adopt(CqorBXML_Section* section);
	bool belongsTo(const CqorBXML_Section* section) const { return mOwner == section; }

private:
	struct Block {
		Block* next;
		std::size_t bytes;
	};
	struct Adopted {
		Adopted* next;
		CqorBXML_Section* section;
	};

	static Block* takeBlock(std::size_t bytes);
	static CqorBXML_Section* releaseBlocks(Arena* arena, CqorBXML_Section* orphans);
	void* allocateFromNewBlock(std::size_t bytes);

	const CqorBXML_Section* mOwner;
	Block* mBlocks; // the one that is filled, and the full ones behind it
	char* mAt;
	char* mEnd;
	Adopted* mAdopted = nullptr;
	std::atomic<bool> mEntered{false};

	Arena(const CqorBXML_Section* owner, Block* block);
};

} // namespace parameter_file

/// The children of a section by type. Threads that look up may read it when the count is that of the children.
struct CqorBXML_Section::Lookup {
	std::atomic<std::int32_t> sortedCount{0}; // so many of the children stand in `byType`
	CqorBXML_Section** byType = nullptr;
	std::uint32_t room = 0;
};
