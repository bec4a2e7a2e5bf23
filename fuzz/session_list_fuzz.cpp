#include "qor/storage/session_list.h"
#include "tests/support/memory_files.h"

#include <cstdint>
#include <cstdlib>

// Any bytes as a session list, with the same bytes as index file: what is believed can be
// played without harm, and nothing of the file is lost by saving it: it is written back as it
// was, or a copy is kept. What was saved loads with the same sessions and frames.

namespace {

unsigned long long framesOf(CmsSessionList& list) {
	unsigned long long frames = 0;
	for (int i = 0; i < list.GetCount(); ++i) frames += list.GetSession(i)->GetWrittenFrameCount();
	return frames;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	const std::string bytes(reinterpret_cast<const char*>(data), size);
	test_support::MemoryFiles files;
	files.contents["/list"] = files.contents["/index"] = bytes;
	CmsStorageIndexList index;
	index.Open("/index", 0);
	CmsSessionList list;
	list.Attach(nullptr, &index);
	list.Open("/list");
	for (int i = 0; i < list.GetCount(); ++i) {
		CmsSession& session = *list.GetSession(i);
		const unsigned int written = session.GetWrittenFrameCount();
		emsSTORAGE_INDEX record;
		if (written && index.GetIndexFromFile(&record, &session, written) == 0) std::abort();
		index.GetIndexFromFile(&record, &session, static_cast<long long>(written) - 1);
		session.PrepareToRecord();
	}
	const unsigned long long frames = framesOf(list);
	const int count = list.GetCount();
	if (list.GetMaxIndex() < 0) std::abort();
	if (list.Save() != 0) std::abort();
	if (files.contents["/list"] != bytes && files.contents["/list.damaged"] != bytes) std::abort();
	list.Load();
	if (!list.IsOpen() || list.GetCount() != count || framesOf(list) != frames) std::abort();
	return 0;
}
