#include "qor/platform/file.h"
#include "qor/storage/session_list.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>

// Any bytes as a session list, with the same bytes as index file: what is believed can be
// played without harm, and what is saved again loads whole with as many sessions and frames.

namespace {

class MemoryFiles final : public platform::FileSystem {
public:
	std::unique_ptr<platform::File> open(const char* path, const platform::FileOpen& how) override {
		if (how.disposition == platform::Disposition::createAlways) mFiles[path].clear();
		return exists(path) ? std::make_unique<MemoryFile>(mFiles[path]) : nullptr;
	}
	bool exists(const char* path) override { return mFiles.count(path) != 0; }
	bool remove(const char* path) override { return mFiles.erase(path) != 0; }
	bool replace(const char* from, const char* to) override {
		mFiles[to] = mFiles[from];
		return remove(from);
	}
	std::map<std::string, std::string> mFiles;

private:
	struct MemoryFile final : platform::File {
		explicit MemoryFile(std::string& bytes) : mBytes(bytes) {}
		uint32_t write(const void* data, uint32_t count) override {
			mBytes.append(static_cast<const char*>(data), count);
			return count;
		}
		uint32_t read(void* buffer, uint32_t count) override {
			if (mPosition >= mBytes.size()) return 0;
			const size_t moved = mBytes.copy(static_cast<char*>(buffer), count, mPosition);
			mPosition += moved;
			return static_cast<uint32_t>(moved);
		}
		bool seek(int64_t offset, platform::SeekOrigin, int64_t* position) override {
			if (offset < 0) return false;
			mPosition = static_cast<size_t>(*position = offset);
			return true;
		}
		bool size(int64_t* bytes) override { return *bytes = static_cast<int64_t>(mBytes.size()), true; }
		bool flush() override { return true; }
		bool geometry(platform::DiskGeometry*) override { return false; }
		bool layout(platform::DiskLayout*) override { return false; }
		bool deviceNumber(platform::DeviceNumber*) override { return false; }
		std::string& mBytes;
		size_t mPosition = 0;
	};
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	MemoryFiles files;
	platform::replaceFileSystem(&files);
	files.mFiles["list"] = files.mFiles["index"] = std::string(reinterpret_cast<const char*>(data), size);
	{
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
	}
	platform::replaceFileSystem(nullptr);
	return 0;
}
