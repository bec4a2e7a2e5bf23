#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

/// The information record in a module's file, for those who read it and those who write it
/// (docs/formats/module_record.md). Little-endian, like the machines the library runs on.
namespace plugins {

struct ModuleRecordHead {
	uint32_t magic;
	uint32_t offset; // of the record itself: a copy of these bytes elsewhere is no record
	uint32_t informationSize;
	uint32_t extraLength;
};
static_assert(sizeof(ModuleRecordHead) == 16 && offsetof(ModuleRecordHead, extraLength) == 12);

inline constexpr uint32_t kModuleRecordMagic = 0x78AAB1C0;
inline constexpr uint32_t kModuleInformationSize = 1024;
inline constexpr size_t kModuleRecordSize = sizeof(ModuleRecordHead) + kModuleInformationSize;
/// A record begins more than this many bytes before the end of its file.
inline constexpr size_t kModuleRecordTail = 1052;
inline constexpr size_t kMaximumModuleSize = 0x2000000; // 32 MiB
/// The bytes that make a record: magic, offset and size.
inline constexpr size_t kModuleRecordKey = offsetof(ModuleRecordHead, extraLength);

/// The bytes at the start of a file of `size` bytes that can hold the key of a record.
inline constexpr size_t moduleRecordReach(size_t size) {
	return size > kModuleRecordTail ? size - kModuleRecordTail + kModuleRecordKey - 1 : 0;
}

inline bool isModuleRecord(const unsigned char* bytes, uint32_t offset) {
	uint32_t key[3];
	std::memcpy(key, bytes, sizeof key);
	return key[0] == kModuleRecordMagic && key[1] == offset && key[2] == kModuleInformationSize;
}

inline constexpr size_t kModuleScanBlock = 256;

/// Whether one of the next `kModuleScanBlock` positions may begin a record: has the first two
/// bytes of the magic. Reads one byte more. Without a branch, so that compilers take sixteen
/// positions and more at a time; one block of random bytes in 256 passes.
inline bool mayBeginModuleRecord(const unsigned char* bytes) {
	constexpr unsigned char first = kModuleRecordMagic & 0xFF, second = (kModuleRecordMagic >> 8) & 0xFF;
	unsigned char any = 0;
	for (size_t i = 0; i < kModuleScanBlock; ++i)
		any |= static_cast<unsigned char>(((bytes[i] ^ first) | (bytes[i + 1] ^ second)) == 0);
	return any != 0;
}

/// @return the index of the first record whose key is among `bytes`, which stand at `offset`
/// of the file; `size` when there is none.
inline size_t findModuleRecord(const unsigned char* bytes, size_t size, size_t offset) {
	size_t at = 0;
	while (at + kModuleRecordKey <= size) {
		const bool wholeBlock = size - at > kModuleScanBlock + kModuleRecordKey;
		if (wholeBlock && !mayBeginModuleRecord(bytes + at)) {
			at += kModuleScanBlock;
			continue;
		}
		const size_t end = wholeBlock ? at + kModuleScanBlock : size - kModuleRecordKey + 1;
		for (; at < end; ++at)
			if (isModuleRecord(bytes + at, static_cast<uint32_t>(offset + at))) return at;
	}
	return size;
}

} // namespace plugins
