#pragma once

#include "image_header.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

/// A sequence of numbered images in a folder, in the order of their numbers.
///
/// An image is a file "<base name><digits>.pgm". Those with the same base name are a sequence;
/// base names and extensions are compared without regard to case, as `CqorFileSeq` does. Files
/// are ordered by the number (of any length), those of one number by name; files without digits
/// before the extension, and other files, are passed over.
class ImageFolder {
public:
	struct Image {
		std::filesystem::path path;
		std::string name;
		std::string digits; // without leading zeros
		uint64_t fileBytes = 0;
		ImageHeader header;
	};

	static constexpr size_t kMaximumImages = 1000000; // of all sequences in the folder
	static constexpr uint64_t kMaximumFileBytes = uint64_t{1} << 30;

	/// Reads the names and headers of a sequence and replaces what was read before.
	/// @param place a folder, whose longest sequence is taken (of several as long, the first by
	///              base name), or a file, whose own sequence is taken
	/// @return an empty text; otherwise why the sequence cannot be played. Damaged images are
	///         counted and the first is named; no images are kept then.
	std::string scan(const std::string& place);

	const std::vector<Image>& images() const { return mImages; }
	/// Which sequence was taken, and of how many; empty without one.
	const std::string& description() const { return mDescription; }
	/// Bytes of the largest file.
	uint64_t largestFile() const { return mLargest; }

private:
	std::string find(const std::filesystem::path& place);
	void take(std::vector<Image>&& sequence, size_t ofSequences, bool chosen);
	std::string inspect();

	std::vector<Image> mImages;
	std::string mDescription;
	uint64_t mLargest = 0;
};
