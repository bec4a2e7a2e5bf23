#pragma once

#include <chrono>
#include <thread>

namespace test_support {

/// Waits for a condition, at most 20 seconds. @return whether it came true.
template <class Condition>
bool eventually(Condition condition) {
	const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
	while (!condition()) {
		if (std::chrono::steady_clock::now() > end) return false;
		std::this_thread::sleep_for(std::chrono::milliseconds(1));
	}
	return true;
}

} // namespace test_support
