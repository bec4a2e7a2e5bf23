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
	/// Without the short names, and with as much at a time as the system likes.
	explicit Search(const std::string& pattern)
	    : mHandle(FindFirstFileExA(
	          pattern.c_str(), FindExInfoBasic, &mFound, FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH)) {}
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

bool isFolder(const char* path) {
	const DWORD attributes = GetFileAttributesA(path);
	return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY);
}

} // namespace

const char kPathSeparator = '\\';

bool startOfFolder(const char* folder, std::string* start) {
	if (!folder || !*folder) {
		setLastError(ERROR_PATH_NOT_FOUND);
		return false;
	}
	*start = folder;
	if (!isPathSeparator(start->back())) *start += kPathSeparator;
	return true;
}

// The pattern takes everything: the system's own matching of an extension also takes longer
// ones that begin with it.
bool readFolder(const std::string& start, const char* extension, size_t maximum, std::vector<FoundFile>* files,
    std::vector<std::string>* folders) {
	FirstNames names(maximum);
	Search search(start + '*');
	// The root of an empty volume has no entries at all.
	if (!search.any()) return lastError() == ERROR_FILE_NOT_FOUND;
	do {
		const WIN32_FIND_DATAA& entry = search.found();
		if (folders && isPlainFolder(entry)) folders->emplace_back(entry.cFileName);
		const bool folderEntry = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
		if (folderEntry || !hasExtension(entry.cFileName, extension)) continue;
		names.add(entry.cFileName, uint64_t{entry.nFileSizeHigh} << 32 | entry.nFileSizeLow);
	} while (search.next());
	if (lastError() != ERROR_NO_MORE_FILES) return false;
	*files = names.take();
	return true;
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

void flushFolders(const char*) {}

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
