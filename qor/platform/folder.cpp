#include "folder.h"

#include "folder_internal.h"
#include "letter_case_internal.h"
#include "machine.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <functional>
#include <utility>

namespace platform {
namespace {

constexpr uint32_t kNoMemory = 8;

bool before(const FoundFile& a, const FoundFile& b) { return a.path < b.path; }

/// A stack of folders instead of a call for each: how deep folders nest is not ours to say.
bool list(std::string start, const char* extension, bool recursive, size_t maximum, std::vector<FoundFile>* out) {
	std::vector<std::string> names, ahead; // the next folder stands last
	if (!readFolder(start, extension, maximum, out, recursive ? &names : nullptr)) return false;
	for (auto& file : *out) file.path.insert(0, start);
	while (true) {
		std::sort(names.begin(), names.end(), std::greater<>());
		for (const auto& name : names) ahead.push_back(start + name + kPathSeparator);
		names.clear();
		if (ahead.empty() || out->size() >= maximum) return true;
		start = std::move(ahead.back());
		ahead.pop_back();
		std::vector<FoundFile> files;
		static_cast<void>(readFolder(start, extension, maximum - out->size(), &files, &names));
		for (auto& file : files) out->push_back({start + file.path, file.size});
	}
}

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
	while (*own && lowerCase(*own) == lowerCase(*extension)) ++own, ++extension;
	return *own == 0 && *extension == 0;
}

void FirstNames::add(const char* name, uint64_t size) {
	if (mHeap.size() >= mMaximum) {
		if (mMaximum == 0 || mHeap.front().path.compare(name) <= 0) return;
		std::pop_heap(mHeap.begin(), mHeap.end(), before);
		mHeap.back() = {name, size};
	} else {
		mHeap.push_back({name, size});
	}
	std::push_heap(mHeap.begin(), mHeap.end(), before);
}

std::vector<FoundFile> FirstNames::take() {
	std::sort_heap(mHeap.begin(), mHeap.end(), before);
	return std::move(mHeap);
}

bool listFiles(const char* folder, const char* extension, bool recursive, size_t maximum, std::vector<FoundFile>* out) {
	out->clear();
	try {
		std::string start;
		if (!startOfFolder(folder, &start)) return false;
		if (list(std::move(start), extension ? extension : "", recursive, maximum, out)) return true;
	} catch (const std::exception&) {
		setLastError(kNoMemory);
	}
	out->clear();
	return false;
}

} // namespace platform
