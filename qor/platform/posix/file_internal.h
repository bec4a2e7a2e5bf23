#pragma once

#include "../file.h"

#include <utility>

namespace platform {

/// Owns a descriptor.
class Descriptor {
public:
	explicit Descriptor(int handle = -1) : mHandle(handle) {}
	Descriptor(Descriptor&& other) noexcept : mHandle(std::exchange(other.mHandle, -1)) {}
	Descriptor& operator=(Descriptor&& other) noexcept {
		std::swap(mHandle, other.mHandle);
		return *this;
	}
	~Descriptor();
	int get() const { return mHandle; }
	explicit operator bool() const { return mHandle >= 0; }

private:
	int mHandle;
};

enum class Target { file, device };

/// Opens a native path with everything `FileOpen` asks for. Block devices open only as
/// `Target::device`, which neither makes nor truncates. @return none on failure, with `lastError()`.
Descriptor openDescriptor(const char* path, const FileOpen& how, Target target);

/// Bytes of a file, image or block device. @return false with `lastError()`.
bool descriptorSize(int handle, int64_t* bytes);

/// Waits until the medium has the names in a folder. @return false with `errno`.
bool syncFolder(const char* path);

/// The part of a descriptor that a file shows. A file grows; a disk or volume has an end.
struct Extent {
	int64_t start = 0;
	int64_t length = -1; // -1: as long as the file is
};

class PosixFile : public File {
public:
	/// Without a handle it is nothing until `attach`.
	PosixFile(Descriptor handle, const FileOpen& how, Extent extent, uint32_t sectorSize);
	void attach(Descriptor handle);

	uint32_t write(const void* data, uint32_t count) override;
	uint32_t read(void* buffer, uint32_t count) override;
	bool seek(int64_t offset, SeekOrigin origin, int64_t* newPosition) override;
	bool size(int64_t* bytes) override;
	bool setSize(int64_t bytes) override;
	bool flush() override;
	void takeRightsOf(const char* path) override;
	bool geometry(DiskGeometry* out) override;
	bool layout(DiskLayout* out) override;
	bool deviceNumber(DeviceNumber* out) override;

protected:
	int handle() const { return mHandle.get(); }
	uint32_t sectorSize() const { return mSectorSize; }

private:
	bool mayTransfer(uint32_t access, const void* data, uint32_t count) const;
	uint32_t roomUntilEnd(uint32_t count) const;

	Descriptor mHandle;
	uint32_t mAccess;
	bool mUnbuffered;
	bool mSeekable = true; // a pipe or terminal is not
	Extent mExtent;
	uint32_t mSectorSize;
	int64_t mPosition = 0;
};

} // namespace platform
