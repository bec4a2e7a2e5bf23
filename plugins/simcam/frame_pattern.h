#pragma once

/// The contents of the simulated camera's frames, for the camera and for whoever wants to
/// know whether a frame came through unharmed. Plain C; little-endian.
///
/// A frame is a run of sectors of 512 bytes, the last one possibly shorter:
///
///     offset  width
///          0  u64    magic, "SIMFRAME" in memory
///          8  u64    frame number
///         16  u64    device time stamp, nanoseconds
///         24  u64    seed of the camera
///         32  u64    size of the frame in bytes, at least 48
///         40  u64    check word over the five words before it
///         48         background up to the end of the sector
///     512 k   u64    stamp of sector k: depends on seed, frame number and k
///     512 k+8        background up to the end of the sector
///
/// The background word at byte offset 8 i is `simFrame_Mix(seed + i)`; a tail of fewer than 8
/// bytes holds the low bytes of its word. The background depends on the seed and the position
/// alone, so a buffer is written once and each frame costs six words and a word a sector.
/// Every byte is determined by header and position: a changed, missing, doubled or moved byte
/// is found, and so is a sector of another frame.

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#define SIM_FRAME_MAGIC 0x454D4152464D4953u
#define SIM_FRAME_HEADER_SIZE 48u
#define SIM_FRAME_SECTOR_SIZE 512u

typedef struct simFrame_Header {
	uint64_t mMagic;
	uint64_t mNumber;
	uint64_t mTimeStamp;
	uint64_t mSeed;
	uint64_t mSize;
	uint64_t mCheck;
} simFrame_Header;

/// Results of `simFrame_Verify`.
enum {
	simFrame_GOOD = 0,
	simFrame_TOO_SHORT = 1,  ///< no room for a header
	simFrame_BAD_HEADER = 2, ///< magic or check word
	simFrame_BAD_SIZE = 3,   ///< the header tells of another size
	simFrame_BAD_STAMP = 4,  ///< a sector of another frame, or at another place
	simFrame_BAD_CONTENTS = 5
};

/// A mixing step in which every bit of the input changes half of the output bits.
static inline uint64_t simFrame_Mix(uint64_t x) {
	x = (x + 0x9E3779B97F4A7C15u) * 0xBF58476D1CE4E5B9u;
	x = (x ^ (x >> 29)) * 0x94D049BB133111EBu;
	return x ^ (x >> 32);
}

static inline uint64_t simFrame_Stamp(uint64_t seed, uint64_t number, uint64_t sector) {
	return simFrame_Mix(seed ^ (number * 0xD6E8FEB86659FD93u) ^ (sector << 40));
}

static inline uint64_t simFrame_Check(const simFrame_Header* header) {
	uint64_t check = simFrame_Mix(header->mMagic);
	check = simFrame_Mix(check ^ header->mNumber);
	check = simFrame_Mix(check ^ header->mTimeStamp);
	check = simFrame_Mix(check ^ header->mSeed);
	return simFrame_Mix(check ^ header->mSize);
}

/// Writes the background of a frame of `size` bytes.
static inline void simFrame_Fill(void* frame, uint64_t size, uint64_t seed) {
	unsigned char* bytes = (unsigned char*)frame;
	uint64_t i;
	for (i = 0; i + 8 <= size; i += 8) {
		const uint64_t word = simFrame_Mix(seed + i / 8);
		memcpy(bytes + i, &word, 8);
	}
	if (i < size) {
		const uint64_t word = simFrame_Mix(seed + i / 8);
		memcpy(bytes + i, &word, (size_t)(size - i));
	}
}

/// Makes a frame of a buffer that `simFrame_Fill` has written with this size and seed.
static inline void simFrame_Write(void* frame, uint64_t size, uint64_t seed, uint64_t number, uint64_t timeStamp) {
	unsigned char* bytes = (unsigned char*)frame;
	simFrame_Header header;
	uint64_t sector;
	header.mMagic = SIM_FRAME_MAGIC;
	header.mNumber = number;
	header.mTimeStamp = timeStamp;
	header.mSeed = seed;
	header.mSize = size;
	header.mCheck = simFrame_Check(&header);
	memcpy(bytes, &header, sizeof header);
	for (sector = 1; sector * SIM_FRAME_SECTOR_SIZE + 8 <= size; ++sector) {
		const uint64_t stamp = simFrame_Stamp(seed, number, sector);
		memcpy(bytes + sector * SIM_FRAME_SECTOR_SIZE, &stamp, 8);
	}
}

/// The bits in which the words from `begin` to `end`, both in one sector, are not what they should be.
static inline uint64_t simFrame_Difference(
    const unsigned char* bytes, const simFrame_Header* header, uint64_t begin, uint64_t end) {
	uint64_t difference = 0;
	uint64_t word;
	uint64_t i = begin;
	if (i % SIM_FRAME_SECTOR_SIZE == 0 && i + 8 <= end) {
		memcpy(&word, bytes + i, 8);
		difference |= word ^ simFrame_Stamp(header->mSeed, header->mNumber, i / SIM_FRAME_SECTOR_SIZE);
		i += 8;
	}
	for (; i + 8 <= end; i += 8) {
		memcpy(&word, bytes + i, 8);
		difference |= word ^ simFrame_Mix(header->mSeed + i / 8);
	}
	if (i < end) {
		const uint64_t last = simFrame_Mix(header->mSeed + i / 8);
		if (memcmp(bytes + i, &last, (size_t)(end - i)) != 0) difference = 1;
	}
	return difference;
}

/// Checks every byte of a frame. `header` (may be null) receives what the frame tells of
/// itself, `badOffset` (may be null) the first byte of the first wrong word.
static inline int simFrame_Verify(const void* frame, uint64_t size, simFrame_Header* header, uint64_t* badOffset) {
	const unsigned char* bytes = (const unsigned char*)frame;
	simFrame_Header own;
	uint64_t i = SIM_FRAME_HEADER_SIZE;
	if (badOffset) *badOffset = 0;
	if (size < SIM_FRAME_HEADER_SIZE) return simFrame_TOO_SHORT;
	memcpy(&own, bytes, sizeof own);
	if (header) *header = own;
	if (own.mMagic != SIM_FRAME_MAGIC || own.mCheck != simFrame_Check(&own)) return simFrame_BAD_HEADER;
	if (own.mSize != size) return simFrame_BAD_SIZE;
	while (i < size) {
		const uint64_t next = (i / SIM_FRAME_SECTOR_SIZE + 1) * SIM_FRAME_SECTOR_SIZE;
		const uint64_t end = next < size ? next : size;
		if (simFrame_Difference(bytes, &own, i, end) == 0) {
			i = end;
			continue;
		}
		while (i + 8 < end && simFrame_Difference(bytes, &own, i, i + 8) == 0) i += 8;
		if (badOffset) *badOffset = i;
		return i % SIM_FRAME_SECTOR_SIZE == 0 && i + 8 <= size ? simFrame_BAD_STAMP : simFrame_BAD_CONTENTS;
	}
	return simFrame_GOOD;
}
