#include "support/refused_allocations.h"
#include "support/temp_folder.h"

#include <qor/data/parameter_file.h>
#include <qor/data/variable_set.h>
#include <qor/math/camera_calibration.h>
#include <qor/storage/file_sequence.h>
#include <qor/storage/image_cache.h>

#include <cstring>
#include <memory>

using test_support::refuseEach;

namespace {

/// What failed must leave a schema and its values as they were, and nothing behind.
bool variableSets(const char* path) {
	CqorDVar_DataSet schema, copy;
	CqorDVar_ValueSet values, others;
	bool done = schema.Alloc("s") == 0;
	for (char id[] = "a"; id[0] <= 'p'; ++id[0]) {
		const int count = schema.GetBlock() ? schema.GetBlock()->mCount : -1;
		const bool added = schema.AddVarStr(id, "", 40, "", "") != nullptr;
		EXPECT_TRUE(added || !schema.GetBlock() || schema.GetBlock()->mCount == count);
		done &= added;
	}
	if (!done) return false;
	done = copy.CopyFromBlock(schema.GetBlock(), 36 + 16 * 152) == 0 && values.AllocFromDataSet(&copy, "v") == 0 &&
	       others.CopyFrom(&values, "o", 1) == 0;
	if (!done) return false;
	done = values.varStrFillFromString("a", "%1500d", 7) == 0;
	EXPECT_EQ(std::strlen(static_cast<char*>(values.GetValuePtrByID("b"))), done ? 599U : 0U)
	    << "all of a text, to the end of the block, or none";
	auto* block = qorDVar_ValueSetAlloc("d");
	done = block && qorDVar_ValueSetAppendCopyValue(&block, values.GetBlock(), "p") == 0 && done;
	qorDVar_ValueSetFree(block);
	return (qorDVar_ValueSet_UpdateFromSubSet(others.GetBlock(), values.GetBlock()) == 0) &
	       (values.varStrFillFromFile("c", path) == 0) & (values.DebugLog(&schema) == 0) & done;
}

bool parameterFile(const char* path) {
	CqorBXML document;
	const auto& root = document.mRoot;
	const bool opened = document.Open(path) == 0;
	EXPECT_LE(root.mChildCount, opened ? 40 : 0);
	const bool added = document.mRoot.AddVar("v", "1") != nullptr;
	EXPECT_EQ(root.mVarCount, added);
	bool done = opened && added && root.mChildCount == 40;
	for (int i = 0; i < root.mChildCount; ++i) // also without memory to sort in
		EXPECT_EQ(document.FindSection("N", i), root.mChildren[i]);
	std::unique_ptr<CqorBXML_Section> section(new CqorBXML_Section);
	if (section && document.mRoot.AddSection(section.get()) == 0) section.release();
	return done && !section;
}

bool sequences(const char* folder, const char* first, const char* other) {
	CqorFileSeq sequence, copy;
	CqorFileSeqList list;
	eqorFILESEQ_FILEATTR parts;
	const bool made = sequence.CreateFromFilePath(first) == 0;
	EXPECT_EQ(sequence.GetCount(), made ? 4 : 0);
	bool done = copy.Copy(sequence) == 0 && made;
	EXPECT_EQ(copy.GetCount(), done ? 4 : 0);
	CqorFileSeq::ParseByFilePath(&parts, other);
	done = copy.AddItem(&parts, 1) && done;
	const bool listed = list.CreateFromFolder(folder, "b", 1) == 0;
	EXPECT_EQ(list.GetCount(), listed ? 2 : 0);
	return done && listed;
}

bool imageCache() {
	CqorICachePageMan manager;
	manager.Create(1);
	bool done = true;
	for (int i = 0; i < 3; ++i) done &= manager.Add(4096) != nullptr;
	const int count = manager.GetCount(); // with or without an index
	auto* page = manager.BorrowPage(1, 100, 0);
	done &= page && manager.BorrowPage(2, 8192, CqorICachePageMan::kGrowPages) &&
	        manager.BorrowPage(3, 400000, CqorICachePageMan::kDeletePages);
	eqorICACHEPAGEMAN_MEMSTATUS status;
	manager.GetMemStatus(&status);
	uint64_t total = 0;
	for (int i = 0; i < manager.GetCount(); ++i) total += manager.Get(i)->GetSize();
	EXPECT_EQ(status.mTotalBytes, total);
	manager.ReleasePage(page);
	return done && count == 3;
}

bool calibration() {
	double world[30], image[20], l[11];
	for (int i = 0; i < 30; ++i) world[i] = i * i * 7 % 11;
	for (int i = 0; i < 20; ++i) image[i] = i * i * 5 % 13;
	DltQuality quality;
	return dltCalibrateCamera(l, world, image, 10) == 0 && dltAssessCamera(&quality, l, world, image, 10) == 0;
}

} // namespace

TEST(RefusedAllocations, EndAsStated) {
	const test_support::TempFolder folder;
	for (const char* name : {"c1.b", "C2.b", "c3.B", "c4.b", "x.b"}) test_support::writeFile(folder.path(name), "n");
	std::string text;
	for (int i = 0; i < 40; ++i) text += "<n a=1 b=2></n>";
	const std::string path = folder.path("p");
	test_support::writeFile(path, text);
	// The operations allocate nothing of their own: the texts are made here.
	const std::string value = folder.path("x.b"), all = folder.path(), first = folder.path("c1.b"),
	                  other = folder.path("C5.b");
	refuseEach("variable sets", [&] { return variableSets(value.c_str()); });
	refuseEach("parameter file", [&] { return parameterFile(path.c_str()); });
	refuseEach("sequences", [&] { return sequences(all.c_str(), first.c_str(), other.c_str()); });
	refuseEach("image cache", imageCache);
	refuseEach("calibration", calibration);
}
