#include "qor/core/line_parameters.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

/// The first byte: bit 0 post-processing, bit 1 escapes; the second the separator; the rest the line.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	if (size < 2) return 0;
	static CmcLineParSet full; // kept, so that long and short lines follow each other
	static CstqLineParSet lean;
	const std::string line(reinterpret_cast<const char*>(data + 2), size - 2);
	full.SetSeparator(static_cast<char>(data[1]));
	lean.SetSeparator(static_cast<char>(data[1]));
	const int count = full.Feed(line.c_str(), data[0] & 1, data[0] & 2);
	std::size_t characters = 0;
	for (int i = 0; i < count; ++i) {
		characters += std::strlen(full(i));
		if (!full.GetSrcText(i, line.c_str())) std::abort();
		full.GetIntPar(i, 0);
		full.ePar(full(i));
	}
	if (characters > line.size()) std::abort();
	const int leanCount = lean.Feed(line.c_str(), data[0] & 1);
	std::string out(line.size() + 1, '\0');
	for (int i = 0; i < leanCount; ++i) lean.GetPar(i, out.data(), out.size(), "");
	if (count > 0) full.Feed(full(count - 1), 1, 1);
	return 0;
}
