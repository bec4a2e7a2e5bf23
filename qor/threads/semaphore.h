#pragma once

#include "../platform/export.h"
#include "../platform/types.h"
#include "wait_result.h"

/// A counting semaphore of the operating system.
///
/// Any thread may call `Release` and `Wait`; nothing may run beside `Create` or `Destroy`.
class QOR_API CstSemaphore : public CstWaitConstants {
public:
	CstSemaphore();
	~CstSemaphore();
	CstSemaphore(const CstSemaphore&) = delete;
	CstSemaphore& operator=(const CstSemaphore&) = delete;

	/// Makes the semaphore, or opens the existing one of that name; a handle held is closed first.
	/// @param name shared between processes; null or empty: private to this one.
	/// @return 0; 0x10000000 when the system refuses, which is also logged. There is no handle then.
	int Create(int initialCount, int maximumCount, const char* name);

	/// Adds `count`. `previousCount` may be null; it is untouched on failure.
	/// @return 0; 0x10000000, with nothing added, without a handle or when the maximum would be passed.
	int Release(int count, long* previousCount);

	/// @param timeoutMs milliseconds; -1 waits without limit.
	/// @return the raw wait result: 0 acquired, 0x102 time-out, -1 failed (see `CstWaitConstants`).
	int Wait(int timeoutMs);

	/// Closes the handle.
	void Destroy();

protected:
	platform::WaitHandle mHandle = nullptr; // null until Create succeeds
};
