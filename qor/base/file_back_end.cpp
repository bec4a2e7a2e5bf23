#include "../platform/file.h"

#include "file_back_end_internal.h"
#include "mem_file.h"

#include <algorithm>
#include <new>

namespace base {
namespace {

int64_t& number(void* p) { return *static_cast<int64_t*>(p); }

/// The handle of a system file. The memory back end's is a `CstMemFile`.
struct SystemFile {
	std::unique_ptr<platform::File> file;
};

uint32_t transferCount(unsigned long count) { return static_cast<uint32_t>(std::min<uint64_t>(count, UINT32_MAX)); }

unsigned long openSystemFile(FileOpenRecord& record) {
	if (!record.path || !*record.path || record.disposition < 1 || record.disposition > 5) return CstFile::kFileNotOpen;
	auto handle = std::unique_ptr<SystemFile>(new (std::nothrow) SystemFile);
	if (!handle) return CstFile::kFileNoMemory;
	platform::FileOpen how;
	how.disposition = static_cast<platform::Disposition>(record.disposition);
	how.access = static_cast<uint32_t>(record.access);
	how.share = static_cast<uint32_t>(record.share);
	handle->file = platform::fileSystem().open(record.path, how);
	if (!handle->file) return CstFile::kFileNotOpen;
	record.handle = handle.release();
	return 0;
}

void seekSystemFile(platform::File& file, unsigned long origin, int64_t& position) {
	int64_t moved = 0;
	const bool done = origin <= 2 && file.seek(position, static_cast<platform::SeekOrigin>(origin), &moved);
	position = done ? moved : 0;
}

unsigned long openMemory(FileOpenRecord& record) {
	if (!record.memory) return CstFile::kFileNoHandle;
	auto memory = std::unique_ptr<CstMemFile>(new (std::nothrow) CstMemFile);
	if (!memory) return CstFile::kFileNoMemory;
	if (memory->Open(record.memory, record.memorySize) != 0) return CstFile::kFileNotOpen;
	record.handle = memory.release();
	return 0;
}

/// The position of a memory file with its sign: a seek from the start may go below 0.
int64_t signedPosition(unsigned long position) { return static_cast<int32_t>(static_cast<uint32_t>(position)); }

} // namespace

unsigned long systemBackEnd(void* handle, unsigned long code, unsigned long, unsigned long b, unsigned long, void* p) {
	if (code < kCodeOpen || code > kCodeSeek) return CstFile::kFileUnknownCode;
	if (code == kCodeOpen) return openSystemFile(*static_cast<FileOpenRecord*>(p));
	auto* system = static_cast<SystemFile*>(handle);
	if (!system) return CstFile::kFileNoHandle;
	auto& file = *system->file;
	switch (code) {
	case kCodeClose: delete system; return 0;
	case kCodeWrite: return p ? file.write(p, transferCount(b)) : 0;
	case kCodeRead: return p ? file.read(p, transferCount(b)) : 0;
	case kCodeSize:
		if (!file.size(&number(p))) number(p) = 0;
		return 0;
	case kCodePosition:
		number(p) = 0;
		seekSystemFile(file, 1, number(p));
		return 0;
	default: seekSystemFile(file, b, number(p)); return 0;
	}
}

unsigned long memoryBackEnd(void* handle, unsigned long code, unsigned long, unsigned long b, unsigned long, void* p) {
	if (code < kCodeOpen || code > kCodeSeek) return CstFile::kFileUnknownCode;
	if (code == kCodeOpen) return openMemory(*static_cast<FileOpenRecord*>(p));
	auto* memory = static_cast<CstMemFile*>(handle);
	if (!memory) return CstFile::kFileNoHandle;
	switch (code) {
	case kCodeClose: delete memory; return 0;
	case kCodeWrite: return memory->Write(p, b);
	case kCodeRead: return memory->Read(p, b);
	case kCodeSize: number(p) = static_cast<int64_t>(memory->GetSize()); return 0;
	case kCodePosition: number(p) = signedPosition(memory->GetCurrentPos()); return 0;
	default: {
		const auto offset = static_cast<long>(std::clamp<int64_t>(number(p), INT32_MIN, INT32_MAX));
		number(p) = signedPosition(memory->Seek(offset, b));
		return 0;
	}
	}
}

} // namespace base
