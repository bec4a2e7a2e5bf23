#include "mutex.h"

#include "../base/status.h"
#include "../platform/wait.h"

CstMutex::CstMutex() : mHandle(platform::createMutex(false)) {}

CstMutex::CstMutex(_SECURITY_ATTRIBUTES* security, int initialOwner, const char* name)
    : mHandle(platform::createMutex(initialOwner != 0, name, security)) {}

CstMutex::~CstMutex() { platform::closeHandle(mHandle); }

int CstMutex::Lock(unsigned long timeoutMs) {
	return static_cast<int>(platform::wait(mHandle, static_cast<uint32_t>(timeoutMs)));
}

int CstMutex::Unlock() {
	platform::releaseMutex(mHandle);
	return kQorSuccess;
}
