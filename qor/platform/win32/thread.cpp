#include "../thread.h"

#include "../faults.h"

#include <new>
#include <windows.h>

namespace platform {

namespace {

constexpr int kPriorityAsReported = 0x7FFFFFFF;

struct Start {
	ThreadFunction function;
	void* argument;
	int refusedPriority; // the priority given when the system took another, or kPriorityAsReported
};

thread_local int tRefusedPriority = kPriorityAsReported;

DWORD WINAPI threadMain(void* parameter) {
	const Start start = *static_cast<Start*>(parameter);
	delete static_cast<Start*>(parameter);
	tRefusedPriority = start.refusedPriority;
	return start.function(start.argument);
}

uint64_t processorsOfProcess() {
	DWORD_PTR process = 0, system = 0;
	return GetProcessAffinityMask(GetCurrentProcess(), &process, &system) ? process : 0;
}

} // namespace

WaitHandle startThread(ThreadFunction function, void* argument, int priority, uint64_t affinity, uint32_t* id) {
	if (injectFault(FaultPoint::thread)) {
		SetLastError(ERROR_NOT_ENOUGH_MEMORY);
		return nullptr;
	}
	if (!function) {
		SetLastError(ERROR_INVALID_PARAMETER);
		return nullptr;
	}
	Start* start = new (std::nothrow) Start{function, argument, kPriorityAsReported};
	if (!start) {
		SetLastError(ERROR_NOT_ENOUGH_MEMORY);
		return nullptr;
	}
	DWORD number = 0;
	HANDLE thread = CreateThread(nullptr, 0, threadMain, start, CREATE_SUSPENDED, &number);
	if (!thread) {
		delete start;
		return nullptr;
	}
	// Only -15, -2 to 2 and 15 exist for usual processes; the others are refused.
	if (!SetThreadPriority(thread, priority)) start->refusedPriority = priority;
	// The system refuses a mask with a bit too many; the processors that exist are taken.
	const uint64_t allowed = affinity & processorsOfProcess();
	if (allowed) SetThreadAffinityMask(thread, static_cast<DWORD_PTR>(allowed));
	if (id) *id = number;
	ResumeThread(thread);
	return reinterpret_cast<WaitHandle>(thread);
}

int currentThreadPriority() {
	return tRefusedPriority != kPriorityAsReported ? tRefusedPriority : GetThreadPriority(GetCurrentThread());
}

uint64_t currentThreadAffinity() {
	GROUP_AFFINITY affinity{};
	return GetThreadGroupAffinity(GetCurrentThread(), &affinity) ? affinity.Mask : processorsOfProcess();
}

} // namespace platform
