#include "image_folder.h"

#include "qor/storage/sequence_name_internal.h"

#include <algorithm>
#include <array>
#include <exception>
#include <fstream>
#include <map>
#include <string_view>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;
using storage_parts::equalInSequence;
using storage_parts::SequenceName;
using storage_parts::splitSequenceName;

namespace {

bool isNumberedImage(const SequenceName& name) {
	return !name.digits.empty() && equalInSequence(name.extension, "pgm");
}

std::string keyOf(const SequenceName& name) {
	return storage_parts::sequenceKey(name.folder, name.baseName, name.extension);
}

/// Without leading zeros; "0" keeps one.
std::string_view significant(std::string_view digits) {
	return digits.substr(std::min(digits.find_first_not_of('0'), digits.size() - 1));
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

std::string ImageFolder::scan(const std::string& place) {
	mImages.clear();
	mDescription.clear();
	mLargest = 0;
	if (place.empty()) return "no folder is given";
	std::string problem;
	try {
		problem = find(place);
		if (problem.empty()) problem = inspect();
	} catch (const std::exception& e) {
		problem = "the folder cannot be read: " + std::string(e.what());
	}
	if (!problem.empty()) mImages.clear();
	return problem;
}

std::string ImageFolder::find(const fs::path& place) {
	const bool isFile = fs::is_regular_file(place);
	const std::string fileName = isFile ? place.filename().string() : std::string();
	const auto wanted = splitSequenceName(fileName);
	if (isFile && !isNumberedImage(wanted)) return "not a numbered image: " + fileName;
	const fs::path folder = !isFile ? place : place.has_parent_path() ? place.parent_path() : fs::path(".");

	std::map<std::string, std::vector<Image>> sequences;
	size_t count = 0;
	for (const auto& entry : fs::directory_iterator(folder)) {
		Image image;
		image.path = entry.path();
		image.name = image.path.filename().string();
		const auto name = splitSequenceName(image.name);
		std::error_code unknown; // a link that leads in a circle
		if (!isNumberedImage(name) || !entry.is_regular_file(unknown)) continue;
		if (count++ >= kMaximumImages) return "more than a million images";
		image.digits = significant(name.digits);
		sequences[keyOf(name)].push_back(std::move(image));
	}
	const auto shorter = [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); };
	const auto found = isFile
	                       ? sequences.find(keyOf(wanted))
	                       : std::max_element(sequences.begin(), sequences.end(), shorter); // the first of the longest
	if (found == sequences.end()) return "the folder has no numbered images";
	take(std::move(found->second), sequences.size(), isFile);
	return {};
}

void ImageFolder::take(std::vector<Image>&& sequence, size_t ofSequences, bool chosen) {
	mImages = std::move(sequence);
	std::sort(mImages.begin(), mImages.end(), before);
	mDescription = splitSequenceName(mImages.front().name).baseName;
	mDescription += "*.pgm";
	if (ofSequences < 2) return;
	mDescription += chosen ? ": one of " : ": the longest of ";
	mDescription += std::to_string(ofSequences) + " sequences in the folder";
	if (!chosen) mDescription += "; name a file to play its own";
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
