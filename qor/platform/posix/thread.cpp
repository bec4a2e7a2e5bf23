#include "../thread.h"

#include "../faults.h"
#include "../machine.h"
#include "errors.h"
#include "thread_state_internal.h"
#include "wait_named_internal.h"

#include <algorithm>
#include <cstdlib>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace platform {

namespace posix {

constinit thread_local ThreadState tThread __attribute__((tls_model("initial-exec")));

namespace {

pthread_key_t gThreadKey;
pthread_once_t gThreadKeyOnce = PTHREAD_ONCE_INIT;

/// Runs at a thread's end, after the destructors of its thread-local objects: whoever sees
/// the thread's handle signalled finds its mutexes abandoned and its destructors done.
void threadEnds(void*) {
	ThreadState& state = threadState();
	if (state.held > 0) abandonMutexes(state.id);
	abandonNamedMutexes();
	Slot* self = state.self;
	// A late destructor of another library that comes back registers the thread again.
	state.id = 0;
	state.identity = 0;
	state.held = 0;
	state.self = nullptr;
	if (self) threadEnded(*self);
}

void beforeFork() {
	lockNamedForFork();
	lockSlots();
}

void afterForkInParent() {
	unlockSlots();
	unlockNamedInParent();
}

/// The one thread of the child has a number of its own, and keeps the private mutexes that it
/// held; those of threads that are not here stay owned for good.
void afterForkInChild() {
	unlockSlots();
	unlockNamedInChild();
	ThreadState& state = threadState();
	if (state.id == 0) return;
	const uint32_t former = state.id;
	state.id = static_cast<uint32_t>(syscall(SYS_gettid));
	state.identity = 0;
	if (state.held > 0) passMutexes(former, state.id);
}

void prepare() {
	pthread_key_create(&gThreadKey, threadEnds);
	pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
}

} // namespace

void registerThread() {
	pthread_once(&gThreadKeyOnce, prepare);
	ThreadState& state = threadState();
	state.id = static_cast<uint32_t>(syscall(SYS_gettid));
	pthread_setspecific(gThreadKey, &state);
}

} // namespace posix

namespace {

using namespace posix;

constexpr uint32_t kOutOfMemory = 8;
constexpr uint32_t kInvalidParameter = 87;
constexpr int kHighestPriority = 15;

/// On the starting thread's stack until `taken` is set.
struct Start {
	ThreadFunction function;
	void* argument;
	int priority;
	uint64_t affinity;
	Slot* self;
	uint32_t id = 0;
	std::atomic<uint32_t> taken{0};
};

/// Priorities are niceness here: a real-time class for 15 would let one spinning worker
/// take a processor from everybody else. Five steps a level leave both ends for +-15.
int nicenessOf(int priority) {
	if (priority >= kHighestPriority) return -20;
	if (priority <= -kHighestPriority) return 19;
	return std::clamp(priority * -5, -15, 15);
}

void applyPriority(uint32_t thread, int priority) {
	// Refused without the privilege to go up; the priority given is remembered either way.
	if (priority != 0) setpriority(PRIO_PROCESS, thread, nicenessOf(priority));
}

void applyAffinity(uint64_t mask) {
	if (mask == 0) return;
	cpu_set_t processors;
	CPU_ZERO(&processors);
	for (unsigned i = 0; i < 64; ++i) {
		if (mask >> i & 1) CPU_SET(i, &processors);
	}
	sched_setaffinity(0, sizeof(processors), &processors); // refused without any existing processor
}

void* threadMain(void* parameter) {
	Start& start = *static_cast<Start*>(parameter);
	const ThreadFunction function = start.function;
	void* argument = start.argument;
	ThreadState& state = currentThread();
	state.self = start.self;
	state.priority = start.priority;
	state.started = true;
	applyPriority(state.id, start.priority);
	applyAffinity(start.affinity);
	start.id = state.id;
	const std::atomic<uint32_t>* taken = &start.taken;
	start.taken.store(1, std::memory_order_release); // `start` may be gone from here on
	futexWake(taken, 1);
	function(argument);
	return nullptr;
}

bool runDetached(Start& start) {
	pthread_attr_t attributes;
	if (pthread_attr_init(&attributes) != 0) return false;
	pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
	pthread_t thread;
	const bool running = pthread_create(&thread, &attributes, threadMain, &start) == 0;
	pthread_attr_destroy(&attributes);
	return running;
}

} // namespace

WaitHandle startThread(ThreadFunction function, void* argument, int priority, uint64_t affinity, uint32_t* id) {
	if (injectFault(FaultPoint::thread)) {
		setLastError(kOutOfMemory);
		return nullptr;
	}
	if (!function) {
		setLastError(kInvalidParameter);
		return nullptr;
	}
	const WaitHandle handle = makeSlot(Kind::thread, 0);
	if (!handle) return nullptr;
	Start start{function, argument, priority, affinity, findSlot(handle).slot};
	if (!runDetached(start)) {
		threadEnded(*start.self);
		closeSlot(handle);
		setLastError(kOutOfMemory);
		return nullptr;
	}
	// The priority is applied and the number known when this returns.
	while (start.taken.load(std::memory_order_acquire) == 0) futexWait(start.taken, 0, Deadline::never());
	if (id) *id = start.id;
	return handle;
}

int currentThreadPriority() {
	const ThreadState& state = currentThread();
	if (state.started) return state.priority;
	const int niceness = getpriority(PRIO_PROCESS, state.id);
	if (niceness == -20) return kHighestPriority;
	return niceness == 19 ? -kHighestPriority : -niceness / 5;
}

uint64_t currentThreadAffinity() {
	cpu_set_t processors;
	CPU_ZERO(&processors);
	sched_getaffinity(0, sizeof(processors), &processors);
	uint64_t mask = 0;
	for (unsigned i = 0; i < 64; ++i) {
		if (CPU_ISSET(i, &processors)) mask |= uint64_t{1} << i;
	}
	return mask;
}

} // namespace platform
