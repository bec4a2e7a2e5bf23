#include "../clock.h"

#include <windows.h>

namespace platform {

int64_t counter() {
	LARGE_INTEGER now;
	QueryPerformanceCounter(&now);
	return now.QuadPart;
}

double counterFrequency() {
	LARGE_INTEGER frequency;
	QueryPerformanceFrequency(&frequency);
	return static_cast<double>(frequency.QuadPart);
}

LocalTime localTime() {
	SYSTEMTIME now;
	GetLocalTime(&now);
	return {now.wYear, now.wMonth, now.wDayOfWeek, now.wDay, now.wHour, now.wMinute, now.wSecond, now.wMilliseconds};
}

void sleepMs(uint32_t milliseconds) {
	// The system's sleep is counted in its own ticks and may end up to one tick early, and
	// its value for "without end" is a length here: the counter decides.
	if (milliseconds == 0) {
		Sleep(0);
		return;
	}
	const int64_t end = counter() + static_cast<int64_t>(milliseconds * counterFrequency() / 1000.0);
	DWORD slice = milliseconds < INFINITE ? milliseconds : INFINITE - 1;
	for (;;) {
		Sleep(slice);
		const int64_t left = end - counter();
		if (left <= 0) return;
		slice = 1;
	}
}

void yieldThread() { SwitchToThread(); }

} // namespace platform
