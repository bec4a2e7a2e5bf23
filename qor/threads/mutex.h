#pragma once

#include "../platform/export.h"
#include "../platform/types.h"
#include "wait_result.h"

/// A recursive mutex of the operating system, owned by a thread.
///
/// Any thread may call `Lock` and `Unlock`. A mutex that the system refused to make answers
/// every `Lock` with `kFailed`.
class QOR_API CstMutex : public CstWaitConstants {
public:
	/// Unnamed and not owned.
	CstMutex();

	/// @param security     as the system takes it; null for the default. Ignored on Linux.
	/// @param initialOwner not 0: the calling thread owns a newly made mutex.
	/// @param name         shared between processes; null or empty: private to this one. An
	///                     existing mutex of that name is opened and is not owned.
	CstMutex(_SECURITY_ATTRIBUTES* security, int initialOwner, const char* name);

	~CstMutex();
	CstMutex(const CstMutex&) = delete;
	CstMutex& operator=(const CstMutex&) = delete;

	/// @param timeoutMs milliseconds; 0xFFFFFFFF waits without limit.
	/// @return the raw wait result: 0 acquired, 0x80 acquired from a thread that ended
	///         without releasing it, 0x102 time-out, -1 failed (see `CstWaitConstants`).
	int Lock(unsigned long timeoutMs);

	/// Undoes one `Lock` of the calling thread; of any other thread it does nothing.
	/// @return always 0.
	int Unlock();

private:
	platform::WaitHandle mHandle;
};
