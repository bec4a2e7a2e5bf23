#pragma once

#include <string>
#include <windows.h>

/// A file as a program of its own would open it to record: unbuffered and write-through.
class BareFile {
public:
	explicit BareFile(const std::string& path)
	    : mFile(CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
	          OPEN_EXISTING, FILE_FLAG_NO_BUFFERING | FILE_FLAG_WRITE_THROUGH, nullptr)) {}
	~BareFile() { CloseHandle(mFile); }
	BareFile(const BareFile&) = delete;
	BareFile& operator=(const BareFile&) = delete;

	bool write(const void* data, long long bytes, long long position) {
		OVERLAPPED where = {};
		where.Offset = static_cast<DWORD>(position);
		where.OffsetHigh = static_cast<DWORD>(position >> 32);
		DWORD written = 0;
		return WriteFile(mFile, data, static_cast<DWORD>(bytes), &written, &where) != 0 && written == bytes;
	}

private:
	HANDLE mFile;
};
