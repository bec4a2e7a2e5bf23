#pragma once

#include <cstdint>

/// Who owns what processes share. A thread number alone comes round again; with the moment at
/// which the thread began it names one thread for good, in every process of the machine's (or
/// container's) numbering, so that what a killed process held can be told from what is held.
namespace platform::posix {

/// Bits of the thread number below those of its start.
inline constexpr int kIdentityShift = 22;

/// The calling thread's identity. @return 0, with the last error, when the system does not tell.
uint64_t ownIdentity();

/// Whether that thread has ended. In doubt it has not.
bool hasEnded(uint64_t identity);

/// The number of the system's process numbering that this process lives in: containers that
/// share files have one each. @return 0, with the last error, when the system does not tell.
uint64_t processNumbering();

} // namespace platform::posix
