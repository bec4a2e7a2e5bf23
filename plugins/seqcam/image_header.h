#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// The header of a binary grey-scale image ("P5"): width, height and largest value as decimal
/// numbers between blanks, comments from '#' to the end of the line, and one blank before the
/// pixels. Values up to 255 have one byte a pixel, larger ones two, the more significant first.
struct ImageHeader {
	static constexpr size_t kMaximumSize = 4096; // bytes that a header may take
	static constexpr uint32_t kMaximumSide = 65535;

	uint32_t width = 0;
	uint32_t height = 0;
	uint32_t bytesPerPixel = 1;
	uint32_t pixelOffset = 0;

	uint64_t pixelBytes() const { return uint64_t{width} * height * bytesPerPixel; }

	/// Reads the header at the start of a file, of which `size` bytes are there.
	/// @return an empty text, or what is wrong with it.
	std::string parse(const unsigned char* bytes, size_t size);
};
