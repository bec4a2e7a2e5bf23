#include "qor/storage/file_sequence.h"

#include <cstdlib>
#include <string>

/// The input is paths, one a line: each is added to a sequence and given back.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
	CqorFileSeq sequence, copy;
	for (std::string rest(reinterpret_cast<const char*>(data), size); !rest.empty();) {
		const std::string path = rest.substr(0, rest.find('\n')).c_str();
		rest.erase(0, path.size() + 1);
		eqorFILESEQ_FILEATTR attributes;
		CqorFileSeq alone;
		char name[CqorFileSeq::kNameSize];
		if (CqorFileSeq::ParseByFilePath(&attributes, path.c_str()) != 0) continue;
		if (!sequence.AddItem(&attributes, size)) continue; // a folder longer than a sequence's
		alone.AddItem(&attributes, size);
		const auto number = static_cast<uint32_t>(attributes.mNumber);
		if (sequence.FillNameByIndexNum(name, number) || alone.FillNameByIndexNum(name, number)) std::abort();
		if (path.size() < 2) continue; // the library writes the root its own way
		const char* point = path.find('.', 1) == path.npos ? "." : "";
		if (!std::string(name).ends_with(path.substr(1) + point)) std::abort();
	}
	if (copy.Copy(sequence) != 0 || copy.GetCount() != sequence.GetCount()) std::abort();
	return 0;
}
