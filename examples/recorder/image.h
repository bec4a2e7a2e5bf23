#pragma once

#include "capture_info.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A binary PGM in memory: where its pixels stand and how many bytes it has in all.
struct PgmHeader {
	uint64_t width = 0;
	uint64_t height = 0;
	uint32_t maximum = 0;
	uint64_t pixelOffset = 0;
	uint64_t byteSize = 0;
};

/// Reads the header of a binary PGM. Nothing when the bytes are none, or hold less than the
/// header announces.
std::optional<PgmHeader> readPgmHeader(const unsigned char* bytes, uint64_t count);

/// What a frame is written as: its own bytes when it is an image file already, else a PGM
/// made of its pixels. Empty when the frame's format is unknown or its numbers do not fit.
std::vector<unsigned char> toPgm(const unsigned char* frame, const qorSIO_VCAP_FRAME_INFO& info);
