#include "support/temp_folder.h"

#include <qor/base/persistent_array.h>
#include <qor/base/string_set.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <vector>

using namespace test_support;
using Lines = std::vector<std::string>;

static Lines lines(CstmCharStringSet& set) {
	Lines out;
	for (auto* text = set.FirstLine(); !set.eof(); text = set.NextLine()) out.emplace_back(text);
	return out;
}

TEST(MemVector, AlignedBlockKeepsContentsThroughEveryResize) {
	CstmMemVector block(CstmMemVector::kAligned);
	std::memcpy(block.mvAlloc(4), "abcd", 4);
	EXPECT_EQ(block.mvLocalMemMove(1, 0, 3), 0); // "aabc"
	EXPECT_EQ(block.mvLocalMemMove(2, 0, 3) & block.mvLocalMemMove(0, 1, SIZE_MAX), 0x10000000);
	for (const size_t size : {40, 5000, 300000, 70, 2000000, 4}) {
		void* data = block.mvRealloc(size);
		EXPECT_EQ(reinterpret_cast<uintptr_t>(data) % 32, 0u);
		EXPECT_EQ(std::memcmp(data, "aabc", 4), 0) << size;
	}
}

TEST(LinearArray, AddsInsertsAndDeletesInOrder) {
	CstmArray<int> array, ring(CstmMemVector::kIndexWrapping);
	const auto contents = [&] { return std::vector<int>(array.begin(), array.end()); };
	for (const int value : {1, 2, 4}) EXPECT_TRUE(array.Add(value) && ring.Add(value));
	EXPECT_TRUE(!array.Get(3) && *ring.Get(3) == 1 && *ring.Get(INT_MAX) == 2 && !ring.Get(-1));
	*array.InsertAt(2) = 3;
	*array.InsertAt(99) = 5; // past the end appends
	EXPECT_EQ(contents(), (std::vector<int>{1, 2, 3, 4, 5}));
	EXPECT_EQ(array.mvGetSize(), 5 * sizeof(int)); // never more than the items
	EXPECT_TRUE(!array.InsertAt(-1) && !array.AddPosition(INT_MAX) && !array.Delete(-1) && !array.Delete(5));
	EXPECT_EQ(*array.Delete(1, 2), 4);
	EXPECT_EQ(array.Delete(1, 100), nullptr);
	EXPECT_EQ(contents(), std::vector<int>{1});
	EXPECT_TRUE(!array.Delete(0) && !array.mvGetData() && !array.Get(0));
	EXPECT_EQ(array.AddPosition(2)[1], 0); // usable again
}

TEST(LineBufferArray, CountsElementsAndBytes) {
	CstmRawObjLineArray array(8);
	EXPECT_EQ(array.Append(3) | array.InsertAt(0, 5) | array.InsertAt(7, 0), 0);
	EXPECT_EQ(array.InsertAt(-1, 1) & array.DeleteAt(3), 0x10000000);
	EXPECT_EQ(array.GetLineBufferByteSize(1), 24u);
	EXPECT_EQ(array.DeleteAt(0), 0);
	EXPECT_EQ(array.GetLineBufferCount(0), 3u);
}

TEST(StringSet, InsertsReadsInSequenceAndCopies) {
	CstmCharStringSet set;
	EXPECT_TRUE(set.eof() && !set.FirstLine() && !set.InsertAt(-1, "x"));
	set.Add("b");
	set.InsertAt(0, "a");
	EXPECT_STREQ(set.InsertAt(2, "c"), "c");
	EXPECT_EQ(lines(set), (Lines{"a", "b", "c"}));
	CstmCharStringSet other(set);
	other.DeleteAt(0);
	set += other;
	set &= set;
	EXPECT_EQ(lines(set), (Lines{"a", "b", "c", "b", "c", "a", "b", "c", "b", "c"}));
	EXPECT_EQ(set.CopyRange(set, 1, 2) | set.AppendRange(other, 1, 99), 0);
	EXPECT_EQ(lines(set), (Lines{"b", "c", "c"}));
	EXPECT_EQ(set.CopyRange(other, -1, 1) & set.CopyRange(other, 3, 1), 0x10000000);
}

TEST(StringSet, SplitsFilesAtCarriageReturns) {
	const TempFolder folder;
	const std::string path = folder.path("file");
	static const std::pair<const char*, Lines> cases[] = {
	    {"x\ny\r\nz", {"x\ny", "z"}}, {"a\rb\r\r\n", {"a", "b", ""}}, {"a\r\n\nb", {"a", "\nb"}}, {"", {}}};
	CstmCharStringSet set;
	for (const auto& [text, expected] : cases) {
		writeFile(path, text);
		EXPECT_EQ(set.LoadFromFile(path.c_str()), 0);
		EXPECT_EQ(lines(set), expected) << text;
	}
	set.Add("old");
	EXPECT_EQ(set.LoadFromFile(folder.path("missing").c_str()), 0x10000000);
	EXPECT_EQ(set.GetCount(), 0);
}

TEST(StringSet, SavesWholeStringsWithPercentsCollapsed) {
	const TempFolder folder;
	const std::string path = folder.path("file");
	const std::string longText(200000, 'l');
	CstmCharStringSet set;
	for (const char* text : {"100%% sure", "%s%n%d", "", longText.c_str(), "end%"}) set.Add(text);
	EXPECT_EQ(set.SaveToFile(path.c_str()), 0);
	EXPECT_EQ(readFile(path), "100% sure\r\n%s%n%d\r\n\r\n" + longText + "\r\nend%\r\n");
}

TEST(PersistentArray, AddressesNeverMoveAndTheFirstPageFixesTheSize) {
	CstmPersistentLinearArray array(1), none(0);
	EXPECT_EQ(none.AddBuffer(1), 0x10000000);
	std::vector<void*> items;
	for (int i = 0; i < 65536 + 3; ++i) {
		items.push_back(array.AddItem(i == 0 ? 0 : 7));
		ASSERT_EQ((*static_cast<char*>(items.back()))++, 0);
	}
	EXPECT_EQ(array.laGetCount(), 2); // pages of 65,536
	for (int i = 0; i < 65536 + 3; ++i) ASSERT_EQ(array.GetItem(i), items[i]);
	EXPECT_EQ(array.GetItem(65536 + 3), nullptr); // there, but not handed out
}
