#pragma once

#include <cstdint>
#include <string>

enum class FrameKind { unknown, pattern, image };

struct FrameCheck {
	FrameKind kind = FrameKind::unknown;
	std::string fault;   // empty: nothing wrong
	uint64_t number = 0; // of a pattern frame
};

/// Recognises what a frame is and checks it: the simulated camera's pattern, or a PGM file.
FrameCheck checkFrame(const unsigned char* frame, uint64_t byteSize);
