// CmcLineParSet::Feed beside absl::StrSplit with trimming: lines of 10, 100 and 1,000
// parameters, padded with blanks as devices send them. Both take turns in one run; printed are
// the median time a line, the spread of the middle half, and the ratio.
#include "qor/core/line_parameters.h"

#include <absl/strings/ascii.h>
#include <absl/strings/str_split.h>
#include <absl/strings/string_view.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr int kRounds = 201;
constexpr int kParametersPerRound = 20000;

std::string makeLine(int parameters) {
	static constexpr std::string_view texts[] = {"set", "Gain", "12", "$cmdport=5000", "exposure_time", "0.00125"};
	std::string line;
	for (int i = 0; i < parameters; ++i) {
		if (i) line += i % 2 ? ", " : ",";
		line += texts[i % std::size(texts)];
	}
	return line;
}

/// Keeps a result alive.
volatile std::size_t sink;

template <class Action>
double nanosecondsPerLine(int lines, Action action) {
	const auto start = std::chrono::steady_clock::now();
	for (int i = 0; i < lines; ++i) action();
	const std::chrono::duration<double, std::nano> time = std::chrono::steady_clock::now() - start;
	return time.count() / lines;
}

struct Times {
	std::vector<double> all;
	double at(double part) {
		std::sort(all.begin(), all.end());
		return all[static_cast<std::size_t>(part * static_cast<double>(all.size() - 1))];
	}
};

void compare(int parameters) {
	const std::string line = makeLine(parameters);
	const int lines = kParametersPerRound / parameters;
	CmcLineParSet set;
	std::vector<absl::string_view> views;
	Times ours, theirs;
	for (int round = 0; round < kRounds; ++round) {
		ours.all.push_back(
		    nanosecondsPerLine(lines, [&] { sink = static_cast<std::size_t>(set.Feed(line.c_str(), 1, 1)); }));
		theirs.all.push_back(nanosecondsPerLine(lines, [&] {
			views = absl::StrSplit(line, ',');
			for (auto& view : views) view = absl::StripAsciiWhitespace(view);
			sink = views.size();
		}));
	}
	std::printf("%10d  %8.0f [%.0f-%.0f]  %8.0f [%.0f-%.0f]  %5.2f\n", parameters, ours.at(0.5), ours.at(0.25),
	    ours.at(0.75), theirs.at(0.5), theirs.at(0.25), theirs.at(0.75), theirs.at(0.5) / ours.at(0.5));
}

} // namespace

int main() {
	std::printf("parameters  Feed, ns a line     StrSplit and trim   StrSplit / Feed\n");
	for (const int parameters : {10, 100, 1000}) compare(parameters);
}
