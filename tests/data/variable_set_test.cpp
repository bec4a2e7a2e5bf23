#include "support/log_capture.h"
#include "support/temp_folder.h"

#include <qor/data/variable_set.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <thread>

namespace {

constexpr int kFailure = 0x10000000, kSchemaSize = 36 + 4 * 152, kValuesSize = 343;

std::string bytes(const void* block, size_t size) { return {static_cast<const char*>(block), size}; }
std::string text(std::string content, size_t size) { return content.resize(size), content; }
std::string words(std::vector<int> all) { return bytes(all.data(), 4 * all.size()); }
std::string value(const char* id, int flags, int at, int size) { return text(id, 36) + words({flags, at, size}); }
std::string name(int i) { return "channel." + std::to_string(i); }

/// A 3-byte string, a type without storage, two floats and an integer.
struct VariableSet : testing::Test {
	VariableSet() {
		mSchema.Alloc("rig");
		mSchema.AddVarStr("s", "Label", 3, "t1", "t2");
		mSchema.AddVar("none", "", 99, 7, 0, 0, "", "");
		mSchema.AddVar("f", "Force", 31, 2, -1.5f, 2, "N", "%.1f");
		mSchema.AddVar("i", "", 13, 1, 0, 0, nullptr, nullptr);
		mValues.AllocFromDataSet(&mSchema, "run 1");
		mValues.varStrFillFromString("s", "%s", "%n");
		mValues.varSetFloat32("f", 0, 1, 2);
		mValues.varSetInt32("i", 0, 0x1020304);
		mValues.SetModified("i");
	}
	void makeMany(int count) {
		mSchema.Alloc("many");
		for (int i = 0; i < count; ++i) ASSERT_TRUE(mSchema.AddVar(name(i).c_str(), "", 13, 1, 0, 0, "", "")) << i;
	}
	CqorDVar_DataSet mSchema;
	CqorDVar_ValueSet mValues;
};

} // namespace

TEST_F(VariableSet, BytesOfBothBlocks) {
	std::string expected = text("rig", 32) + words({4}) + text("s", 32) + text("Label", 32) + words({41, 3, 0, 0});
	expected += text("t1", 32) + text("t2", 32) + words({3, 0}) + text("none", 64) + words({99, 7}) + text("", 80);
	expected += text("f", 32) + text("Force", 32) + words({31, 2, -0x40400000, 0x40000000});
	expected += text("N", 32) + text("%.1f", 32) + words({8, 0});
	expected += text("i", 64) + words({13, 1}) + text("", 72) + words({4, 0});
	EXPECT_EQ(bytes(mSchema.GetBlock(), kSchemaSize), expected);
	expected = text("run 1", 128) + words({4, 343}) + value("s", 0, 328, 3) + value("none", 0, 331, 0);
	expected += value("f", 0, 331, 8) + value("i", 1, 339, 4) + text("%n", 3) + words({0x3F800000, 1 << 30, 0x1020304});
	EXPECT_EQ(bytes(mValues.GetBlock(), kValuesSize), expected);

	qorDVar_VALUESET* dest = qorDVar_ValueSetAlloc("one");
	EXPECT_EQ(qorDVar_ValueSetAppendCopyValue(&dest, dest, "i"), kFailure); // empty
	for (const char* id : {"i", "s"}) qorDVar_ValueSetAppendCopyValue(&dest, mValues.GetBlock(), id);
	EXPECT_EQ(qorDVar_ValueSetAppendCopyValue(&dest, dest, "i"), 0);
	expected = text("one", 128) + words({3, 291}) + value("i", 1, 280, 4) + value("s", 0, 284, 3);
	expected += value("i", 1, 287, 4) + words({0x1020304}) + text("%n", 3) + words({0x1020304});
	EXPECT_EQ(bytes(dest, 291), expected);
	qorDVar_ValueSetFree(dest);
}

