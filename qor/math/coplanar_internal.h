#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace calibration {

struct Vector {
	double x, y, z;

	Vector operator-(const Vector& other) const { return {x - other.x, y - other.y, z - other.z}; }
	Vector operator*(double factor) const { return {x * factor, y * factor, z * factor}; }
	double dot(const Vector& other) const { return x * other.x + y * other.y + z * other.z; }
	Vector cross(const Vector& other) const {
		return {y * other.z - z * other.y, z * other.x - x * other.z, x * other.y - y * other.x};
	}
};

/// Whether points in space lie on one plane (or one line): no farther from it than the rounding
/// of their coordinates, or than a ten-millionth of their extent, which no calibration could tell
/// from flat.
///
/// The plane goes through the first point, the one farthest from it and the one farthest from the
/// line through both, so that rounding hardly tilts it. The pivots of the calibration's equations
/// cannot answer this: a plane makes three of them vanish, and rounding hides which.
template <class T>
bool areCoplanar(const T* points, int count) {
	constexpr double kFlat = 1e-7, kRounding = 16.0 * std::numeric_limits<T>::epsilon();
	const auto at = [points](int i) {
		const T* point = points + static_cast<size_t>(i) * 3;
		return Vector{point[0], point[1], point[2]};
	};
	const Vector origin = at(0);
	double largest = 0, longest = 0, widest = 0, thickness = 0; // the last three squared
	Vector axis = {}, across = {};
	for (int i = 0; i < count; ++i) {
		const Vector point = at(i), arm = point - origin;
		largest = std::max({largest, std::abs(point.x), std::abs(point.y), std::abs(point.z)});
		if (arm.dot(arm) <= longest) continue;
		longest = arm.dot(arm);
		axis = arm;
	}
	const double tolerance = std::max(kRounding * largest, kFlat * std::sqrt(longest));
	if (!(longest > tolerance * tolerance)) return true;
	for (int i = 0; i < count; ++i) {
		const Vector arm = at(i) - origin, off = arm - axis * (arm.dot(axis) / longest);
		if (off.dot(off) <= widest) continue;
		widest = off.dot(off);
		across = off;
	}
	if (!(widest > tolerance * tolerance)) return true;
	const Vector normal = axis.cross(across) * (1 / std::sqrt(longest * widest));
	for (int i = 0; i < count; ++i) thickness = std::max(thickness, std::abs((at(i) - origin).dot(normal)));
	return !(thickness > tolerance);
}

} // namespace calibration
