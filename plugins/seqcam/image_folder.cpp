#include "image_folder.h"

#include <algorithm>
#include <array>
#include <exception>
#include <fstream>
#include <system_error>

namespace fs = std::filesystem;

namespace {

bool hasImageExtension(const std::string& name) {
	constexpr char kExtension[] = ".pgm";
	constexpr size_t kLength = sizeof kExtension - 1;
	if (name.size() < kLength) return false;
	return std::equal(kExtension, kExtension + kLength, name.end() - kLength,
	    [](char a, char b) { return a == (b >= 'A' && b <= 'Z' ? b - 'A' + 'a' : b); });
}

/// The digits before the extension without their leading zeros; "0" keeps one.
/// @return false when there are none.
bool numberOf(const std::string& name, std::string* digits) {
	const auto end = name.size() - 4;
	auto start = end;
	while (start > 0 && name[start - 1] >= '0' && name[start - 1] <= '9') --start;
	if (start == end) return false;
	while (start + 1 < end && name[start] == '0') ++start;
	*digits = name.substr(start, end - start);
	return true;
}

bool before(const ImageFolder::Image& a, const ImageFolder::Image& b) {
	if (a.digits.size() != b.digits.size()) return a.digits.size() < b.digits.size();
	return a.digits != b.digits ? a.digits < b.digits : a.name < b.name;
}

std::string inspectImage(ImageFolder::Image& image) {
	std::error_code error;
	image.fileBytes = fs::file_size(image.path, error);
	std::ifstream file(image.path, std::ios::binary);
	if (error || !file) return "cannot be read";
	if (image.fileBytes > ImageFolder::kMaximumFileBytes) return "is larger than 1 GiB";
	std::array<unsigned char, ImageHeader::kMaximumSize> start;
	file.read(reinterpret_cast<char*>(start.data()), start.size());
	auto problem = image.header.parse(start.data(), static_cast<size_t>(file.gcount()));
	if (!problem.empty()) return problem;
	const auto needed = image.header.pixelOffset + image.header.pixelBytes();
	if (image.fileBytes < needed) return std::to_string(needed - image.fileBytes) + " bytes of pixels are missing";
	return {};
}

} // namespace

std::string ImageFolder::scan(const std::string& folder) {
	mImages.clear();
	mLargest = 0;
	if (folder.empty()) return "no folder is given";
	std::string problem;
	try {
		problem = find(folder);
		if (problem.empty()) problem = inspect();
	} catch (const std::exception& e) {
		problem = "the folder cannot be read: " + std::string(e.what());
	}
	if (!problem.empty()) mImages.clear();
	return problem;
}

std::string ImageFolder::find(const fs::path& folder) {
	for (const auto& entry : fs::directory_iterator(folder)) {
		Image image;
		image.path = entry.path();
		image.name = image.path.filename().string();
		if (!entry.is_regular_file() || !hasImageExtension(image.name) || !numberOf(image.name, &image.digits))
			continue;
		if (mImages.size() >= kMaximumImages) return "more than a million images";
		mImages.push_back(std::move(image));
	}
	if (mImages.empty()) return "the folder has no numbered images";
	std::sort(mImages.begin(), mImages.end(), before);
	return {};
}

std::string ImageFolder::inspect() {
	size_t damaged = 0;
	std::string first;
	for (auto& image : mImages) {
		const auto problem = inspectImage(image);
		mLargest = std::max(mLargest, image.fileBytes);
		if (problem.empty()) continue;
		if (damaged++ == 0) first = image.name + ": " + problem;
	}
	if (damaged == 0) return {};
	return std::to_string(damaged) + " of " + std::to_string(mImages.size()) + " images are damaged; " + first;
}
