#pragma once

#include <cstdint>

namespace platform::posix {

struct Slot;

/// What the seam keeps for each thread that calls it. Initial-exec: the hot paths read it
/// at a fixed offset instead of through a call; it is small enough for a library that is
/// loaded late.
struct ThreadState {
	uint32_t id = 0;       // the system's number; 0 until the first call of `currentThread`
	uint32_t held = 0;     // private mutexes acquired and not released: 0 saves the search at the end
	uint32_t error = 0;    // lastError
	int priority = 0;      // as given to startThread
	uint64_t identity = 0; // see thread_identity_internal.h; 0 until it was asked for
	Slot* self = nullptr;  // the thread's own object when startThread made it
	bool started = false;  // by startThread
};

extern constinit thread_local ThreadState tThread __attribute__((tls_model("initial-exec")));

/// Reads the number and arranges that the end of this thread is noticed.
void registerThread();

/// The empty assembler keeps a sanitizer's null check off the addition that forms the
/// address: linking an executable turns it into one that leaves the flags alone, and the
/// check would read stale ones.
inline ThreadState& threadState() {
	ThreadState* state = &tThread;
	asm("" : "+r"(state));
	return *state;
}

inline ThreadState& currentThread() {
	ThreadState& state = threadState();
	if (state.id == 0) registerThread();
	return state;
}

} // namespace platform::posix
