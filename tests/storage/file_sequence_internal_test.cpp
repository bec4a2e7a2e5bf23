#include "support/temp_folder.h"

#include "qor/platform/faults.h"
#include "qor/storage/file_sequence.h"

#include <gtest/gtest.h>

TEST(FileSequenceFaults, NothingIsHalfAdded) {
	test_support::TempFolder folder;
	for (const char* name : {"a1.b", "A2.b", "c1.b"}) test_support::writeFile(folder.path(name), "");
	const auto& at = platform::FaultPoint::memory;
	int failed = 0; // with the items, another spelling of one, and a place in the list
	for (bool hit = true; hit; failed += hit) {
		CqorFileSeq found, copy;
		CqorFileSeqList list;
		platform::armFault(at, failed + 1);
		const bool done = found.CreateFromFilePath(folder.path("a1.b").c_str()) == 0 && copy.Copy(found) == 0 &&
		                  list.CreateFromFolder(folder.path().c_str(), "b", 0) == 0;
		hit = platform::faultCalls(at) > failed;
		platform::armFault(at, 0);
		const int state = done * 1000 + found.GetCount() * 100 + copy.GetCount() * 10 + list.GetCount();
		EXPECT_EQ(state, !hit ? 1222 : failed < 2 ? 0 : failed < 4 ? 200 : 220) << failed;
	}
	EXPECT_EQ(failed, 2 + 2 + 5);
}
