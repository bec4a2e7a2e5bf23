#include "folder.h"

#include "folder_internal.h"

#include <cstring>

namespace platform {
namespace {

char lower(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

} // namespace

bool isPathSeparator(char c) { return c == '\\' || c == '/'; }

const char* fileNamePart(const char* path) {
	if (!path) return "";
	const char* name = path;
	for (const char* at = path; *at; ++at) {
		if (isPathSeparator(*at)) name = at + 1;
	}
	return name;
}

bool hasExtension(const char* name, const char* extension) {
	const char* point = std::strrchr(name, '.');
	const char* own = point ? point + 1 : "";
	while (*own && lower(*own) == lower(*extension)) ++own, ++extension;
	return *own == 0 && *extension == 0;
}

} // namespace platform
