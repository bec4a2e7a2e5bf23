#pragma once

/// What `Lock` of a mutex and `Wait` of a semaphore answer, and their limits in milliseconds.
struct CstWaitConstants {
	static constexpr int kAcquired = 0;
	static constexpr int kAbandoned = 0x80; ///< acquired from a thread that ended without releasing it
	static constexpr int kTimeout = 0x102;
	static constexpr int kFailed = -1; ///< 0xFFFFFFFF

	static constexpr int kForever = -1; ///< a limit: none
};
