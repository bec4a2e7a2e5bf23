#include "../window.h"

// There are no windows here: a registered one counts as no longer existing.
namespace platform {

bool windowExists(HWND) { return false; }

bool postToWindow(HWND, uint32_t, void*, void*) { return false; }

void storeSize(SIZE* out, int cx, int cy) {
	out->cx = cx;
	out->cy = cy;
}

} // namespace platform
