#pragma once

#include <atomic>
#include <cstddef>

namespace core {

/// Lines kept in memory, oldest first. Appending never moves what is stored: pointers to
/// lines stand in blocks of 256, 512, 1024 ..., so readers need no lock beside the one
/// thread that appends. Nothing is ever taken out.
class LineList {
public:
	/// Appends a copy; without memory the line is left out. One thread at a time.
	void append(const char* line, size_t length);

	size_t size() const { return mCount.load(std::memory_order_acquire); }
	/// Counts from the newest, index 0; beyond the oldest: the oldest; empty: null.
	const char* fromNewest(size_t index) const;

private:
	static constexpr size_t kFirstBlock = 256;
	static constexpr int kBlocks = 48;

	struct Place {
		int block;
		size_t offset;
	};
	static Place placeOf(size_t index);

	char** mBlocks[kBlocks]{}; // written before the count that makes them visible
	std::atomic<size_t> mCount{0};
};

} // namespace core
