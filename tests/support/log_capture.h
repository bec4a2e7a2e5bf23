#pragma once

#include "qor/core/runtime.h"

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace test_support {

/// Receives what is logged while it lives, by any thread.
class LogCapture {
public:
	LogCapture() {
		appLogSetFunc([this](const char* line) {
			const std::lock_guard guard(mMutex);
			lines.emplace_back(line);
			return true;
		});
	}
	~LogCapture() { appLogSetFunc(nullptr); }
	bool has(const std::string& text) {
		const std::lock_guard guard(mMutex);
		return std::any_of(lines.begin(), lines.end(), [&](const auto& line) { return line.find(text) != line.npos; });
	}
	void clear() {
		const std::lock_guard guard(mMutex);
		lines.clear();
	}
	std::vector<std::string> lines; // to be read while nobody logs

private:
	std::mutex mMutex;
};

} // namespace test_support
