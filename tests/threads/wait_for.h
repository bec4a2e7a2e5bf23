#pragma once

#include <chrono>
#include <thread>

/// Waits for a condition, at most ten seconds. @return whether it came true.
template <class Condition>
bool waitFor(Condition condition) {
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
	while (!condition()) {
		if (std::chrono::steady_clock::now() > end) return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(1));
	}
	return true;
}
