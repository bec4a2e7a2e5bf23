#include "qor/storage/session_list.h"
#include "tests/support/memory_files.h"

#include <cstdint>
#include <cstdlib>

// Any bytes as a session list, with the same bytes as index file: what is believed can be
// played without harm, and what is saved again loads whole with as many sessions and frames.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	test_support::MemoryFiles files;
	files.contents["list"] = files.contents["index"] = std::string(reinterpret_cast<const char*>(data), size);
	CmsStorageIndexList index;
	index.Open("index", 0);
	CmsSessionList list;
	list.Attach(nullptr, &index);
	const bool whole = list.Open("list") == 0;
	unsigned long long frames = 0;
	for (int i = 0; i < list.GetCount(); ++i) {
		CmsSession& session = *list.GetSession(i);
		const unsigned int written = session.GetWrittenFrameCount();
		emsSTORAGE_INDEX record;
		if (written && index.GetIndexFromFile(&record, &session, written) == 0) std::abort();
		index.GetIndexFromFile(&record, &session, static_cast<long long>(written) - 1);
		frames += written;
	}
	if (list.GetMaxIndex() < 0 || list.GetMaxStoragePos() < 0) std::abort();
	const int count = list.GetCount();
	if (list.Save() != 0 || files.exists("list.damaged") == whole) std::abort();
	if (list.Load() != 0 || list.GetCount() != count) std::abort();
	for (int i = 0; i < count; ++i) frames -= list.GetSession(i)->GetWrittenFrameCount();
	if (frames != 0) std::abort();
	return 0;
}
