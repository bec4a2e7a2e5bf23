#include "qor/platform/clock.h"
#include "qor/platform/faults.h"
#include "qor/platform/folder.h"
#include "qor/platform/format.h"
#include "qor/platform/machine.h"
#include "qor/platform/memory.h"
#include "qor/platform/module.h"
#include "support/temp_folder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace platform {
namespace {

TEST(Machine, TextsFitWholeOrNotAtAll) {
	const std::tuple<const char*, std::function<size_t(char*, size_t)>, std::string> rows[] = {
	    {"directory", currentDirectory, std::filesystem::current_path().string()}, {"user", userName, ""},
	    {"computer", computerName, ""},
	    {"environment", [](char* out, size_t size) { return environment("PATH", out, size); }, std::getenv("PATH")}};
	for (const auto& [name, call, expected] : rows) {
		SCOPED_TRACE(name);
		std::vector<char> text(70000, '?');
		const size_t length = call(text.data(), text.size());
		ASSERT_GT(length, 0u);
		const std::string whole = text.data();
		EXPECT_EQ(whole.size(), length);
		EXPECT_EQ(expected.empty() ? whole : expected, whole); // empty: whatever it is
		EXPECT_EQ(call(text.data(), length + 1), length);
		EXPECT_EQ(whole, text.data());
		text[length] = '?';
		EXPECT_EQ(call(text.data(), length), 0u);
		EXPECT_TRUE(text[0] == 0 && text[length] == '?');
		EXPECT_EQ(call(text.data(), 0) + call(nullptr, 10), 0u);
	}
	for (const char* name : {"QOR_TEST_NO_SUCH_VARIABLE", "", static_cast<const char*>(nullptr)}) {
		char text[8] = "old";
		EXPECT_TRUE(environment(name, text, sizeof text) == 0 && !*text);
	}
}

TEST(Machine, MemoryAndNumbers) {
	const MemoryStatus status = memoryStatus();
	EXPECT_TRUE(status.totalPhysical > 64u << 20 && status.availablePhysical > 0 &&
	            status.availablePhysical < status.totalPhysical);
	const uint32_t process = processId(), thread = threadId();
	std::thread([&] { EXPECT_TRUE(processId() == process && threadId() != thread); }).join();
	EXPECT_EQ(threadId(), thread);
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
	for (void* nothing : {allocate(0), allocateZeroed(0), reallocate(nullptr, 0)}) {
		EXPECT_NE(nothing, nullptr);
		release(nothing);
	}
}

TEST(Memory, PagesAreAlignedAndZeroed) {
	for (const int bytes : {1, 4096, 1000001}) {
		char* pages = static_cast<char*>(allocatePages(bytes));
		ASSERT_NE(pages, nullptr);
		EXPECT_EQ(reinterpret_cast<uintptr_t>(pages) % 4096, 0u);
		const int whole = (bytes + 4095) / 4096 * 4096;
		EXPECT_EQ(std::count(pages, pages + whole, 0), whole);
		std::memset(pages, 1, whole);
		releasePages(pages, bytes);
	}
	EXPECT_EQ(allocatePages(SIZE_MAX), nullptr);
	releasePages(nullptr, 0);
}

TEST(Memory, VirtualRangesAreReservedCommittedAndReleased) {
	char* range = static_cast<char*>(virtualAllocate(1 << 20, nullptr, 0x2000, 0x01));
	ASSERT_NE(range, nullptr);
	char* part = static_cast<char*>(virtualAllocate(5000, range + 4096 + 10, 0x1000, 0x04));
	ASSERT_EQ(part, range + 4096); // whole pages
	std::memset(part, 7, 8192);
	EXPECT_TRUE(virtualAllocate(100, part, 0x1000, 0x04) == part && part[0] == 7); // again: kept
	EXPECT_TRUE(virtualFree(part, 4096, 0x4000));
	EXPECT_EQ(virtualAllocate(4096, part, 0x1000, 0x02), part);
	EXPECT_TRUE(part[0] == 0 && part[4096] == 7);                   // only what was decommitted is lost
	EXPECT_FALSE(virtualFree(range, 1 << 20, 0x8000));              // a release has no size
	EXPECT_FALSE(virtualFree(part, 0, 0x8000));                     // and is for the whole
	EXPECT_EQ(virtualAllocate(4096, range, 0x2000, 0x04), nullptr); // taken
	EXPECT_TRUE(virtualFree(range, 0, 0x4000) && virtualFree(range, 0, 0x8000));
	EXPECT_FALSE(virtualFree(range, 0, 0x8000));
	EXPECT_EQ(virtualAllocate(4096, range, 0x1000, 0x04), nullptr);
	static constexpr std::tuple<size_t, unsigned long, unsigned long> refused[] = {
	    {0, 0x3000, 4}, {100, 0, 4}, {100, 0x3000, 0}, {SIZE_MAX - 100, 0x2000, 4}};
	for (const auto& [bytes, type, protection] : refused)
		EXPECT_EQ(virtualAllocate(bytes, nullptr, type, protection), nullptr);
}

TEST(Clock, SleepsAtLeastTheTimeGiven) {
	for (const uint32_t ms : {0u, 1u, 20u, 120u}) {
		const std::time_t before = std::time(nullptr);
		const int64_t start = counter();
		sleepMs(ms);
		const double seconds = (counter() - start) / counterFrequency();
		EXPECT_GE(seconds, ms / 1000.0);
		// The other clock keeps the counter's unit honest.
		EXPECT_LE(seconds, static_cast<double>(std::time(nullptr) - before) + 1.1);
	}
	yieldThread();
}

TEST(Clock, LocalTimeIsTheCalendarOfTheMachine) {
	const auto text = [](std::time_t at) {
		char out[32];
		return std::string(out, std::strftime(out, sizeof out, "%Y-%m-%d %H:%M:%S %w", std::localtime(&at)));
	};
	const std::time_t before = std::time(nullptr);
	const LocalTime now = localTime();
	char out[32];
	formatText(out, sizeof out, "%d-%02d-%02d %02d:%02d:%02d %d", now.year, now.month, now.day, now.hour, now.minute,
	    now.second, now.dayOfWeek);
	int found = 0; // the two clocks may differ by a tick
	for (std::time_t at = before - 1; at <= std::time(nullptr) + 1; ++at) found += text(at) == out;
	EXPECT_EQ(found, 1) << out;
	EXPECT_EQ(std::clamp(now.millisecond, 0, 999), now.millisecond);
}

TEST(Module, FailuresTellTheReason) {
	test_support::TempFolder folder;
	const std::string missing = folder.path("none.") + kModuleExtension, text = folder.path("a.") + kModuleExtension;
	test_support::writeFile(text, "not a library");
	for (const char* path : {missing.c_str(), "none_of_that_name", "", static_cast<const char*>(nullptr)}) {
		setLastError(0);
		EXPECT_TRUE(!loadModule(path) && lastError() == 126) << lastError();
	}
	setLastError(0);
	EXPECT_TRUE(!loadModule(text.c_str()) && lastError() != 0);
}

} // namespace
} // namespace platform
