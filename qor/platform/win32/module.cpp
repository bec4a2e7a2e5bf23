#include <windows.h>

#include "../folder.h"
#include "../format.h"
#include "../machine.h"
#include "../memory.h"
#include "../module.h"

#include <algorithm>
#include <cstring>

namespace platform {
namespace {

constexpr uint32_t kModuleNotFound = 126;
constexpr uint32_t kPathTooLong = 206;

/// The version resource of a file.
class VersionResource {
public:
	VersionResource(const char* path, DWORD size) : mData(allocateZeroed(size)) {
		if (mData && !GetFileVersionInfoA(path, 0, size, mData)) {
			release(mData);
			mData = nullptr;
		}
	}
	~VersionResource() { release(mData); }
	VersionResource(const VersionResource&) = delete;
	VersionResource& operator=(const VersionResource&) = delete;

	/// @return the value's length in its own units; 0 when there is none.
	UINT query(const char* name, const void** value) const {
		void* found = nullptr;
		UINT length = 0;
		if (!mData || !VerQueryValueA(mData, name, &found, &length) || !found) return 0;
		*value = found;
		return length;
	}

private:
	void* mData;
};

constexpr size_t kTranslationKeySize = 9;

/// The name of the block with the texts of the first language.
void translationKey(const VersionResource& resource, char (&key)[kTranslationKeySize]) {
	WORD translation[2] = {0x0419, 0x04B0};
	const void* value = nullptr;
	if (resource.query("\\VarFileInfo\\Translation", &value) >= sizeof translation)
		std::memcpy(translation, value, sizeof translation);
	formatText(key, sizeof key, "%04x%04x", translation[0], translation[1]);
}

} // namespace

const char* const kModuleExtension = "DLL";

ModuleHandle loadModule(const char* path) {
	char file[MAX_PATH + 2];
	const DWORD length = path && *path ? GetFullPathNameA(path, MAX_PATH, file, nullptr) : 0;
	if (length == 0 || length >= MAX_PATH) {
		setLastError(length ? kPathTooLong : kModuleNotFound);
		return nullptr;
	}
	// The point keeps the loader from looking for "<name>.dll" instead.
	if (!std::strchr(fileNamePart(file), '.')) std::memcpy(file + length, ".", 2);
	return reinterpret_cast<ModuleHandle>(
	    LoadLibraryExA(file, nullptr, LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR | LOAD_LIBRARY_SEARCH_DEFAULT_DIRS));
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

bool productVersion(const char* path, char* out, size_t size) {
	formatText(out, size, "");
	const DWORD bytes = path && *path ? GetFileVersionInfoSizeA(path, nullptr) : 0;
	if (bytes == 0) return false;
	const VersionResource resource(path, bytes);
	char key[kTranslationKeySize], name[64];
	translationKey(resource, key);
	formatText(name, sizeof name, "\\StringFileInfo\\%s\\ProductVersion", key);
	const void* value = nullptr;
	const UINT length = resource.query(name, &value); // with the terminator, where there is one
	if (length == 0 || size == 0) return true;
	const auto* text = static_cast<const char*>(value);
	const size_t count = std::min<size_t>(std::find(text, text + length, '\0') - text, size - 1);
	std::memcpy(out, text, count);
	out[count] = 0;
	return true;
}

} // namespace platform