TEST_F(VariableSet, SizesOfTheTypesAndNamesOfCopies) {
	CqorDVar_DataSet sizes;
	sizes.Alloc("");
	for (const auto& [type, size] : {std::pair(11, 1), {12, 2}, {13, 4}, {21, 1}, {22, 2}, {23, 4}, {31, 4}, {32, 8},
	         {41, 1}, {0, 0}, {14, 0}, {42, 0}, {-1, 0}})
		EXPECT_EQ(sizes.AddVar(std::to_string(type).c_str(), "", type, 3, 0, 0, "", "")->mSize, 3 * size) << type;
	qorDVar_DATASET* copy = qorDVar_DataSetMakeCopy(mSchema.GetBlock(), "other");
	EXPECT_TRUE(bytes(copy, kSchemaSize) == text("other", 32) + bytes(mSchema.GetBlock(), kSchemaSize).substr(32));
	qorDVar_DataSetFree(copy);
	const CqorDVar_ValueSet original(mValues.Detach());
	EXPECT_TRUE(mValues.CopyFrom(&original, "run 2", 0) == 0 && std::string(mValues.GetBlock()->mID) == "run 2");
	EXPECT_TRUE(mValues.CopyFrom(&original, nullptr, 0) == 0 && std::string(mValues.GetBlock()->mID) == "run 1");
}

TEST_F(VariableSet, DefinitionsThatAreRefusedChangeNothing) {
	qorDVar_DATASET* copy = qorDVar_DataSetMakeCopy(mSchema.GetBlock(), nullptr);
	const std::string longID(40, 'x'), before = bytes(copy, kSchemaSize);
	const std::vector<std::tuple<const char*, int, int>> bad = {
	    {"f", 31, 1}, {nullptr, 13, 1}, {"n", 13, -1}, {"n", 99, -1}, {"n", 32, INT_MAX}, {"n", 12, 1 << 30}};
	for (const auto& [id, type, count] : bad) {
		EXPECT_EQ(mSchema.AddVar(id, "", type, count, 0, 0, "", ""), nullptr);
		EXPECT_EQ(qorDVar_DataSetAddVar(&copy, id, "", type, count, 0, 0, "", ""), nullptr);
	}
	EXPECT_TRUE(bytes(mSchema.GetBlock(), kSchemaSize) == before && bytes(copy, kSchemaSize) == before);
	// Stored cut: only its stored form finds it, and one that is equal after cutting exists.
	EXPECT_NE(qorDVar_DataSetAddVar(&copy, longID.c_str(), "", 41, INT_MAX, 0, 0, "", ""), nullptr);
	EXPECT_EQ(qorDVar_DataSetAddVar(&copy, (longID + "y").c_str(), "", 13, 1, 0, 0, "", ""), nullptr);
	EXPECT_EQ(qorDVar_DataSetGetVarPtrByID(copy, longID.c_str()), nullptr);
	EXPECT_EQ(qorDVar_DataSetGetVarPtrByID(copy, &longID[9]), qorDVar_DataSetGetVarPtr(copy, 4));
	EXPECT_EQ(qorDVar_ValueSetAlloc(copy, ""), nullptr); // above 2147483647 bytes
	qorDVar_DataSetFree(copy);
}

