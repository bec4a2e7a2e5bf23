#include "qor/core/line_file.h"
#include "tests/support/memory_files.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void check(const CstqLineFile& file) {
	const char* end = file.mText + file.mTextLength;
	for (int i = 0; i < file.GetCount(); ++i)
		if (file.mLines[i] < file.mText || file.mLines[i] + std::strlen(file.mLines[i]) > end) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	test_support::MemoryFiles files;
	files.contents["lines.txt"].assign(reinterpret_cast<const char*>(data), size);
	CstqLineFile file;
	if (file.OpenReadOnly("lines.txt") != 0) std::abort();
	check(file);
	if (file.OpenFromBuffer(reinterpret_cast<const char*>(data), static_cast<unsigned long>(size)) != file.GetCount() &&
	    data)
		std::abort();
	check(file);
	return 0;
}
