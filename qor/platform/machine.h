#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

struct MemoryStatus {
	uint64_t totalPhysical = 0;     // bytes
	uint64_t availablePhysical = 0; // bytes
};

MemoryStatus memoryStatus();

/// Each writes a terminated text of at most `size` - 1 characters into `out` and returns
/// its length; on failure the text is empty and the result 0.
size_t currentDirectory(char* out, size_t size);
size_t userName(char* out, size_t size);
size_t computerName(char* out, size_t size);

/// The value of an environment variable, as `currentDirectory`; empty when it is not set.
size_t environment(const char* name, char* out, size_t size);

uint32_t processId();
uint32_t threadId();

/// The calling thread's last system error, in the numbers of the Windows contract
/// (2 file not found, 3 path not found, 5 access denied, 8 out of memory, 32 sharing
/// violation, 112 disk full, 126 module not found ...). Linux error numbers are mapped;
/// one without a twin is returned as it is plus 0x20000000.
uint32_t lastError();
void setLastError(uint32_t error);

} // namespace platform
