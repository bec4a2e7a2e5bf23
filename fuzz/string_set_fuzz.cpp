// Loads the input as a string set, saves it and compares both ways with a plain rendering
// of the rules. The file is one in memory, put in front of the system's.

#include "qor/base/string_set.h"
#include "tests/support/memory_files.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

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
	test_support::MemoryFiles files;
	std::string& contents = files.contents["/set"];
	contents.assign(reinterpret_cast<const char*>(data), size);
	const auto lines = split(contents);

	CstmCharStringSet set;
	require(set.LoadFromFile("/set") == 0);
	require(static_cast<size_t>(set.GetCount()) == lines.size());
	std::string expected;
	for (int i = 0; i < set.GetCount(); ++i) {
		const auto& line = lines[static_cast<size_t>(i)];
		require(set.GetLineBufferCount(i) == line.size() + 1);
		require(std::memcmp(set.GetLine(i), line.c_str(), line.size() + 1) == 0);
		expected += saved(line);
	}
	require(set.SaveToFile("/set") == 0);
	require(contents == expected);
	return 0;
}
