#include "image_header.h"

#include <algorithm>

namespace {

/// Walks through a header; never past its end.
class HeaderText {
public:
	HeaderText(const unsigned char* bytes, size_t size) : mBytes(bytes), mSize(size) {}

	bool atEnd() const { return mAt >= mSize; }
	size_t position() const { return mAt; }
	unsigned char take() { return mBytes[mAt++]; }

	static bool isBlank(unsigned char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

	/// Skips at least one blank, and comments. @return false when there is none.
	bool skipBlanks() {
		const auto start = mAt;
		while (!atEnd() && (isBlank(mBytes[mAt]) || mBytes[mAt] == '#')) {
			if (take() != '#') continue;
			while (!atEnd() && mBytes[mAt] != '\n' && mBytes[mAt] != '\r') ++mAt;
		}
		return mAt > start;
	}

	/// @return false for no digits or a number above `maximum`.
	bool number(uint32_t maximum, uint32_t* out) {
		const auto start = mAt;
		uint64_t value = 0;
		while (!atEnd() && mBytes[mAt] >= '0' && mBytes[mAt] <= '9') {
			value = std::min<uint64_t>(value * 10 + (take() - '0'), uint64_t{1} << 32);
		}
		*out = static_cast<uint32_t>(std::min<uint64_t>(value, UINT32_MAX));
		return mAt > start && value <= maximum;
	}

private:
	const unsigned char* mBytes;
	size_t mSize;
	size_t mAt = 0;
};

} // namespace

std::string ImageHeader::parse(const unsigned char* bytes, size_t size) {
	HeaderText text(bytes, std::min(size, kMaximumSize));
	if (size < 2 || text.take() != 'P' || text.take() != '5') return "not a binary grey-scale image";
	uint32_t largest = 0;
	if (!text.skipBlanks() || !text.number(kMaximumSide, &width) || width == 0) return "the header has no valid width";
	if (!text.skipBlanks() || !text.number(kMaximumSide, &height) || height == 0)
		return "the header has no valid height";
	if (!text.skipBlanks() || !text.number(65535, &largest) || largest == 0)
		return "the header has no valid largest value";
	if (text.atEnd() || !HeaderText::isBlank(text.take())) return "the header does not end";
	bytesPerPixel = largest > 255 ? 2 : 1;
	pixelOffset = static_cast<uint32_t>(text.position());
	return {};
}
