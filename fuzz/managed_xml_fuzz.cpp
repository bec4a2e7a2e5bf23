#include "qor/base/mem_file.h"
#include "qor/core/class_manager.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

/// What was read once and written must read and write the same again.
void checkRoundTrip(Cmc& root) {
	CstMemFile first, second;
	if (root._mcSaveChildsToXML(&first, 0) != 0) return; // deeper than what is written
	Cmc copy;
	if (copy._mcLoadFromXMLMemFile(&first, 0) != 0 || copy._mcSaveChildsToXML(&second, 0) != 0) std::abort();
	if (first.GetSize() != second.GetSize()) std::abort();
	copy._mcDestroy();
}

} // namespace

/// The first byte is the update flag, the rest the text.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	static const bool registered = qorMCGetManager()->classAdd("Cmc", Cmc::qorMC__CLASSFUNC, nullptr) != nullptr;
	if (!registered || size == 0) return 0;
	CstMemFile text;
	text.Write(data + 1, static_cast<unsigned long>(size - 1));
	Cmc root;
	root._mcLoadFromXMLMemFile(&text, data[0] & 1);
	checkRoundTrip(root);
	root._mcDestroy();
	return 0;
}
