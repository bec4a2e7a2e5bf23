#include "../wait.h"

#include "../faults.h"

#include <cstring>
#include <windows.h>

namespace platform {

namespace {

HANDLE native(WaitHandle handle) { return reinterpret_cast<HANDLE>(handle); }

WaitHandle opaque(HANDLE handle) { return reinterpret_cast<WaitHandle>(handle); }

/// An empty name makes a private object, as a null one does.
const char* nameOrNull(const char* name) { return name && *name ? name : nullptr; }

bool refuse(const char* name) {
	// The system itself draws the line at 260 or 261, by the kind of object.
	const bool tooLong = name && std::strlen(name) >= MAX_PATH;
	if (!tooLong && !injectFault(FaultPoint::waitObject)) return false;
	SetLastError(tooLong ? ERROR_FILENAME_EXCED_RANGE : ERROR_NOT_ENOUGH_MEMORY);
	return true;
}

/// The system's functions take the pseudo handles (-1 the process, -2 the thread) and a
/// null handle by their own rules; here only what this seam made is a handle.
bool isHandle(WaitHandle handle) {
	if (reinterpret_cast<intptr_t>(handle) > 0) return true;
	SetLastError(ERROR_INVALID_HANDLE);
	return false;
}

bool isName(const char* name) {
	if (nameOrNull(name)) return true;
	SetLastError(ERROR_INVALID_PARAMETER);
	return false;
}

uint32_t waitResult(DWORD result, DWORD count) {
	if (result < WAIT_OBJECT_0 + count) return kWaitAcquired;
	if (result >= WAIT_ABANDONED_0 && result < WAIT_ABANDONED_0 + count) return kWaitAbandoned;
	return result == WAIT_TIMEOUT ? kWaitTimeout : kWaitFailed;
}

} // namespace

WaitHandle createMutex(bool owned, const char* name, _SECURITY_ATTRIBUTES* security) {
	if (refuse(name)) return nullptr;
	return opaque(CreateMutexA(security, owned, nameOrNull(name)));
}

WaitHandle createSemaphore(int32_t initial, int32_t maximum, const char* name) {
	if (refuse(name)) return nullptr;
	return opaque(CreateSemaphoreA(nullptr, initial, maximum, nameOrNull(name)));
}

WaitHandle createEvent(bool manualReset, bool signalled, const char* name) {
	if (refuse(name)) return nullptr;
	return opaque(CreateEventA(nullptr, manualReset, signalled, nameOrNull(name)));
}

WaitHandle openMutex(const char* name) {
	if (refuse(name) || !isName(name)) return nullptr;
	return opaque(OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name));
}

WaitHandle openSemaphore(const char* name) {
	if (refuse(name) || !isName(name)) return nullptr;
	return opaque(OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, name));
}

WaitHandle openEvent(const char* name) {
	if (refuse(name) || !isName(name)) return nullptr;
	return opaque(OpenEventA(EVENT_ALL_ACCESS, FALSE, name));
}

bool releaseMutex(WaitHandle mutex) { return isHandle(mutex) && ReleaseMutex(native(mutex)); }

bool releaseSemaphore(WaitHandle semaphore, int32_t count, int32_t* previous) {
	if (!isHandle(semaphore)) return false;
	if (count < 1) { // not every Windows refuses 0
		SetLastError(ERROR_INVALID_PARAMETER);
		return false;
	}
	LONG before = 0;
	if (!ReleaseSemaphore(native(semaphore), count, &before)) return false;
	if (previous) *previous = static_cast<int32_t>(before);
	return true;
}

bool setEvent(WaitHandle event) { return isHandle(event) && SetEvent(native(event)); }

bool resetEvent(WaitHandle event) { return isHandle(event) && ResetEvent(native(event)); }

bool pulseEvent(WaitHandle event) { return isHandle(event) && PulseEvent(native(event)); }

bool closeHandle(WaitHandle handle) { return isHandle(handle) && CloseHandle(native(handle)); }

uint32_t wait(WaitHandle handle, uint32_t timeoutMs) {
	if (!isHandle(handle)) return kWaitFailed;
	return waitResult(WaitForSingleObject(native(handle), timeoutMs), 1);
}

uint32_t waitAll(const WaitHandle* handles, int count, uint32_t timeoutMs) {
	if (!handles || count < 1 || count > kMaximumWaitObjects) {
		SetLastError(ERROR_INVALID_PARAMETER);
		return kWaitFailed;
	}
	HANDLE natives[kMaximumWaitObjects];
	for (int i = 0; i < count; ++i) {
		if (!isHandle(handles[i])) return kWaitFailed;
		natives[i] = native(handles[i]);
	}
	const DWORD number = static_cast<DWORD>(count);
	return waitResult(WaitForMultipleObjects(number, natives, TRUE, timeoutMs), number);
}

} // namespace platform
