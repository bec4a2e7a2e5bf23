#include "qor/platform/faults.h"
#include "qor/platform/machine.h"
#include "qor/platform/memory.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace platform {
namespace {

TEST(Machine, TextsFitWholeOrNotAtAll) {
	const std::string current = std::filesystem::current_path().string();
	const std::string path = std::getenv("PATH");
	const struct {
		const char* name;
		std::function<size_t(char*, size_t)> call;
		const std::string* expected;
	} rows[] = {{"directory", currentDirectory, &current}, {"user", userName, nullptr},
	    {"computer", computerName, nullptr},
	    {"environment", [](char* out, size_t size) { return environment("PATH", out, size); }, &path}};
	for (const auto& row : rows) {
		SCOPED_TRACE(row.name);
		std::vector<char> text(70000, '?');
		const size_t length = row.call(text.data(), text.size());
		ASSERT_GT(length, 0u);
		EXPECT_EQ(std::strlen(text.data()), length);
		if (row.expected) {
			EXPECT_EQ(*row.expected, text.data());
		}
		const std::string whole = text.data();
		EXPECT_EQ(row.call(text.data(), length + 1), length);
		EXPECT_EQ(whole, text.data());
		text[length] = '?';
		EXPECT_EQ(row.call(text.data(), length), 0u);
		EXPECT_TRUE(text[0] == 0 && text[length] == '?');
		EXPECT_EQ(row.call(text.data(), 0), 0u);
		EXPECT_EQ(row.call(nullptr, 10), 0u);
	}
}

TEST(Machine, UnsetVariableIsEmpty) {
	for (const char* name : {"QOR_TEST_NO_SUCH_VARIABLE", "", static_cast<const char*>(nullptr)}) {
		char text[8] = "old";
		EXPECT_EQ(environment(name, text, sizeof(text)), 0u);
		EXPECT_STREQ(text, "");
	}
}

TEST(Machine, MemoryAndNumbers) {
	const MemoryStatus status = memoryStatus();
	EXPECT_GT(status.totalPhysical, 64u << 20);
	EXPECT_GT(status.availablePhysical, 0u);
	EXPECT_LT(status.availablePhysical, status.totalPhysical);
	const uint32_t process = processId(), thread = threadId();
	std::atomic<int> stage{0};
	std::thread other([&] {
		EXPECT_EQ(processId(), process);
		EXPECT_NE(threadId(), thread);
		setLastError(112);
		stage = 1;
		while (stage != 2) {
		}
		EXPECT_EQ(lastError(), 112u); // each thread has its own
	});
	while (stage != 1) {
	}
	setLastError(5);
	stage = 2;
	EXPECT_EQ(lastError(), 5u);
	other.join();
	EXPECT_EQ(threadId(), thread);
}

TEST(Memory, TheNthCallFails) {
	const std::function<void*()> calls[] = {[] { return allocate(10); }, [] { return allocateZeroed(10); },
	    [] { return reallocate(nullptr, 10); }, [] { return allocatePages(10); },
	    [] { return virtualAllocate(10, nullptr, 0x3000, 4); }};
	armFault(FaultPoint::memory, 3);
	for (int i = 0; i < 5; ++i) {
		void* block = calls[i]();
		EXPECT_EQ(block == nullptr, i == 2) << i;
		if (i < 3) release(block);
		if (i == 3) releasePages(block, 10);
		if (i == 4) virtualFree(block, 0, 0x8000);
	}
	EXPECT_EQ(faultCalls(FaultPoint::memory), 5);
	armFault(FaultPoint::memory, 0);
	EXPECT_EQ(faultCalls(FaultPoint::memory), 0);
}

TEST(Memory, BlocksOfTheHeap) {
	char* block = static_cast<char*>(allocate(3));
	std::memcpy(block, "ab", 3);
	armFault(FaultPoint::memory, 1);
	EXPECT_EQ(reallocate(block, 100000), nullptr);
	armFault(FaultPoint::memory, 0);
	EXPECT_STREQ(block, "ab"); // kept when growing fails
	block = static_cast<char*>(reallocate(block, 100000));
	EXPECT_STREQ(block, "ab");
	std::free(block); // the heap of the host
	char* zeroed = static_cast<char*>(allocateZeroed(1000));
	EXPECT_EQ(std::count(zeroed, zeroed + 1000, 0), 1000);
	release(zeroed);
	for (void* nothing : {allocate(0), allocateZeroed(0), reallocate(nullptr, 0)}) {
		EXPECT_NE(nothing, nullptr);
		release(nothing);
	}
}

TEST(Memory, PagesAreAlignedAndZeroed) {
	for (const size_t bytes : {size_t{1}, size_t{4096}, size_t{1000001}}) {
		char* pages = static_cast<char*>(allocatePages(bytes));
		ASSERT_NE(pages, nullptr);
		EXPECT_EQ(reinterpret_cast<uintptr_t>(pages) % 4096, 0u);
		const size_t whole = (bytes + 4095) / 4096 * 4096;
		EXPECT_EQ(static_cast<size_t>(std::count(pages, pages + whole, 0)), whole);
		std::memset(pages, 1, whole);
		releasePages(pages, bytes);
	}
	EXPECT_EQ(allocatePages(SIZE_MAX), nullptr);
	releasePages(nullptr, 0);
}

TEST(Memory, VirtualRangesAreReservedCommittedAndReleased) {
	constexpr size_t kRange = 1 << 20;
	char* range = static_cast<char*>(virtualAllocate(kRange, nullptr, 0x2000, 0x01));
	ASSERT_NE(range, nullptr);
	char* part = static_cast<char*>(virtualAllocate(5000, range + 4096 + 10, 0x1000, 0x04));
	ASSERT_EQ(part, range + 4096); // whole pages
	std::memset(part, 7, 8192);
	EXPECT_EQ(virtualAllocate(100, part, 0x1000, 0x04), part); // again: kept
	EXPECT_EQ(part[0], 7);
	EXPECT_TRUE(virtualFree(part, 4096, 0x4000));
	EXPECT_EQ(virtualAllocate(4096, part, 0x1000, 0x02), part);
	EXPECT_EQ(part[0], 0); // decommitted: lost
	EXPECT_EQ(part[4096], 7);
	EXPECT_FALSE(virtualFree(range, kRange, 0x8000));               // a release has no size
	EXPECT_FALSE(virtualFree(part, 0, 0x8000));                     // and is for the whole
	EXPECT_EQ(virtualAllocate(4096, range, 0x2000, 0x04), nullptr); // taken
	EXPECT_TRUE(virtualFree(range, 0, 0x4000));
	EXPECT_TRUE(virtualFree(range, 0, 0x8000));
	EXPECT_FALSE(virtualFree(range, 0, 0x8000));
	EXPECT_EQ(virtualAllocate(4096, range, 0x1000, 0x04), nullptr);
	const struct {
		size_t bytes;
		unsigned long type, protection;
	} refused[] = {{0, 0x3000, 4}, {100, 0, 4}, {100, 0x3000, 0}, {SIZE_MAX - 100, 0x2000, 4}};
	for (const auto& row : refused) EXPECT_EQ(virtualAllocate(row.bytes, nullptr, row.type, row.protection), nullptr);
}

} // namespace
} // namespace platform
