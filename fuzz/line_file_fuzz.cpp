#include "qor/core/line_file.h"
#include "qor/platform/file.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace {

/// Gives the fuzzer's bytes as the contents of every file.
struct BytesFile : platform::File {
	BytesFile(const std::uint8_t* bytes, std::size_t count) : mBytes(bytes), mSize(count) {}
	uint32_t write(const void*, uint32_t) override { return 0; }
	uint32_t read(void* buffer, uint32_t count) override {
		const auto n = std::min<std::size_t>(count, mSize - mPosition);
		std::memcpy(buffer, mBytes + mPosition, n);
		mPosition += n;
		return static_cast<uint32_t>(n);
	}
	bool seek(int64_t, platform::SeekOrigin, int64_t*) override { return false; }
	bool size(int64_t* bytes) override { return *bytes = static_cast<int64_t>(mSize), true; }
	bool flush() override { return true; }
	bool geometry(platform::DiskGeometry*) override { return false; }
	bool layout(platform::DiskLayout*) override { return false; }
	bool deviceNumber(platform::DeviceNumber*) override { return false; }

	const std::uint8_t* mBytes;
	std::size_t mSize, mPosition = 0;
};

struct Bytes : platform::FileSystem {
	std::unique_ptr<platform::File> open(const char*, const platform::FileOpen&) override {
		return std::make_unique<BytesFile>(mData, mSize);
	}
	bool exists(const char*) override { return true; }
	bool remove(const char*) override { return false; }
	bool replace(const char*, const char*) override { return false; }
	const std::uint8_t* mData = nullptr;
	std::size_t mSize = 0;
};

void check(const CstqLineFile& file) {
	const char* end = file.mText + file.mTextLength;
	for (int i = 0; i < file.GetCount(); ++i)
		if (file.mLines[i] < file.mText || file.mLines[i] + std::strlen(file.mLines[i]) > end) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static Bytes bytes;
	static const bool replaced = (platform::replaceFileSystem(&bytes), true);
	bytes.mData = data;
	bytes.mSize = size;
	CstqLineFile file;
	if (!replaced || file.OpenReadOnly("lines.txt") != 0) std::abort();
	check(file);
	if (file.OpenFromBuffer(reinterpret_cast<const char*>(data), static_cast<unsigned long>(size)) != file.GetCount() &&
	    data)
		std::abort();
	check(file);
	return 0;
}
