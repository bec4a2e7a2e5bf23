#pragma once

#include <fcntl.h>
#include <string>
#include <unistd.h>

/// A file as a program of its own would open it to record: unbuffered and write-through.
class BareFile {
public:
	explicit BareFile(const std::string& path) : mFile(open(path.c_str(), O_RDWR | O_DIRECT | O_DSYNC)) {}
	~BareFile() { close(mFile); }
	BareFile(const BareFile&) = delete;
	BareFile& operator=(const BareFile&) = delete;

	bool write(const void* data, long long bytes, long long position) {
		return pwrite(mFile, data, static_cast<size_t>(bytes), position) == bytes;
	}

private:
	int mFile;
};
