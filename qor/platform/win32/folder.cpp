#include <windows.h>

#include "../folder.h"
#include "../folder_internal.h"
#include "../machine.h"

#include <cstring>
#include <utility>

namespace platform {
namespace {

class Search {
public:
	explicit Search(const std::string& pattern) : mHandle(FindFirstFileA(pattern.c_str(), &mFound)) {}
	~Search() {
		if (mHandle != INVALID_HANDLE_VALUE) FindClose(mHandle);
	}
	Search(const Search&) = delete;
	Search& operator=(const Search&) = delete;
	bool any() const { return mHandle != INVALID_HANDLE_VALUE; }
	bool next() { return FindNextFileA(mHandle, &mFound) != FALSE; }
	const WIN32_FIND_DATAA& found() const { return mFound; }

private:
	WIN32_FIND_DATAA mFound = {};
	HANDLE mHandle;
};

/// A linked folder is not entered: links can lead in circles.
bool isPlainFolder(const WIN32_FIND_DATAA& entry) {
	return (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) &&
	       !(entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) && std::strcmp(entry.cFileName, ".") != 0 &&
	       std::strcmp(entry.cFileName, "..") != 0;
}

// The pattern takes everything: the system's own matching of an extension also takes longer
// ones that begin with it.
void list(
    const std::string& folder, const char* extension, bool recursive, size_t maximum, std::vector<std::string>* out) {
	const std::string start = isPathSeparator(folder.back()) ? folder : folder + kPathSeparator;
	std::vector<std::string> below;
	Search search(start + '*');
	for (bool more = search.any(); more && out->size() < maximum; more = search.next()) {
		const WIN32_FIND_DATAA& entry = search.found();
		if (isPlainFolder(entry)) below.push_back(start + entry.cFileName);
		const bool folderEntry = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
		if (!folderEntry && hasExtension(entry.cFileName, extension)) out->push_back(start + entry.cFileName);
	}
	for (const auto& path : below) {
		if (!recursive || out->size() >= maximum) return;
		list(path, extension, recursive, maximum, out);
	}
}

bool isFolder(const char* path) {
	const DWORD attributes = GetFileAttributesA(path);
	return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

} // namespace

const char kPathSeparator = '\\';

std::vector<std::string> listFiles(const char* folder, const char* extension, bool recursive, size_t maximum) {
	if (!folder || !*folder) return {};
	try {
		std::vector<std::string> files;
		list(folder, extension ? extension : "", recursive, maximum, &files);
		return files;
	} catch (const std::exception&) { // out of memory
		return {};
	}
}

bool makeFolders(const char* folder) {
	if (!folder || !*folder) {
		setLastError(ERROR_PATH_NOT_FOUND);
		return false;
	}
	try {
		std::string path = folder;
		for (size_t i = 1; i < path.size(); ++i) {
			if (!isPathSeparator(path[i])) continue;
			const char separator = std::exchange(path[i], '\0');
			CreateDirectoryA(path.c_str(), nullptr); // the last one tells
			path[i] = separator;
		}
		if (CreateDirectoryA(folder, nullptr)) return true;
		const uint32_t error = lastError();
		if (isFolder(folder)) return true;
		setLastError(error);
	} catch (const std::exception&) {
		setLastError(ERROR_NOT_ENOUGH_MEMORY);
	}
	return false;
}

std::string fullPath(const char* path) {
	if (!path || !*path) return {};
	try {
		const DWORD needed = GetFullPathNameA(path, 0, nullptr, nullptr);
		std::string full(needed, '\0');
		const DWORD length = needed ? GetFullPathNameA(path, needed, full.data(), nullptr) : 0;
		full.resize(length < needed ? length : 0);
		return full;
	} catch (const std::exception&) {
		return {};
	}
}

} // namespace platform
