#pragma once

/// The few system types that public signatures name, without the system's own headers.
///
/// On Windows these are the platform's own types (the declarations below agree with
/// <windows.h> and may stand before or after it). On Linux they are plain
/// equivalents: there are no windows and no security descriptors there.

struct HWND__;
typedef HWND__* HWND;

struct _SECURITY_ATTRIBUTES;

/// A pair of numbers, `cx` and `cy`. On Windows it is complete behind <windows.h>.
#if !defined(_WIN32)
struct tagSIZE {
	int cx;
	int cy;
};
#endif
typedef struct tagSIZE SIZE;

namespace platform {

/// A kernel object that can be waited for: mutex, semaphore, event or thread.
struct WaitObject;
using WaitHandle = WaitObject*;

/// A loaded library.
struct ModuleObject;
using ModuleHandle = ModuleObject*;

class File;

} // namespace platform
