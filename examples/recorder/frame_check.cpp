#include "frame_check.h"

#include "image.h"

#include <qor/simcam/frame_pattern.h>

#include <cstring>

FrameCheck checkFrame(const unsigned char* frame, uint64_t byteSize) {
	FrameCheck check;
	if (readPgmHeader(frame, byteSize)) {
		check.kind = FrameKind::image;
		return check;
	}
	const uint64_t magic = SIM_FRAME_MAGIC;
	if (byteSize < SIM_FRAME_HEADER_SIZE || std::memcmp(frame, &magic, sizeof magic) != 0) return check;
	check.kind = FrameKind::pattern;
	simFrame_Header header = {};
	uint64_t offset = 0;
	const int result = simFrame_Verify(frame, byteSize, &header, &offset);
	check.number = header.mNumber;
	if (result == simFrame_BAD_HEADER) check.fault = "its header is damaged";
	if (result == simFrame_BAD_SIZE)
		check.fault = "it has " + std::to_string(byteSize) + " bytes and tells of " + std::to_string(header.mSize);
	if (result == simFrame_BAD_STAMP)
		check.fault = "a sector of another frame stands at byte " + std::to_string(offset);
	if (result == simFrame_BAD_CONTENTS) check.fault = "it is damaged at byte " + std::to_string(offset);
	return check;
}
