#pragma once

#include "image_header.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// The numbered images of a folder, in the order of their numbers.
///
/// An image is a file "<name><digits>.pgm"; the extension is compared without regard to
/// case. Files are ordered by the number (of any length), those of one number by name;
/// files without digits before the extension, and other files, are passed over.
class ImageFolder {
public:
	struct Image {
		std::filesystem::path path;
		std::string name;
		std::string digits; // without leading zeros
		uint64_t fileBytes = 0;
		ImageHeader header;
	};

	static constexpr size_t kMaximumImages = 1000000;
	static constexpr uint64_t kMaximumFileBytes = uint64_t{1} << 30;

	/// Reads the names and headers of a folder's images and replaces what was read before.
	/// @return an empty text; otherwise why the folder cannot be played. Damaged images are
	///         counted and the first is named; no images are kept then.
	std::string scan(const std::string& folder);

	const std::vector<Image>& images() const { return mImages; }
	/// Bytes of the largest file.
	uint64_t largestFile() const { return mLargest; }

private:
	std::string find(const std::filesystem::path& folder);
	std::string inspect();

	std::vector<Image> mImages;
	uint64_t mLargest = 0;
};
