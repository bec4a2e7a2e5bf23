#include "../folder.h"

#include "../folder_internal.h"
#include "../machine.h"
#include "errors.h"
#include "path_internal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>

namespace platform {
namespace {

constexpr uint32_t kAlreadyExists = 183;

struct FolderCloser {
	void operator()(DIR* folder) const { closedir(folder); }
};

struct Contents {
	std::vector<std::string> files;
	std::vector<std::string> folders;
};

/// A linked folder is not entered: links can lead in circles.
void classify(const std::string& folder, const dirent& entry, const char* extension, Contents* out) {
	if (std::strcmp(entry.d_name, ".") == 0 || std::strcmp(entry.d_name, "..") == 0) return;
	std::string path = folder + entry.d_name;
	struct stat about = {};
	if (lstat(path.c_str(), &about) != 0) return;
	if (S_ISDIR(about.st_mode)) {
		out->folders.push_back(std::move(path));
		return;
	}
	const bool file = S_ISREG(about.st_mode) || (stat(path.c_str(), &about) == 0 && S_ISREG(about.st_mode));
	if (file && hasExtension(entry.d_name, extension)) out->files.push_back(std::move(path));
}

Contents readFolder(const std::string& folder, const char* extension) {
	Contents contents;
	const std::unique_ptr<DIR, FolderCloser> open(opendir(folder.c_str()));
	if (!open) return contents;
	const std::string start = folder.back() == '/' ? folder : folder + '/';
	while (const dirent* entry = readdir(open.get())) classify(start, *entry, extension, &contents);
	std::sort(contents.files.begin(), contents.files.end());
	std::sort(contents.folders.begin(), contents.folders.end());
	return contents;
}

void list(
    const std::string& folder, const char* extension, bool recursive, size_t maximum, std::vector<std::string>* out) {
	Contents contents = readFolder(folder, extension);
	for (auto& file : contents.files) {
		if (out->size() >= maximum) return;
		out->push_back(std::move(file));
	}
	for (const auto& below : contents.folders) {
		if (!recursive || out->size() >= maximum) return;
		list(below, extension, recursive, maximum, out);
	}
}

} // namespace

const char kPathSeparator = '/';

std::vector<std::string> listFiles(const char* folder, const char* extension, bool recursive, size_t maximum) {
	NativePath native;
	if (!native.assign(folder)) return {};
	try {
		std::vector<std::string> files;
		list(native.text(), extension ? extension : "", recursive, maximum, &files);
		return files;
	} catch (const std::exception&) { // out of memory
		return {};
	}
}

bool makeFolders(const char* folder) {
	NativePath native;
	if (!native.assign(folder)) return false;
	char path[4096];
	std::memcpy(path, native.text(), sizeof path);
	for (char* at = path + 1; *path && *at; ++at) {
		if (*at != '/') continue;
		*at = 0;
		static_cast<void>(mkdir(path, 0777)); // the last one tells
		*at = '/';
	}
	if (mkdir(path, 0777) == 0) return true;
	const int error = errno;
	struct stat there = {};
	if (error == EEXIST && stat(path, &there) == 0 && S_ISDIR(there.st_mode)) return true;
	setLastError(error == EEXIST ? kAlreadyExists : windowsError(error));
	return false;
}

std::string fullPath(const char* path) {
	NativePath native;
	try {
		if (isDeviceName(path)) return path;
		if (!native.assign(path)) return {};
		std::string full = std::filesystem::absolute(native.text()).lexically_normal().string();
		const bool folder = native.text()[std::strlen(native.text()) - 1] == '/';
		if (!folder && full.size() > 1 && full.back() == '/') full.pop_back();
		return full;
	} catch (const std::exception&) { // no current directory, out of memory
		return {};
	}
}

} // namespace platform
