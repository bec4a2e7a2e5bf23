#include "../module.h"

#include "../folder.h"
#include "../format.h"
#include "../machine.h"
#include "path_internal.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <string>
#include <sys/stat.h>

namespace platform {
namespace {

constexpr uint32_t kModuleNotFound = 126;
constexpr uint32_t kExportNotFound = 127;

/// Whether the address lies in that very library: the look-up of a name goes on in what the
/// library depends on.
bool isOwn(void* module, void* address) {
	link_map* own = nullptr;
	link_map* found = nullptr;
	Dl_info about = {};
	return dlinfo(module, RTLD_DI_LINKMAP, &own) == 0 &&
	       dladdr1(address, &about, reinterpret_cast<void**>(&found), RTLD_DL_LINKMAP) != 0 && own == found;
}

bool isVersion(const char* text) {
	const size_t length = std::strlen(text);
	return length > 0 && std::strspn(text, "0123456789.") == length && text[0] != '.' && text[length - 1] != '.';
}

} // namespace

const char* const kModuleExtension = "so";

// The loader tells its reasons only as text, so every failure is the one error.
ModuleHandle loadModule(const char* path) {
	const std::string file = fullPath(path);
	struct stat about = {};
	// A pipe would keep the loader waiting for a writer.
	const bool isFile = !file.empty() && stat(file.c_str(), &about) == 0 && S_ISREG(about.st_mode);
	void* module = isFile ? dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
	if (!module) setLastError(kModuleNotFound);
	return static_cast<ModuleHandle>(module);
}

void* findExport(ModuleHandle module, const char* name) {
	void* address = module && name ? dlsym(module, name) : nullptr;
	if (address && isOwn(module, address)) return address;
	setLastError(kExportNotFound);
	return nullptr;
}

void unloadModule(ModuleHandle module) {
	if (module) dlclose(module);
}

bool productVersion(const char* path, char* out, size_t size) {
	static constexpr char mark[] = ".so.";
	formatText(out, size, "");
	NativePath native;
	char file[PATH_MAX];
	if (!native.assign(path) || !realpath(native.text(), file)) return false;
	const char* suffix = std::strstr(fileNamePart(file), mark);
	if (!suffix || !isVersion(suffix + std::strlen(mark))) return false;
	formatText(out, size, "%s", suffix + std::strlen(mark));
	return true;
}

} // namespace platform
