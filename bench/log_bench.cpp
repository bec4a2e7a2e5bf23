// Log lines to a file: appmsg beside spdlog's synchronous file sink that flushes every line,
// as a log that must survive a crash of the host does. Both format one text and two numbers
// behind a time column. Rounds of the two alternate; the table gives medians.

#include "qor/core/runtime.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#if __has_include(<spdlog/spdlog.h>)
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#define QOR_HAVE_SPDLOG 1
#endif

namespace {

constexpr int kLines = 100000; // a round, all threads together
constexpr int kRounds = 11;

struct Spread {
	double median, low, high; // thousand lines a second
};

using Loop = std::function<void(int lines)>;

double thousandLinesPerSecond(int threads, const Loop& loop) {
	const auto start = std::chrono::steady_clock::now();
	std::vector<std::thread> running;
	for (int t = 0; t < threads; ++t) running.emplace_back(loop, kLines / threads);
	for (auto& thread : running) thread.join();
	const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
	return kLines / seconds.count() / 1000;
}

Spread spreadOf(std::vector<double> values) {
	std::sort(values.begin(), values.end());
	return {values[values.size() / 2], values.front(), values.back()};
}

void print(const char* name, int threads, const Spread& s) {
	std::printf("%-28s %7d %12.1f   %8.1f .. %8.1f", name, threads, s.median, s.low, s.high);
}

} // namespace

int main() {
	namespace fs = std::filesystem;
	const fs::path folder = fs::temp_directory_path() / "qor_log_bench";
	fs::create_directories(folder);
	appRawInit((folder / "qor.log").string().c_str(), 0);
	const Loop ours = [](int lines) {
		for (int i = 0; i < lines; ++i) appmsg("%s frame %d at %.3f", "camera", i, i * 0.001);
	};
#ifdef QOR_HAVE_SPDLOG
	auto logger = spdlog::basic_logger_mt("bench", (folder / "spdlog.log").string(), true);
	logger->flush_on(spdlog::level::trace);
	const Loop theirs = [&logger](int lines) {
		for (int i = 0; i < lines; ++i) logger->info("{} frame {} at {:.3f}", "camera", i, i * 0.001);
	};
#endif
	std::printf("%-28s %7s %12s   %s\n", "log to a file", "threads", "k lines/s", "lowest .. highest");
	for (const int threads : {1, 4}) {
		std::vector<double> own, other;
		for (int round = 0; round < kRounds; ++round) {
			own.push_back(thousandLinesPerSecond(threads, ours));
#ifdef QOR_HAVE_SPDLOG
			other.push_back(thousandLinesPerSecond(threads, theirs));
#endif
		}
		print("appmsg", threads, spreadOf(own));
		std::printf("\n");
		if (other.empty()) continue;
		print("spdlog basic_file_sink_mt", threads, spreadOf(other));
		std::printf("   appmsg writes %.2f times as many\n", spreadOf(own).median / spreadOf(other).median);
	}
	appUinit();
#ifdef QOR_HAVE_SPDLOG
	spdlog::drop_all();
	logger.reset();
#endif
	fs::remove_all(folder);
}
