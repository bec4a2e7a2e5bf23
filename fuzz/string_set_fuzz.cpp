// Loads the input as a string set, saves it and compares both ways with a plain rendering
// of the rules. The file is one in memory, put in front of the system's.

#include <qor/base/string_set.h>
#include <qor/platform/file.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::string contents;

class MemoryFile : public platform::File {
public:
	uint32_t write(const void* data, uint32_t count) override {
		contents.append(static_cast<const char*>(data), count);
		return count;
	}
	uint32_t read(void* buffer, uint32_t count) override {
		const auto n = std::min<size_t>(count, contents.size() - mPosition);
		std::memcpy(buffer, contents.data() + mPosition, n);
		mPosition += n;
		return static_cast<uint32_t>(n);
	}
	bool seek(int64_t, platform::SeekOrigin, int64_t*) override { return false; }
	bool size(int64_t* bytes) override {
		*bytes = static_cast<int64_t>(contents.size());
		return true;
	}
	bool flush() override { return true; }
	bool geometry(platform::DiskGeometry*) override { return false; }
	bool layout(platform::DiskLayout*) override { return false; }
	bool deviceNumber(platform::DeviceNumber*) override { return false; }

private:
	size_t mPosition = 0;
};

class MemoryFiles : public platform::FileSystem {
public:
	std::unique_ptr<platform::File> open(const char*, const platform::FileOpen& how) override {
		if (how.disposition == platform::Disposition::createAlways) contents.clear();
		return std::make_unique<MemoryFile>();
	}
	bool exists(const char*) override { return true; }
	bool remove(const char*) override { return false; }
	bool replace(const char*, const char*) override { return false; }
};

std::vector<std::string> split(const std::string& text) {
	std::vector<std::string> lines;
	std::string line;
	for (size_t i = 0; i < text.size(); ++i) {
		if (text[i] != '\r') {
			line += text[i];
			continue;
		}
		lines.push_back(line);
		line.clear();
		if (i + 1 < text.size() && text[i + 1] == '\n') ++i;
	}
	if (!line.empty()) lines.push_back(line);
	return lines;
}

/// The line as a saved one: up to a zero byte, with doubled percent signs made single.
std::string saved(const std::string& line) {
	std::string out;
	for (const char* c = line.c_str(); *c; ++c) {
		if (c[0] == '%' && c[1] == '%') ++c;
		out += *c;
	}
	return out + "\r\n";
}

void require(bool condition) {
	if (!condition) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	static MemoryFiles files;
	platform::replaceFileSystem(&files);
	contents.assign(reinterpret_cast<const char*>(data), size);
	const auto lines = split(contents);

	CstmCharStringSet set;
	require(set.LoadFromFile("set") == 0);
	require(static_cast<size_t>(set.GetCount()) == lines.size());
	std::string expected;
	for (int i = 0; i < set.GetCount(); ++i) {
		const auto& line = lines[static_cast<size_t>(i)];
		require(set.GetLineBufferCount(i) == line.size() + 1);
		require(std::memcmp(set.GetLine(i), line.c_str(), line.size() + 1) == 0);
		expected += saved(line);
	}
	require(set.SaveToFile("set") == 0);
	require(contents == expected);
	return 0;
}