TEST_F(VariableSet, LookupsGiveTheFirstExactMatch) {
	for (const int count : {3, 12, 700}) {
		makeMany(count);
		mValues.AllocFromDataSet(&mSchema, "v");
		const auto lookUp = [&] {
			for (int i = 0; i < count; ++i) {
				EXPECT_EQ(mSchema.GetByID(name(i).c_str()), mSchema.GetByIndex(i));
				EXPECT_EQ(mValues.GetByID(name(i).c_str()), mValues.GetByIndex(i));
				EXPECT_EQ(qorDVar_ValueSetGetVarPtrByID(mValues.GetBlock(), name(i).c_str()), mValues.GetByIndex(i));
			}
		};
		std::thread other(lookUp);
		lookUp();
		other.join();
		for (const char* id : {"", "channel.", "Channel.1", "channel.0 ", "channel.0123456789.123456789.12"})
			EXPECT_TRUE(!mValues.GetByID(id) && !mSchema.GetByID(id)) << id;
		EXPECT_TRUE(!mValues.GetByID(nullptr) && !mValues.GetByIndex(-1) && !mValues.GetByIndex(count));
		// Identifiers that a host writes into the block are found where they stand now.
		for (int i : {2, 1}) std::strcpy(mValues.GetByIndex(i)->mID, "renamed");
		EXPECT_TRUE(mValues.GetByID("renamed") == mValues.GetByIndex(1) && !mValues.GetByID("channel.1"));
		EXPECT_EQ(mValues.CopyFrom(&mValues, "w", 1), 0); // and known to a new index
		EXPECT_TRUE(mValues.GetByID("renamed") == mValues.GetByIndex(1) && mValues.GetByIndex(2)->mFlags == 1);
	}
}

TEST_F(VariableSet, OnlySoundBlocksAreTaken) {
	using Pairs = std::vector<std::pair<int, int>>;
	const auto refuse = [](auto& set, const std::string& good, const Pairs& texts, const Pairs& damages) {
		// From an odd address.
		const auto taken = [&](const std::string& b) { return set.CopyFromBlock((" " + b).data() + 1, b.size()) == 0; };
		EXPECT_TRUE(taken(good) && !taken(good + '\0'));
		for (size_t length = 0; length < good.size(); ++length) EXPECT_FALSE(taken(good.substr(0, length))) << length;
		for (const auto& [at, size] : texts) EXPECT_FALSE(taken(std::string(good).replace(at, size, size, 'x'))) << at;
		for (const auto& [at, word] : damages)
			EXPECT_FALSE(taken(std::string(good).replace(at, 4, words({word})))) << at << " " << word;
		EXPECT_TRUE(bytes(set.GetBlock(), good.size()) == good);
	};
	const std::string schema = bytes(mSchema.GetBlock(), kSchemaSize), values = bytes(mValues.GetBlock(), kValuesSize);
	Pairs damages = {{32, -1}, {32, 3}, {32, INT_MAX}, {104, 4}, {180, 2}, {104, -3}};
	refuse(mSchema, schema, {{0, 32}, {36, 32}, {68, 32}, {116, 32}, {148, 32}}, damages);
	damages = {{128, -1}, {128, 3}, {128, INT_MAX}, {132, 342}, {132, -1}, {176, 327}, {180, -1}, {272, 332}, {324, 3}};
	refuse(mValues, values, {{0, 128}, {136, 32}}, damages);
	EXPECT_TRUE(qorDVar_ValueSetCheck(nullptr, 136) && qorDVar_DataSetCheck(&schema[1], schema.size()));

	mValues.GetBlock()->mTotalSize = 342;
	EXPECT_EQ(CqorDVar_ValueSet(mValues.GetBlock()).GetBlock(), nullptr); // not taken, so freed once
	EXPECT_TRUE(!qorDVar_ValueSetAllocAndCopy(mValues.GetBlock(), 0) && !mValues.GetValuePtrByID("i"));
	EXPECT_EQ(qorDVar_ValueSet_UpdateFromSubSet(mValues.GetBlock(), mValues.GetBlock()), kFailure);
	mValues.GetBlock()->mTotalSize = 343;
	EXPECT_TRUE(CqorDVar_ValueSet(mValues.Detach()).GetByID("i") && !mValues.GetBlock());
}

