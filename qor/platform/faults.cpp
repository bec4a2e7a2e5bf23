#include "faults.h"

#include <atomic>

namespace platform {

namespace {

// `nth` is 0 while unarmed, so that the usual check is one relaxed load.
struct Fault {
	std::atomic<int> nth{0};
	std::atomic<int> calls{0};
};

Fault gFaults[3];

Fault& faultOf(FaultPoint point) { return gFaults[static_cast<int>(point)]; }

} // namespace

void armFault(FaultPoint point, int nth) {
	Fault& fault = faultOf(point);
	fault.nth.store(0, std::memory_order_relaxed);
	fault.calls.store(0, std::memory_order_relaxed);
	fault.nth.store(nth, std::memory_order_release);
}

int faultCalls(FaultPoint point) { return faultOf(point).calls.load(std::memory_order_relaxed); }

bool injectFault(FaultPoint point) {
	Fault& fault = faultOf(point);
	if (fault.nth.load(std::memory_order_relaxed) == 0) return false;
	// Counting goes on after the failure, so that a test learns how many calls there were.
	const int nth = fault.nth.load(std::memory_order_acquire);
	return fault.calls.fetch_add(1, std::memory_order_relaxed) + 1 == nth;
}

} // namespace platform
