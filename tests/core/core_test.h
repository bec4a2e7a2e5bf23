#pragma once

#include "qor/base/mem_file.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace core_test {

using namespace std::string_literals;

/// Starts the runtime (without a log file), so that every line begins with a time column of
/// 13 characters.
struct LogLines : test_support::LogCapture {
	LogLines() { appRawInit("", 0), clear(); }
	/// The lines since the last call without their time columns, each ended by a line feed.
	std::string take() {
		std::string all;
		for (const auto& line : std::exchange(lines, {})) all += line.substr(std::min<size_t>(13, line.size())) + "\n";
		return all;
	}
};

inline std::string bytesOf(const CstMemFile& file) {
	unsigned long size = 0;
	const auto* bytes = static_cast<const char*>(file.GetBuffer(&size));
	return {bytes, size};
}

} // namespace core_test
