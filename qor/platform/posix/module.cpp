#include "../module.h"

#include "../machine.h"
#include "path_internal.h"

#include <dlfcn.h>

namespace platform {
namespace {

constexpr uint32_t kModuleNotFound = 126;
constexpr uint32_t kExportNotFound = 127;

} // namespace

const char* const kModuleExtension = "so";

// The loader tells its reasons only as text, so every failure is the one error.
ModuleHandle loadModule(const char* path) {
	NativePath native;
	void* module = native.assign(path) ? dlopen(native.text(), RTLD_NOW | RTLD_LOCAL) : nullptr;
	if (!module) setLastError(kModuleNotFound);
	return static_cast<ModuleHandle>(module);
}

void* findExport(ModuleHandle module, const char* name) {
	void* address = module && name ? dlsym(module, name) : nullptr;
	if (!address) setLastError(kExportNotFound);
	return address;
}

void unloadModule(ModuleHandle module) {
	if (module) dlclose(module);
}

} // namespace platform
