#pragma once

#include <string>
#include <vector>

/// The points of a calibration: in the world (`dimensions` values each) and in the image (pairs).
struct PointList {
	int dimensions = 3; // 2: points of a plane
	std::vector<double> world;
	std::vector<double> image;
	std::vector<int> numbers; // each point's place in its file, from 1

	int count() const { return static_cast<int>(numbers.size()); }
	/// Leaves a point out. @return false when there is none of this number.
	bool remove(int number);
};

/// Reads a text of one point a line: X Y Z u v, for a plane a b u v. Blanks, commas, semicolons and
/// tabs separate; lines that start with # and a first line of headings are passed over.
/// @return false, with a message on the error stream that names the line.
bool readPoints(const std::string& path, int dimensions, PointList& points);
