#include <windows.h>

#include "../window.h"

namespace platform {

bool windowExists(HWND window) { return IsWindow(window) != FALSE; }

bool postToWindow(HWND window, uint32_t message, void* first, void* second) {
	if (!window) return false; // null would post to the calling thread's own queue
	return PostMessageA(window, message, reinterpret_cast<WPARAM>(first), reinterpret_cast<LPARAM>(second)) != FALSE;
}

void storeSize(SIZE* out, int cx, int cy) {
	out->cx = cx;
	out->cy = cy;
}

} // namespace platform
