#include "../folder.h"

#include "../folder_internal.h"
#include "../machine.h"
#include "errors.h"
#include "file_internal.h"
#include "path_internal.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {
namespace {

constexpr uint32_t kAlreadyExists = 183;

struct FolderCloser {
	void operator()(DIR* folder) const { closedir(folder); }
};

enum class Kind { file, folder, other };

/// The folder tells most kinds itself. A linked folder is `other`, as links can lead in circles.
Kind kindOf(int folder, const dirent& entry) {
	if (entry.d_type == DT_REG) return Kind::file;
	if (entry.d_type == DT_DIR) return Kind::folder;
	if (entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) return Kind::other;
	struct stat about = {};
	if (fstatat(folder, entry.d_name, &about, AT_SYMLINK_NOFOLLOW) != 0) return Kind::other;
	if (S_ISDIR(about.st_mode)) return Kind::folder;
	if (S_ISLNK(about.st_mode) && fstatat(folder, entry.d_name, &about, 0) != 0) return Kind::other;
	return S_ISREG(about.st_mode) ? Kind::file : Kind::other;
}

/// Only files that stay in the list are asked for their sizes; one that is gone since is left out.
void addSizes(int folder, std::vector<FoundFile>* files) {
	std::erase_if(*files, [folder](FoundFile& file) {
		struct stat about = {};
		if (fstatat(folder, file.path.c_str(), &about, 0) != 0) return true;
		file.size = static_cast<uint64_t>(about.st_size);
		return false;
	});
}

bool fail(uint32_t error) {
	setLastError(error);
	return false;
}

/// Makes one folder that a power cut does not take away again. @return false with `errno`:
/// EIO when it is there but its name may not be on the medium.
bool makeFolder(const char* path) {
	if (mkdir(path, 0777) != 0) return false;
	NativePath made, above;
	if (made.assignNative(path, std::strlen(path))) {
		made.folder(&above);
		if (syncFolder(above.text())) return true;
	}
	errno = EIO;
	return false;
}

/// Whether a path is there, and is not what its shorter form says: ".." behind a linked folder
/// leads above the folder that the link leads to.
bool leadsElsewhere(const std::filesystem::path& path, const std::filesystem::path& shorter) {
	struct stat one = {}, other = {};
	if (stat(path.c_str(), &one) != 0) return false;
	return stat(shorter.c_str(), &other) != 0 || one.st_dev != other.st_dev || one.st_ino != other.st_ino;
}

} // namespace

const char kPathSeparator = '/';

bool startOfFolder(const char* folder, std::string* start) {
	NativePath native;
	if (!native.assign(folder)) return false;
	*start = native.text();
	if (start->back() != '/') *start += '/';
	return true;
}

bool readFolder(const std::string& start, const char* extension, size_t maximum, std::vector<FoundFile>* files,
    std::vector<std::string>* folders) {
	const std::unique_ptr<DIR, FolderCloser> open(opendir(start.c_str()));
	if (!open) {
		setLastError(windowsError(errno));
		return false;
	}
	const int handle = dirfd(open.get());
	FirstNames names(maximum);
	errno = 0;
	for (const dirent* entry = nullptr; (entry = readdir(open.get())); errno = 0) {
		const char* name = entry->d_name;
		if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
		const bool wanted = hasExtension(name, extension);
		if (!wanted && !folders) continue;
		const Kind kind = kindOf(handle, *entry);
		if (kind == Kind::file && wanted) names.add(name, 0);
		if (kind == Kind::folder && folders) folders->emplace_back(name);
	}
	if (errno != 0) {
		setLastError(windowsError(errno));
		return false;
	}
	*files = names.take();
	addSizes(handle, files);
	return true;
}

bool makeFolders(const char* folder) {
	NativePath native;
	if (!native.assign(folder)) return false;
	char path[4096];
	std::memcpy(path, native.text(), sizeof path);
	for (char* at = path + 1; *path && *at; ++at) {
		if (*at != '/') continue;
		*at = 0;
		const bool durable = makeFolder(path) || errno != EIO; // the last one tells the rest
		*at = '/';
		if (!durable) return fail(windowsError(EIO));
	}
	if (makeFolder(path)) return true;
	const int error = errno;
	struct stat there = {};
	if (error == EEXIST && stat(path, &there) == 0 && S_ISDIR(there.st_mode)) return true;
	return fail(error == EEXIST ? kAlreadyExists : windowsError(error));
}

void flushFolders(const char* path) {
	NativePath native;
	const std::string full = fullPath(path);
	if (!native.assign(full.c_str())) return;
	while (std::strcmp(native.text(), "/") != 0) {
		const NativePath below = native;
		below.folder(&native);
		const int folder = open(native.text(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
		if (folder < 0) continue;
		static_cast<void>(fsync(folder));
		close(folder);
	}
}

std::string fullPath(const char* path) {
	NativePath native;
	try {
		if (isDeviceName(path)) return path;
		if (!native.assign(path)) return {};
		const std::filesystem::path whole = std::filesystem::absolute(native.text());
		std::filesystem::path normal = whole.lexically_normal();
		if (leadsElsewhere(whole, normal) || leadsElsewhere(whole.parent_path(), normal.parent_path())) normal = whole;
		std::string full = normal.string();
		const bool folder = native.text()[std::strlen(native.text()) - 1] == '/';
		if (!folder && full.size() > 1 && full.back() == '/') full.pop_back();
		return full;
	} catch (const std::exception&) { // no current directory, out of memory
		return {};
	}
}

} // namespace platform
