#pragma once

#include "file.h"

namespace base {

/// Operation codes of the back ends. `b` is the byte count of a transfer or the origin of a
/// seek; `p` the open record, the data, or a 64-bit number (of a seek: the offset in, the
/// new position out). Transfers answer the bytes done, the others 0 or an error code;
/// size and positions that cannot be had are 0.
enum FileCode : unsigned long {
	kCodeOpen = 1,
	kCodeClose = 2,
	kCodeWrite = 3,
	kCodeRead = 4,
	kCodeSize = 5,
	kCodePosition = 6,
	kCodeSeek = 7
};

struct FileOpenRecord {
	void* handle = nullptr; // set by the back end
	const char* path = nullptr;
	void* memory = nullptr;
	unsigned long memorySize = 0; // bytes
	unsigned long disposition = 3;
	unsigned long access = 0;
	unsigned long share = 0;
};

/// Serves files of the operating system.
unsigned long systemBackEnd(
    void* handle, unsigned long code, unsigned long a, unsigned long b, unsigned long c, void* p);
/// Serves blocks of memory; its handle is a `CstMemFile`.
unsigned long memoryBackEnd(
    void* handle, unsigned long code, unsigned long a, unsigned long b, unsigned long c, void* p);

} // namespace base
