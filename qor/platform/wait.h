#pragma once

#include "types.h"

#include <cstdint>

/// Kernel objects for waiting, with the Windows contract on both systems.
///
/// Handles are opaque. A handle may be closed while another thread waits on it: the
/// wait in progress is not disturbed (it ends by a signal through another handle or by
/// its time-out) and that thread's next wait on the closed handle fails. Every function
/// refuses null, closed and foreign handles. A name makes an object that processes share:
/// creating an existing name of the same kind opens it and ignores the initial values. A null or empty name makes an
/// object private to the process.
///
/// A name is compared with its case and shorter than 260 characters (error 206). A "\" stands
/// only behind the prefixes "Local\", which means the same as none, and "Global\", which makes
/// another name of it; others are refused (errors 3, 123 and 161).
///
/// Who shares a name: on Windows the processes of the session; on Linux the processes of one
/// user (the effective one at the time of opening) in one process numbering, so neither other
/// users nor other containers, root included. An object lives in the shared-memory file system;
/// when that is full, or holds something of another owner under the object's name, creating
/// and opening fail. A process that is killed with a mutex leaves it abandoned; who waits
/// notices within a moment.
///
/// On Linux a child made by `fork` shares the named objects as a process of its own and may go
/// on with their handles, but owns none of the parent's mutexes; its private objects are its
/// own, with the mutexes that the forking thread held. Only that thread is there.
namespace platform {

inline constexpr uint32_t kWaitAcquired = 0;
inline constexpr uint32_t kWaitAbandoned = 0x80; // acquired; the mutex's last owner ended without releasing it
inline constexpr uint32_t kWaitTimeout = 0x102;
inline constexpr uint32_t kWaitFailed = 0xFFFFFFFF;
inline constexpr uint32_t kInfinite = 0xFFFFFFFF;
inline constexpr int kMaximumWaitObjects = 64;

/// A recursive mutex, owned by a thread. `owned`: the caller owns a newly made one.
/// @return null when the system refuses.
WaitHandle createMutex(bool owned, const char* name = nullptr, _SECURITY_ATTRIBUTES* security = nullptr);

/// A counting semaphore. @return null when `initial` < 0, `maximum` < 1, `initial` > `maximum` or the system refuses.
WaitHandle createSemaphore(int32_t initial, int32_t maximum, const char* name = nullptr);

/// An event. Auto-reset (`manualReset` false): a successful wait clears it.
WaitHandle createEvent(bool manualReset, bool signalled, const char* name = nullptr);

/// Open an existing named object of that kind. @return null when there is none.
WaitHandle openMutex(const char* name);
WaitHandle openSemaphore(const char* name);
WaitHandle openEvent(const char* name);

/// Undoes one acquisition. @return false unless the calling thread owns the mutex.
bool releaseMutex(WaitHandle mutex);

/// Adds `count` (at least 1) permits. `previous` may be null and is written only on success.
/// @return false, changing nothing, when the maximum would be passed.
bool releaseSemaphore(WaitHandle semaphore, int32_t count, int32_t* previous);

bool setEvent(WaitHandle event);
bool resetEvent(WaitHandle event);
/// Releases the threads waiting at this moment (manual-reset: all; auto-reset: at most
/// one) and leaves the event non-signalled. Without waiters nothing is kept.
bool pulseEvent(WaitHandle event);

/// Closes a handle of any kind, threads included. @return false for null or a closed handle.
bool closeHandle(WaitHandle handle);

/// Waits for one object; `timeoutMs` 0 tests, `kInfinite` waits without limit.
/// A thread's handle is signalled when the thread has ended.
uint32_t wait(WaitHandle handle, uint32_t timeoutMs);

/// Waits until all of 1 to 64 objects are signalled and acquires them.
/// @return `kWaitAcquired`, `kWaitAbandoned`, `kWaitTimeout` (nothing stays acquired) or `kWaitFailed`.
uint32_t waitAll(const WaitHandle* handles, int count, uint32_t timeoutMs);

} // namespace platform
