#pragma once

#include "qor/platform/file.h"

#include <map>
#include <memory>
#include <string>

namespace test_support {

/// Bytes that grow at their end and are read from where they were sought.
struct MemoryFile : platform::File {
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

/// Files in memory, in force while it lives.
class MemoryFiles final : public platform::FileSystem {
public:
	MemoryFiles() { platform::replaceFileSystem(this); }
	~MemoryFiles() override { platform::replaceFileSystem(nullptr); }
	std::unique_ptr<platform::File> open(const char* path, const platform::FileOpen& how) override {
		if (how.disposition <= platform::Disposition::createAlways) contents[path].clear();
		return exists(path) ? std::make_unique<MemoryFile>(contents[path]) : nullptr;
	}
	bool exists(const char* path) override { return contents.count(path) != 0; }
	bool remove(const char* path) override { return contents.erase(path) != 0; }
	bool replace(const char* from, const char* to) override {
		contents[to] = contents[from];
		return remove(from);
	}
	std::map<std::string, std::string> contents; // by path
};

} // namespace test_support
