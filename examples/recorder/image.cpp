#include "image.h"

#include <cstring>

namespace {

/// The next number of a PGM header, behind blanks and comments.
bool readNumber(const unsigned char* bytes, uint64_t count, uint64_t* position, uint64_t* number) {
	auto& at = *position;
	while (at < count && (bytes[at] <= ' ' || bytes[at] == '#')) {
		if (bytes[at] == '#') {
			while (at < count && bytes[at] != '\n') ++at;
		} else {
			++at;
		}
	}
	const auto start = at;
	for (*number = 0; at < count && bytes[at] >= '0' && bytes[at] <= '9' && at - start < 9; ++at)
		*number = *number * 10 + (bytes[at] - '0');
	return at > start && at < count;
}

} // namespace

std::optional<PgmHeader> readPgmHeader(const unsigned char* bytes, uint64_t count) {
	if (count < 3 || bytes[0] != 'P' || bytes[1] != '5') return {};
	PgmHeader header;
	uint64_t position = 2, maximum = 0;
	if (!readNumber(bytes, count, &position, &header.width) || !readNumber(bytes, count, &position, &header.height) ||
	    !readNumber(bytes, count, &position, &maximum) || maximum < 1 || maximum > 65535)
		return {};
	header.maximum = static_cast<uint32_t>(maximum);
	header.pixelOffset = position + 1; // one blank stands behind the numbers
	header.byteSize = header.pixelOffset + header.width * header.height * (maximum > 255 ? 2 : 1);
	if (header.byteSize > count) return {};
	return header;
}

std::vector<unsigned char> toPgm(const unsigned char* frame, const qorSIO_VCAP_FRAME_INFO& info) {
	if (readPgmHeader(frame, info.mByteSize)) return {frame, frame + info.mByteSize};
	const bool wide = (info.mPixelFormat & 0xFF) == qorSIO_PIXEL_MONO16;
	if (!wide && info.mPixelFormat != qorSIO_PIXEL_MONO8) return {};
	const uint64_t line = uint64_t{info.mWidth} * (wide ? 2 : 1);
	if (!info.mWidth || !info.mHeight || info.mStride < line ||
	    info.mPixelOffset + uint64_t{info.mStride} * (info.mHeight - 1) + line > info.mByteSize)
		return {};

	const auto header =
	    "P5\n" + std::to_string(info.mWidth) + " " + std::to_string(info.mHeight) + (wide ? "\n65535\n" : "\n255\n");
	std::vector<unsigned char> file(header.begin(), header.end());
	file.reserve(header.size() + line * info.mHeight);
	for (uint64_t y = 0; y < info.mHeight; ++y) {
		const auto* row = frame + info.mPixelOffset + y * info.mStride;
		file.insert(file.end(), row, row + line);
	}
	// The more significant byte of a PGM pixel stands first.
	if (info.mPixelFormat == qorSIO_PIXEL_MONO16) {
		for (auto at = header.size(); at + 1 < file.size(); at += 2) std::swap(file[at], file[at + 1]);
	}
	return file;
}
