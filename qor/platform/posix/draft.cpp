#include "../draft_internal.h"

#include "../machine.h"
#include "errors.h"
#include "path_internal.h"
#include "rights_internal.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <unistd.h>

namespace platform {
namespace {

constexpr uint32_t kFileNotFound = 2;
constexpr uint32_t kAccessDenied = 5;
constexpr mode_t kOwnerOnly = 0600;
constexpr int kMostLinks = 40; // as many as the system follows

std::string fail(uint32_t error) {
	setLastError(error);
	return {};
}

/// The mode of a new file. The mask can be asked for without changing it, which another
/// thread would notice, only here; where that is not there, new files stay private.
mode_t newFileMode() {
	std::FILE* file = std::fopen("/proc/self/status", "re");
	if (!file) return kOwnerOnly;
	char line[256];
	unsigned mask = 0;
	bool found = false;
	while (!found && std::fgets(line, sizeof line, file)) found = std::sscanf(line, "Umask: %o", &mask) == 1;
	std::fclose(file);
	return found ? 0666 & ~static_cast<mode_t>(mask) : kOwnerOnly;
}

bool isOwnOrRoots(uid_t owner) { return owner == 0 || owner == geteuid(); }

/// Puts what a link says in place of it. @return false with `lastError()`.
bool followLink(std::string* path, const struct stat& link) {
	const std::string folder = path->substr(0, path->rfind('/') + 1);
	struct stat about = {};
	if (stat(folder.c_str(), &about) != 0) return !fail(windowsError(errno)).empty();
	if (!isTrustedLink(link, about)) return !fail(kAccessDenied).empty();
	char to[PATH_MAX];
	const ssize_t length = readlink(path->c_str(), to, sizeof to);
	if (length <= 0) return !fail(windowsError(errno)).empty();
	path->assign(to[0] == '/' ? "" : folder).append(to, static_cast<size_t>(length));
	return true;
}

} // namespace

void takeRights(int handle, const char* path) {
	struct stat old = {}, own = {};
	if (fstat(handle, &own) != 0) return;
	mode_t mode = own.st_mode & 0777;
	if (lstat(path, &old) == 0) {
		if (!S_ISREG(old.st_mode)) return; // came up meanwhile
		mode = old.st_mode & 0777;
		// Only root can; otherwise it becomes this user's.
		[[maybe_unused]] const bool owned =
		    own.st_uid == old.st_uid || fchown(handle, old.st_uid, static_cast<gid_t>(-1)) == 0;
		// Another group gets what everybody has: its members are not those that were meant.
		if (own.st_gid != old.st_gid && fchown(handle, static_cast<uid_t>(-1), old.st_gid) != 0) {
			mode = (mode & 0707) | (mode & 07) << 3;
		}
	} else if (errno == ENOENT) {
		mode = newFileMode();
	}
	if (mode != (own.st_mode & 0777)) static_cast<void>(fchmod(handle, mode));
}

bool isTrustedLink(const struct stat& link, const struct stat& folder) {
	return isOwnOrRoots(link.st_uid) && !(folder.st_mode & S_IWOTH);
}

std::string draftTarget(const char* path) {
	if (isDeviceName(path)) return fail(kFileNotFound);
	NativePath native;
	if (!native.assign(path)) return {};
	std::string target = native.text();
	if (target.front() != '/') {
		char folder[PATH_MAX];
		if (!getcwd(folder, sizeof folder)) return fail(windowsError(errno));
		target = std::string(folder) + '/' + native.text();
	}
	for (int i = 0; i < kMostLinks; ++i) {
		struct stat about = {};
		if (lstat(target.c_str(), &about) != 0) return errno == ENOENT ? target : fail(windowsError(errno));
		if (S_ISREG(about.st_mode)) return target;
		if (!S_ISLNK(about.st_mode)) return fail(kAccessDenied);
		if (!followLink(&target, about)) return {};
	}
	return fail(windowsError(ELOOP));
}

} // namespace platform
