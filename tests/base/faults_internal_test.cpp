#include "temp_file.h"

#include <qor/base/file_stream_internal.h>
#include <qor/base/mem_file.h>
#include <qor/base/persistent_array.h>
#include <qor/base/string_set.h>
#include <qor/platform/faults.h>
#include <qor/platform/file.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <functional>

namespace {

using platform::FaultPoint;

/// Runs `operation` once with each of its allocations failing; it must answer false then.
/// @return allocations that were made to fail.
int failEach(const std::function<bool()>& operation, FaultPoint point = FaultPoint::memory) {
	for (int nth = 1;; ++nth) {
		platform::armFault(point, nth);
		const bool done = operation();
		const bool hit = platform::faultCalls(point) >= nth;
		platform::armFault(point, 0);
		EXPECT_EQ(done, !hit) << nth;
		if (!hit) return nth - 1;
	}
}

/// A file system of one medium, which takes `capacity` bytes and may stop answering.
class Medium : public platform::FileSystem {
public:
	Medium() { platform::replaceFileSystem(this); }
	~Medium() override { platform::replaceFileSystem(nullptr); }
	std::unique_ptr<platform::File> open(const char*, const platform::FileOpen& how) override;
	bool exists(const char*) override { return true; }
	bool remove(const char*) override { return false; }
	bool replace(const char*, const char*) override { return false; }
	void set(bool Medium::*word, bool value) {
		const std::lock_guard lock(mutex);
		this->*word = value;
		changed.notify_all();
	}
	void waitFor(bool Medium::*word) {
		std::unique_lock lock(mutex);
		changed.wait(lock, [&] { return this->*word; });
	}

	std::mutex mutex;
	std::condition_variable changed;
	platform::FileOpen opened;
	std::string bytes;
	size_t capacity = SIZE_MAX;
	bool answers = true, asked = false, closed = false;
};

struct MediumFile : platform::File {
	explicit MediumFile(Medium& m) : medium(m) {}
	~MediumFile() override { medium.set(&Medium::closed, true); }
	uint32_t write(const void* data, uint32_t count) override {
		medium.set(&Medium::asked, true);
		medium.waitFor(&Medium::answers);
		const auto n = std::min<size_t>(count, medium.capacity - medium.bytes.size());
		medium.bytes.append(static_cast<const char*>(data), n);
		return static_cast<uint32_t>(n);
	}
	uint32_t read(void*, uint32_t) override { return 0; }
	bool seek(int64_t, platform::SeekOrigin, int64_t*) override { return false; }
	bool size(int64_t*) override { return false; }
	bool flush() override { return true; }
	bool geometry(platform::DiskGeometry*) override { return false; }
	bool layout(platform::DiskLayout*) override { return false; }
	bool deviceNumber(platform::DeviceNumber*) override { return false; }
	Medium& medium;
};

std::unique_ptr<platform::File> Medium::open(const char*, const platform::FileOpen& how) {
	opened = how;
	return std::make_unique<MediumFile>(*this);
}

} // namespace

TEST(Faults, ArraysStayAsTheyWere) {
	CstmLinearArray array(4);
	std::memcpy(array.laAdd(2), "abcdefgh", 8);
	EXPECT_EQ(failEach([&] { return array.laAdd(1) || array.laGetCount() != 2; }), 1);
	EXPECT_EQ(failEach([&] { return array.laInsert(1, 1) || std::memcmp(array.laGetAddress(1), "efgh", 4); }), 1);
	// Deleting needs no memory: it works with the block left as large as it was.
	platform::armFault(FaultPoint::memory, 1);
	EXPECT_EQ(std::memcmp(array.laDelete(1, 1), "efgh", 4), 0);
	platform::armFault(FaultPoint::memory, 0);

	CstmMemVector block;
	const void* data = block.mvAlloc(10);
	EXPECT_EQ(failEach([&] { return block.mvAlloc(20) || block.mvGetData() != data; }), 1);
	CstmPersistentLinearArray pages(8);
	EXPECT_EQ(failEach([&] { return pages.AddItem(5) || pages.laGetCount() != 0 || pages.GetCount() != 0; }), 2);
}

