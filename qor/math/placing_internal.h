#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace calibration {

struct Vector {
	double x, y, z;

	Vector operator+(const Vector& other) const { return {x + other.x, y + other.y, z + other.z}; }
	Vector operator-(const Vector& other) const { return {x - other.x, y - other.y, z - other.z}; }
	Vector operator*(double factor) const { return {x * factor, y * factor, z * factor}; }
	double dot(const Vector& other) const { return x * other.x + y * other.y + z * other.z; }
	Vector cross(const Vector& other) const {
		return {y * other.z - z * other.y, z * other.x - x * other.z, x * other.y - y * other.x};
	}
	Vector unit() const { return *this * (1 / std::sqrt(dot(*this))); }
};

/// Whether points of D dimensions stand so that every camera that sees them is determined: told
/// from the world points alone, independent of their unit and origin. The pivots of the
/// calibration's equations cannot answer this: errors in the image fill them up.
///
/// D + 1 points that span the space are the base: the first point, the one farthest from it, the
/// one farthest from the line through both, and for D = 3 the one farthest from their plane, so
/// that rounding hardly tilts what goes through them. Every point is a sum of base points. Where
/// the base falls into two groups and no point needs members of both, a camera may enlarge one
/// group against the other, and its parameters stay open:
/// ```
/// D = 2    a line | a point
/// D = 3    a plane | a point        a line | a line
/// ```
/// Otherwise they are determined, once there are enough places. Coordinates count as 0 when the
/// point is no farther from the rest of the base than the rounding of coordinates, or than a
/// ten-millionth of the extent, which no calibration could tell from flat.
template <class T, int D>
class Placing {
public:
	Placing(const T* points, int count) : mPoints(points), mCount(count) {}

	/// False also for coordinates that are not finite or too large to compute with.
	bool determinesCamera() { return findBase() && isConnected(); }

private:
	static constexpr double kFlat = 1e-7, kRounding = 16.0 * std::numeric_limits<T>::epsilon();
	static constexpr int kPlaces = (3 * D + 3) / 2; // as many as the least number of points

	Vector at(int i) const {
		const T* point = mPoints + static_cast<size_t>(i) * D;
		if constexpr (D == 2)
			return {point[0], point[1], 0};
		else
			return {point[0], point[1], point[2]};
	}

	/// Keeps the point with the largest value. @return whether that is above the tolerance.
	template <class Distance>
	bool farthest(Distance squareOf, Vector* point) const {
		double largest = 0;
		for (int i = 0; i < mCount; ++i) {
			const double square = squareOf(at(i) - mOrigin);
			if (!std::isfinite(square)) return false;
			if (square <= largest) continue;
			largest = square;
			*point = at(i) - mOrigin;
		}
		return largest > mTolerance * mTolerance;
	}

	bool findBase() {
		mOrigin = at(0);
		double largest = 0;
		for (int i = 0; i < mCount; ++i) {
			const Vector point = at(i);
			largest = std::max({largest, std::abs(point.x), std::abs(point.y), std::abs(point.z)});
		}
		mTolerance = kRounding * largest;
		Vector axis = {}, across = {}, up = {};
		if (!farthest([](const Vector& arm) { return arm.dot(arm); }, &axis)) return false;
		const Vector along = axis.unit();
		mTolerance = std::max(mTolerance, kFlat * axis.dot(along));
		const auto fromLine = [&along](const Vector& arm) {
			const Vector off = arm - along * arm.dot(along);
			return off.dot(off);
		};
		if (!farthest(fromLine, &across)) return false;
		const Vector normal = along.cross(across).unit();
		const auto fromPlane = [&normal](const Vector& arm) { return arm.dot(normal) * arm.dot(normal); };
		if (D == 3 && !farthest(fromPlane, &up)) return false;
		if (D == 2) up = normal;
		mEdge = axis;
		const Vector a = across.cross(up), b = up.cross(axis), c = axis.cross(across);
		const Vector faces[] = {D == 2 ? a + b : a + b + c, a, b, c};
		for (int k = 0; k <= D; ++k) mNormals[k] = faces[k].unit();
		return true;
	}

	/// Which members of the base a point needs, a bit each.
	unsigned membersOf(const Vector& arm) const {
		unsigned members = 0;
		for (int k = 0; k <= D; ++k) {
			const double distance = std::abs((k == 0 ? arm - mEdge : arm).dot(mNormals[k]));
			if (distance > mTolerance) members |= 1U << k;
		}
		return members;
	}

	/// Joins the members that any point needs together, until all are one group.
	bool isConnected() const {
		constexpr unsigned kAll = (1U << (D + 1)) - 1;
		unsigned groups[D + 1];
		for (int k = 0; k <= D; ++k) groups[k] = 1U << k;
		Vector places[kPlaces];
		int placeCount = 0;
		for (int i = 0; i < mCount; ++i) {
			const Vector arm = at(i) - mOrigin;
			const auto isHere = [&](const Vector& place) {
				return !((arm - place).dot(arm - place) > mTolerance * mTolerance);
			};
			if (placeCount < kPlaces && std::none_of(places, places + placeCount, isHere)) places[placeCount++] = arm;
			if (groups[0] != kAll) {
				unsigned joined = membersOf(arm);
				for (const unsigned group : groups) joined |= (group & joined) ? group : 0;
				for (int k = 0; k <= D; ++k)
					if (joined >> k & 1) groups[k] = joined;
			}
			if (groups[0] == kAll && placeCount == kPlaces) return true;
		}
		return false;
	}

	const T* mPoints;
	int mCount;
	Vector mOrigin = {}, mEdge = {}, mNormals[D + 1] = {}; // normals of the faces, each opposite its base point
	double mTolerance = 0;
};

/// The same for a plane (D = 2) and for space (D = 3), of at least one point.
template <int D, class T>
bool leaveCameraOpen(const T* points, int count) {
	return !Placing<T, D>(points, count).determinesCamera();
}

} // namespace calibration
