#include "qor/core/managed_object.h"

#include <cstddef>
#include <cstdint>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
	Cmc root;
	auto* cam = Cmc::_mcCreate(&root, "Cam");
	Cmc::_mcCreate(cam, "Gain");
	Cmc::_mcCreate(cam, "");
	const std::string path(reinterpret_cast<const char*>(data), size);
	Cmc* found = cam->_mcFind(path.c_str());
	if (found && found->_mcGetRoot() != &root) __builtin_trap();
	root._mcDestroy();
	return 0;
}