TEST_F(VariableSet, ASubSetUpdatesPartnersOfEqualSize) {
	for (const int count : {4, 400}) { // both ways of finding partners
		CqorDVar_ValueSet sub;
		makeMany(count);
		mSchema.AddVar("wide", "", 13, 2, 0, 0, "", "");
		mValues.AllocFromDataSet(&mSchema, "");
		mSchema.GetByID("wide")->mSize = 4;
		sub.AllocFromDataSet(&mSchema, "");
		for (int i = 0; i <= count; ++i) sub.varSetInt32(sub.GetByIndex(i)->mID, 0, i + 1);
		std::strcpy(sub.GetByIndex(0)->mID, "channel.1"); // the later one wins
		EXPECT_EQ(qorDVar_ValueSet_UpdateFromSubSet(mValues.GetBlock(), sub.GetBlock()), 0);
		for (int i = 0; i <= count; ++i) {
			const bool partner = i != 0 && i != count;
			EXPECT_EQ(mValues.varGetInt32(mValues.GetByIndex(i)->mID, 0), partner ? i + 1 : 0) << i;
			EXPECT_EQ(mValues.GetByIndex(i)->mFlags, partner) << i;
		}
	}
}

TEST_F(VariableSet, TypedAccessStaysAmongTheData) {
	// Past the count is the value behind, before the start the one before.
	EXPECT_TRUE(mValues.varSetInt32("f", 2, 77) == 0 && mValues.varGetInt32("i", 0) == 77);
	EXPECT_TRUE(mValues.varSetFloat32("f", 0, 1, 2, 3) == 0 && mValues.varGetFloat32("i", -1) == 2);
	EXPECT_TRUE(mValues.varSetFloat32("f", 1, 8) == 0 && mValues.varGetFloat32("f", 1) == 8);
	EXPECT_TRUE(mValues.varSetFloat32("f", -1, 4, 5, 6, 7) == kFailure && mValues.varGetFloat32("f", 0) == 1);
	EXPECT_TRUE(mValues.SetFlags("f", 0, 0xF0) == 0 && mValues.SetFlags("f", 0x30, 0x21) == 0);
	EXPECT_TRUE(mValues.GetByID("f")->mFlags == 0xE1 && mValues.ClearModified("f") == 0);
	const std::string before = bytes(mValues.GetBlock(), kValuesSize);
	for (const int index : {3, -1, -82, INT_MAX, INT_MIN, 1 << 30, -(1 << 30)})
		EXPECT_TRUE(mValues.varSetInt32("f", index, -1) == kFailure && mValues.varGetFloat32("f", index) == 0) << index;
	EXPECT_EQ(mValues.varSetFloat32("f", 0, 9, 9, 9, 9), kFailure); // all or none
	EXPECT_TRUE(mValues.SetFlags("f", 0, 0) == kFailure && mValues.SetModified("?") == kFailure);
	EXPECT_EQ(bytes(mValues.GetBlock(), kValuesSize), before);
	mValues.Free();
	EXPECT_TRUE(mValues.SetModified("f") == kFailure && mValues.varStrFillFromString("s", "") == kFailure);
}

TEST_F(VariableSet, StringsRunOnUpToTheEndOfTheBlock) {
	char out[32] = "";
	const std::string endless(20000, 'y');
	mValues.varStrFillFromString("s", "%d-%s", 12, "345");                      // into "f"
	mValues.varStrFillFromString("s", "long %s", mValues.GetValuePtrByID("s")); // from itself
	EXPECT_TRUE(mValues.varStrGet("s", out, 9) == 0 && out == std::string("long 12-"));
	EXPECT_EQ(mValues.varStrFillFromString("s", "%s", endless.c_str()), 0);
	EXPECT_EQ(bytes(mValues.GetBlock(), kValuesSize).substr(328), endless.substr(0, 14) + '\0');
	std::memset(mValues.GetValuePtrByID("i"), 'z', 4); // no terminator up to the end
	EXPECT_TRUE(mValues.varStrGet("i", out, sizeof out) == 0 && out == std::string("zzzz"));
	EXPECT_TRUE(mValues.varStrGet("?", out, 9) == kFailure && out[0] == 0);
	mSchema.AddVarStr("text", "", 5000, "", "");
	mValues.AllocFromDataSet(&mSchema, "");
	EXPECT_EQ(mValues.varStrFillFromString("text", "%s", endless.c_str()), 0); // not on the stack
	EXPECT_EQ(bytes(mValues.GetValuePtrByID("text"), 5000), endless.substr(0, 4999) + '\0');
}

