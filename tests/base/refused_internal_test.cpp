#include "support/refused_allocations.h"
#include "support/temp_folder.h"

#include <qor/base/file.h>
#include <qor/base/mem_file.h>
#include <qor/base/persistent_array.h>
#include <qor/base/string_set.h>

using test_support::refuseEach;

TEST(RefusedAllocations, EndAsTheStatedFailure) {
	const test_support::TempFolder folder;
	const std::string path = folder.path("file"), listPath = folder.path("list");
	refuseEach("file", [&] {
		CstFile file;
		if (file.Create(path.c_str(), CstFile::kAccessReadWrite, 0) != 0 || file.Write("text", 4) != 4) return false;
		if (file.PrepareForWriteStreaming(4) != 0) return false;
		file.Write(nullptr, 6000);
		return file.FinishStreaming() == 0 && file.GetLostBytes() == 0 && file.GetSize() == 8196;
	});
	refuseEach("lines", [&] {
		CstmCharStringSet set, copy;
		const bool whole = set.Add("one") && set.InsertAt(0, "zero") && set.SaveToFile(listPath.c_str()) == 0 &&
		                   copy.LoadFromFile(listPath.c_str()) == 0 && copy.Append(set) == 0;
		return whole && copy.GetCount() == 4;
	});
	refuseEach("memory", [] {
		CstMemFile file;
		CstFile over;
		CstmPersistentLinearArray items(8);
		CstmRawObjLineArray buffers(2);
		const bool whole = file.Create(8) == 0 && file.WriteTextLine("%s", "text") && file.Append(nullptr, 1000) &&
		                   items.AddItem(9) && buffers.Append(3) == 0;
		void* block = stMemAlloc(4);
		const bool grew = block && over.OpenFromMemory(block, 4) == 0 && over.Write(nullptr, 8) == 8;
		stMemFree(over.IsOpen() ? over.GetMemoryBlock() : block);
		file.Close();
		return whole && grew;
	});
}
