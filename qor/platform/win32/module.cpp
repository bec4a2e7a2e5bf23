#include <windows.h>

#include "../machine.h"
#include "../module.h"

namespace platform {
namespace {

constexpr uint32_t kModuleNotFound = 126;

} // namespace

const char* const kModuleExtension = "DLL";

ModuleHandle loadModule(const char* path) {
	if (!path || !*path) {
		setLastError(kModuleNotFound);
		return nullptr;
	}
	return reinterpret_cast<ModuleHandle>(LoadLibraryA(path));
}

void* findExport(ModuleHandle module, const char* name) {
	if (!module || !name) {
		setLastError(ERROR_PROC_NOT_FOUND);
		return nullptr;
	}
	return reinterpret_cast<void*>(GetProcAddress(reinterpret_cast<HMODULE>(module), name));
}

void unloadModule(ModuleHandle module) {
	if (module) FreeLibrary(reinterpret_cast<HMODULE>(module));
}

} // namespace platform
