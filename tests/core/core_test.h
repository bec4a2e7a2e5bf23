#pragma once

#include "qor/base/mem_file.h"
#include "qor/core/runtime.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace core_test {

using namespace std::string_literals;

/// Receives what is logged while it lives. It starts the runtime (without a log file), so that
/// every line begins with a time column of 13 characters.
class LogLines {
public:
	LogLines() {
		appRawInit("", 0);
		appLogSetFunc([this](const char* line) { return lines.emplace_back(line), true; });
	}
	~LogLines() { appLogSetFunc(nullptr); }
	/// The lines since the last call without their time columns, each ended by a line feed.
	std::string take() {
		std::string all;
		for (const auto& line : std::exchange(lines, {})) all += line.substr(std::min<size_t>(13, line.size())) + "\n";
		return all;
	}
	std::vector<std::string> lines;
};

inline std::string bytesOf(const CstMemFile& file) {
	unsigned long size = 0;
	const auto* bytes = static_cast<const char*>(file.GetBuffer(&size));
	return {bytes, size};
}

} // namespace core_test
