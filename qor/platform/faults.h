#pragma once

/// Lets a test fail the n-th call of a kind. Files and disks have a replaceable
/// `FileSystem` instead (file.h). Unarmed, a check costs one relaxed load.
namespace platform {

enum class FaultPoint { memory, thread, waitObject };

/// The `nth` call from now (1: the next one) fails, and only that one; 0 disarms.
/// Counts the calls of all threads.
void armFault(FaultPoint point, int nth);

/// Calls of that kind since the last `armFault` of it (counted only while armed).
int faultCalls(FaultPoint point);

/// Asked by the seam before the real call. @return true: fail now.
bool injectFault(FaultPoint point);

} // namespace platform
