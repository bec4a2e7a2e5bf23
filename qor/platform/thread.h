#pragma once

#include "types.h"

#include <cstdint>

namespace platform {

using ThreadFunction = unsigned (*)(void* argument);

/// Starts a thread.
///
/// @param priority  -15 (idle) to 15 (time critical), 0 normal, applied before the function
///                  runs as far as the system allows; a refused priority does not fail the start.
/// @param affinity  bit n allows processor n; 0 leaves the choice to the system. A mask
///                  without any processor of this machine is ignored.
/// @param id        receives the thread's number; may be null.
/// @return a wait handle that is signalled when the thread ends, to be closed by the
///         caller (closing does not end the thread); null when the system refuses.
WaitHandle startThread(
    ThreadFunction function, void* argument, int priority = 0, uint64_t affinity = 0, uint32_t* id = nullptr);

/// The calling thread's priority and affinity as the system reports them. On a system that
/// refused the priority given, the priority is the one given.
int currentThreadPriority();
uint64_t currentThreadAffinity();

} // namespace platform
