#pragma once

#include "../platform/wait.h"

#include <utility>

namespace base {

/// Owns one handle of the seam and closes it.
class OwnedHandle {
public:
	OwnedHandle() = default;
	explicit OwnedHandle(platform::WaitHandle handle) : mHandle(handle) {}
	OwnedHandle(OwnedHandle&& other) noexcept : mHandle(other.release()) {}
	OwnedHandle& operator=(OwnedHandle&& other) noexcept {
		if (this != &other) reset(other.release());
		return *this;
	}
	OwnedHandle(const OwnedHandle&) = delete;
	OwnedHandle& operator=(const OwnedHandle&) = delete;
	~OwnedHandle() { reset(); }

	platform::WaitHandle get() const { return mHandle; }
	explicit operator bool() const { return mHandle != nullptr; }
	platform::WaitHandle release() { return std::exchange(mHandle, nullptr); }
	void reset(platform::WaitHandle handle = nullptr) {
		if (mHandle) platform::closeHandle(mHandle);
		mHandle = handle;
	}

private:
	platform::WaitHandle mHandle = nullptr;
};

/// Holds a mutex of the seam for a scope. With a time limit the scope is entered without
/// the mutex when the wait times out, as the callers with bounded waits want it.
class MutexGuard {
public:
	explicit MutexGuard(platform::WaitHandle mutex, unsigned timeoutMs = platform::kInfinite) : mMutex(mutex) {
		const auto result = platform::wait(mutex, timeoutMs);
		mOwns = result == platform::kWaitAcquired || result == platform::kWaitAbandoned;
	}
	MutexGuard(const MutexGuard&) = delete;
	MutexGuard& operator=(const MutexGuard&) = delete;
	~MutexGuard() { unlock(); }

	bool owns() const { return mOwns; }
	void unlock() {
		if (mOwns) platform::releaseMutex(mMutex);
		mOwns = false;
	}

private:
	platform::WaitHandle mMutex;
	bool mOwns;
};

} // namespace base
