#pragma once

#include <qor/plugins/sio_plugin.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <vector>

namespace plugin {

/// The frame buffers of a camera, used one after the other. A buffer starts at a multiple of
/// 4096 and has a whole number of such pages, so that it can go to a disk without a copy.
class FrameRing {
public:
	static constexpr size_t kAlignment = 4096;

	struct Buffer {
		qorSIO_VCAP_FRAME_INFO info{};
		uint64_t contents = 0; // for the owner: which constant contents are in it; 0: none
		unsigned char* data = nullptr;
	};

	FrameRing() = default;
	FrameRing(const FrameRing&) = delete;
	FrameRing& operator=(const FrameRing&) = delete;
	~FrameRing() { release(); }

	/// Replaces the buffers. @return false, without buffers, when there is no memory.
	bool allocate(int count, size_t bytes) {
		release();
		mCapacity = (bytes + kAlignment - 1) / kAlignment * kAlignment;
		try {
			mBuffers.reserve(static_cast<size_t>(count));
			while (static_cast<int>(mBuffers.size()) < count) {
				Buffer buffer;
				buffer.data = static_cast<unsigned char*>(::operator new(mCapacity, std::align_val_t(kAlignment)));
				mBuffers.push_back(buffer);
			}
		} catch (const std::bad_alloc&) {
			release();
			return false;
		}
		return true;
	}

	void release() {
		for (auto& buffer : mBuffers) ::operator delete(buffer.data, std::align_val_t(kAlignment));
		mBuffers.clear();
		mNext = 0;
		mCapacity = 0;
	}

	int count() const { return static_cast<int>(mBuffers.size()); }
	/// Bytes a buffer has room for.
	size_t capacity() const { return mCapacity; }

	/// The buffer to be filled next, with a fresh record.
	Buffer& next() {
		auto& buffer = mBuffers[mNext];
		buffer.info = {};
		buffer.info.mBufferIndex = static_cast<uint32_t>(mNext);
		buffer.info.mFrame = reinterpret_cast<uintptr_t>(buffer.data);
		mNext = (mNext + 1) % mBuffers.size();
		return buffer;
	}

private:
	std::vector<Buffer> mBuffers;
	size_t mCapacity = 0;
	size_t mNext = 0;
};

} // namespace plugin
