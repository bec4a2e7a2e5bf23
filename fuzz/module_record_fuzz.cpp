#include "qor/plugins/dynamic_module.h"
#include "tests/support/memory_files.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

// Any bytes as a module's file: what is found is what a search position by position finds.

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
	test_support::MemoryFiles files;
	files.contents["/module"].assign(reinterpret_cast<const char*>(data), size);
	const auto isWord = [data](size_t at, uint32_t value) { return std::memcmp(data + at, &value, 4) == 0; };
	uint32_t at = 0;
	while (at + 1052 < size && !(isWord(at, 0x78AAB1C0) && isWord(at + 4, at) && isWord(at + 8, 1024))) ++at;
	CqorDynamicModule module;
	module.SetFilePath("/module");
	const bool found = module.RetrieveDMInfo() == 0;
	const auto* information = module.GetInformation();
	if (found != (at + 1052 < size) || found != (information != nullptr)) std::abort();
	if (module.IsUnicode() + module.Is64() + module.IsDebug() > 3 * found) std::abort();
	if (found && std::memcmp(information->mText, data + at + 16, 1024)) std::abort();
	const size_t length = found ? information->mExtraLength : 0;
	if (length && std::memcmp(information->mExtra, data + at + 1040, std::min(length, size - at - 1040))) std::abort();
	return 0;
}
