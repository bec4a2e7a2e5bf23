#include "points_file.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iostream>

namespace {

constexpr const char* kSeparators = " \t,;\r";

/// The numbers of a line; false when something else stands there.
bool parseNumbers(const std::string& line, std::vector<double>& numbers) {
	numbers.clear();
	for (size_t at = line.find_first_not_of(kSeparators); at != std::string::npos;
	     at = line.find_first_not_of(kSeparators, at)) {
		const size_t end = std::min(line.find_first_of(kSeparators, at), line.size());
		if (line[at] == '+') ++at;
		double value = 0;
		const auto parsed = std::from_chars(line.data() + at, line.data() + end, value);
		if (parsed.ec != std::errc() || parsed.ptr != line.data() + end || !std::isfinite(value)) return false;
		numbers.push_back(value);
		at = end;
	}
	return true;
}

/// Whether a line that begins so holds names of columns.
bool isHeading(char first) { return !std::strchr("+-.0123456789", first); }

} // namespace

bool PointList::remove(int number) {
	for (int i = 0; i < count(); ++i) {
		if (numbers[static_cast<size_t>(i)] != number) continue;
		numbers.erase(numbers.begin() + i);
		world.erase(world.begin() + i * dimensions, world.begin() + (i + 1) * dimensions);
		image.erase(image.begin() + i * 2, image.begin() + (i + 1) * 2);
		return true;
	}
	return false;
}

bool readPoints(const std::string& path, int dimensions, PointList& points) {
	std::ifstream file(path);
	if (!file) {
		std::cerr << "calibrate: cannot open '" << path << "'\n";
		return false;
	}
	points = {};
	points.dimensions = dimensions;
	std::vector<double> numbers;
	std::string line;
	bool headings = true; // still allowed
	for (int lineNumber = 1; std::getline(file, line); ++lineNumber) {
		if (lineNumber == 1 && line.starts_with("\xEF\xBB\xBF")) line.erase(0, 3); // a mark of UTF-8
		const size_t start = line.find_first_not_of(kSeparators);
		if (start == std::string::npos || line[start] == '#') continue;
		const bool valid = parseNumbers(line, numbers) && numbers.size() == static_cast<size_t>(dimensions) + 2;
		if (!valid && !(headings && isHeading(line[start]))) {
			std::cerr << "calibrate: " << path << ", line " << lineNumber << ": " << dimensions + 2
			          << " numbers are wanted\n";
			return false;
		}
		headings = false;
		if (!valid) continue;
		points.world.insert(points.world.end(), numbers.begin(), numbers.begin() + dimensions);
		points.image.insert(points.image.end(), numbers.begin() + dimensions, numbers.end());
		points.numbers.push_back(points.count() + 1);
	}
	if (file.bad()) std::cerr << "calibrate: cannot read '" << path << "'\n";
	return !file.bad();
}