TEST_F(VariableSet, FilesShorterThanTheValueAreRead) {
	const test_support::TempFolder folder;
	const std::string path = folder.path("text");
	mSchema.AddVarStr("text", "", 5, "", "");
	for (const std::string content : {"missing", "", "abcd", "abcde", "abcdefghij"}) {
		const bool fits = content.size() < 5;
		if (content != "missing") test_support::writeFile(path, content);
		mValues.AllocFromDataSet(&mSchema, "");
		mValues.varStrFillFromString("text", "old");
		EXPECT_EQ(mValues.varStrFillFromFile("text", path.c_str()), fits ? 0 : kFailure) << content;
		EXPECT_EQ(static_cast<char*>(mValues.GetValuePtrByID("text")), fits ? content : "");
		EXPECT_EQ(mValues.GetByID("text")->mFlags, fits) << content;
	}
	EXPECT_EQ(mValues.varStrFillFromFile("none", path.c_str()), kFailure);
}

TEST(HexText, DigitsBothWays) {
	char out[8] = "";
	qorDVar_Value_MakeHexString(out, "\x00\x9F\xFA", 3);
	EXPECT_TRUE(out == std::string("009FFA") && qorDVar_Value_MakeHexString(out, out, -1) == kFailure);
	const auto decode = [](const char* hex, int length, int maxOut) {
		std::string decoded = "uuuu"; // what stays is untouched
		return qorDVar_Value_DecodeFromHexString(&decoded[0], hex, length, maxOut) == 0 ? decoded : "-";
	};
	EXPECT_EQ(decode("FFff", 4, 4) + decode("A9g1", 4, 4), text("\xFF", 2) + "uu\xA9\x01uu");
	EXPECT_EQ(decode("414", 3, 4) + decode("4142434445", 10, 4), "AuuuABCD");
	EXPECT_EQ(decode("4142", 4, 1) + decode("414", 6, 3) + "u", "Auuu" + text("A@", 3) + "uu");
	EXPECT_EQ(decode("41", -2, 4) + decode("41", 2, -1), "--");
}

TEST_F(VariableSet, TheLogShowsHeadAndKnownValues) {
	mSchema.GetBlock()->mCount = 3; // without "i"
	test_support::LogCapture log;
	EXPECT_TRUE(mValues.DebugLog(&mSchema) == 0 && log.lines.size() == 9);
	for (const char* line : {"BEGIN> qorDVar_ValueSetHdr_Debug (", "dvhdr       ID .................... run 1",
	         "            Count ................. 4", "            Total Byte Size ....... 343",
	         "            Vars:", " s = %n", " f = 1.00000,2.00000,", "END  > qorDVar_ValueSetHdr_Debug ("})
		EXPECT_TRUE(log.has(line)) << line;
	mSchema.Alloc("long");
	mSchema.AddVar("i", "", 13, 2000, 0, 0, "", "");
	mSchema.AddVarStr("s", "", 400, "", "");
	mValues.AllocFromDataSet(&mSchema, "");
	for (int i = 0; i < 2000; ++i) mValues.varSetInt32("i", i, -1000000000 - i);
	mValues.varStrFillFromString("s", "%s", std::string(300, 's').c_str());
	log.clear(), mValues.DebugLog(&mSchema);
	EXPECT_TRUE(log.has(" i = -1000000000,-1000000001,") && log.has(" = " + std::string(256, 's')));
	EXPECT_FALSE(log.has(std::string(257, 's')));
}