TEST(Faults, StringSetsTakeAllOrNone) {
	const TempFile file;
	CstmCharStringSet set, three;
	for (const char* text : {"a", "b", "c"}) three.Add(text);
	EXPECT_EQ(failEach([&] { return set.Add("x") || set.GetCount() != 0; }), 2);
	EXPECT_EQ(failEach([&] { return set.Append(three) == 0 || set.GetCount() != 1; }), 6);
	EXPECT_EQ(failEach([&] { return set.CopyRange(three, 0, 1) == 0 || set.GetCount() != 4; }), 2);
	file.write("old file");
	EXPECT_EQ(failEach([&] { return three.SaveToFile(file.name) == 0 || file.read() != "old file"; }), 1);
	EXPECT_EQ(failEach([&] { return set.LoadFromFile(file.name) == 0 || set.GetCount() != 0; }), 7);
}

TEST(Faults, MemoryFilesStayAsTheyWere) {
	CstMemFile file;
	file.Write("abcdef", 6);
	file.Seek(2, 0);
	void* where = nullptr;
	EXPECT_EQ(failEach([&] { return file.Append("x", 1, &where) || where || file.GetCurrentPos() != 2; }), 1);
	EXPECT_EQ(failEach([&] { return file.WriteText("text") != 0; }), 2); // its buffer, then the growth
	void* owned = file.GetBuffer();
	EXPECT_EQ(failEach([&] { return file.Create(9, &where) == 0 || where || file.GetBuffer() != owned; }), 1);
	std::free(owned); // `Create` leaves it to its caller
}

TEST(Streaming, ThatCannotStartIsReported) {
	char block[4];
	CstFile file;
	file.OpenFromMemory(block, 4);
	for (const auto point : {FaultPoint::memory, FaultPoint::thread, FaultPoint::waitObject}) {
		EXPECT_GE(
		    failEach([&] { return file.PrepareForWriteStreaming(4) != 0x100003EA || file.GetStreamInfo(); }, point), 1);
		file.FinishStreaming();
	}
	EXPECT_EQ(file.Write("abcd", 4), 4u); // not streaming
}

TEST(Streaming, BytesAFullDiskDidNotTakeAreReported) {
	Medium medium;
	medium.capacity = 6000;
	CstFile file;
	file.Open("x", 4, 0x40000000, 1);
	EXPECT_TRUE(medium.opened.disposition == platform::Disposition::openAlways && medium.opened.share == 1);
	file.PrepareForWriteStreaming(4);
	EXPECT_EQ(file.Write(nullptr, 5000), 904u);
	EXPECT_EQ(file.FinishStreaming(), 0x10000000u);
	EXPECT_EQ(medium.bytes.size(), 6000u);

	CstmCharStringSet set;
	set.Add("text");
	EXPECT_EQ(set.SaveToFile("x"), 0x10000000);
	set.LoadFromFile("x");
	EXPECT_EQ(medium.opened.access, 0xC0000000u); // so a read-only file is refused
}

TEST(Streaming, AFullRingRefusesAndNothingQueuedIsLost) {
	Medium medium;
	medium.answers = false;
	CstFile file;
	file.Create("x", 0x40000000, 0);
	file.PrepareForStreaming(4, 3, 2);
	const std::string a(4096, 'a'), b(4096, 'b'), c(4096, 'c');
	EXPECT_EQ(file.Write(a.data(), 4096), 0u); // fits exactly: nothing went to the next buffer
	medium.waitFor(&Medium::asked);
	EXPECT_EQ(file.Write(b.data(), 4096), 0u);
	EXPECT_EQ(file.Write(c.data(), 4096), 0u); // queued; the next buffer is with the writer
	EXPECT_EQ(file.Write("x", 1), 0u);
	EXPECT_EQ(file.FlushBuffer(&file.GetStreamInfo()->mBuffers[1]), 0u); // left to the writer
	medium.set(&Medium::answers, true);
	EXPECT_EQ(file.FinishStreaming(), 0u);
	EXPECT_TRUE(medium.bytes == a + b + c);
}

TEST(Streaming, AWriterThatDoesNotComeBackFinishesAlone) {
	Medium medium;
	medium.answers = false;
	base::streamStopBudgetMs = 50;
	{
		CstFile file;
		file.Create("x", 0x40000000, 0);
		file.PrepareForWriteStreaming(4);
		EXPECT_EQ(file.Write(nullptr, 5000), 904u);
		medium.waitFor(&Medium::asked);
		EXPECT_EQ(file.FinishStreaming(), 0x10000000u);
		EXPECT_FALSE(file.IsOpen());
	}
	EXPECT_FALSE(medium.closed);
	medium.set(&Medium::answers, true);
	medium.waitFor(&Medium::closed);
	EXPECT_EQ(medium.bytes, std::string(8192, '\0'));
	base::streamStopBudgetMs = 10030;
}
