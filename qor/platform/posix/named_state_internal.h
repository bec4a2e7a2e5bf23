#pragma once

#include "named_segment_internal.h"
#include "wait_slots_internal.h"

/// What can be done with the memory that processes share. The `word` of each kind:
///
///   mutex      0 free, 1 free and abandoned, otherwise the owner's identity
///   semaphore  the permits
///   event      pulses (32 bits) | sleepers (15) | grants (15) | signalled (1)
///
/// Whoever waits looks again now and then: a process that is killed wakes nobody, and may have
/// been about to.
namespace platform::posix {

inline constexpr uint64_t kFreeMutex = 0;
inline constexpr uint64_t kAbandonedMutex = 1;

/// @return `kWaitAcquired`, `kWaitAbandoned`, or `kWaitTimeout` while another thread owns it.
uint32_t waitShared(SharedState& mutex, uint64_t self, const Deadline& deadline);
/// To be called by the owner alone.
void releaseShared(SharedState& mutex, bool abandoned);

/// What does not change of a semaphore or event, as it was on opening.
struct SharedTraits {
	Kind kind;
	int32_t maximum;
	bool manualReset;
};

uint32_t waitShared(SharedState& state, const SharedTraits& traits, const Deadline& deadline);
/// @return the permits before; -1, changing nothing, when the maximum would be passed.
int32_t releaseShared(SharedState& semaphore, int32_t count, int32_t maximum);
void setShared(SharedState& event, bool manualReset);
void resetShared(SharedState& event);
void pulseShared(SharedState& event);

constexpr uint64_t sharedEventWord(bool signalled) { return signalled ? 1 : 0; }

} // namespace platform::posix
