#include "semaphore.h"

#include "../base/status.h"
#include "../core/runtime.h"
#include "../platform/wait.h"

CstSemaphore::CstSemaphore() = default;

CstSemaphore::~CstSemaphore() { Destroy(); }

int CstSemaphore::Create(int initialCount, int maximumCount, const char* name) {
	Destroy();
	mHandle = platform::createSemaphore(initialCount, maximumCount, name);
	if (mHandle) return kQorSuccess;
	// The text names the worker class for both: it is the main user, and hosts look for this line.
	appmsg("ERROR> CstxSemaphore::Create() HANDLE=%p", static_cast<void*>(mHandle));
	return kQorFailure;
}

int CstSemaphore::Release(int count, long* previousCount) {
	int32_t previous = 0;
	if (!mHandle || !platform::releaseSemaphore(mHandle, count, &previous)) return kQorFailure;
	if (previousCount) *previousCount = previous;
	return kQorSuccess;
}

int CstSemaphore::Wait(int timeoutMs) {
	return static_cast<int>(platform::wait(mHandle, static_cast<uint32_t>(timeoutMs)));
}

void CstSemaphore::Destroy() {
	if (mHandle) platform::closeHandle(mHandle);
	mHandle = nullptr;
}
