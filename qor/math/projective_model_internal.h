#pragma once

#include "placing_internal.h"
#include "projective_system_internal.h"

#include <cmath>
#include <cstddef>
#include <limits>

namespace calibration {

/// A projection from D dimensions to the image: the camera model for D = 3, the plane model for
/// D = 2. Its parameters are the rows of a 2 x (D + 1) matrix for u and v, then the D
/// coefficients of w; the last one of w is 1.
template <int D>
struct Model {
	static constexpr int kShared = D + 1;
	static constexpr int kParameters = 2 * kShared + D;
	static constexpr int kMinimumPoints = (kParameters + 1) / 2;
	using Parameters = double[kParameters];
	using Point = double[D];

	/// An image point and its w; not finite where w is 0.
	struct Image {
		double u, v, w;
	};

	static Image project(const Parameters& l, const Point& x) {
		Image image = {l[D], l[kShared + D], 1};
		for (int j = 0; j < D; ++j) {
			image.u += l[j] * x[j];
			image.v += l[kShared + j] * x[j];
			image.w += l[2 * kShared + j] * x[j];
		}
		image.u /= image.w;
		image.v /= image.w;
		return image;
	}

	/// Whether w is 0, to the rounding of its terms: a point that no image shows.
	static bool isOnFocalPlane(const Parameters& l, const Point& x) {
		double w = 1, size = 1;
		for (int j = 0; j < D; ++j) {
			w += l[2 * kShared + j] * x[j];
			size += std::abs(l[2 * kShared + j] * x[j]);
		}
		return std::abs(w) <= 8 * std::numeric_limits<double>::epsilon() * size;
	}

	/// The linear equations of a point seen at (u, v).
	static void addEquations(ProjectiveSystem<double, D>& system, const Point& x, double u, double v) {
		double r[kShared], s[kShared], t[kShared];
		for (int j = 0; j < D; ++j) {
			r[j] = x[j];
			s[j] = -u * x[j];
			t[j] = -v * x[j];
		}
		r[D] = 1;
		s[D] = u;
		t[D] = v;
		system.add(r, s, t);
	}

	/// The derivatives of the projected point by the parameters, and the residual of (u, v) on
	/// the right side. They have the shape of the linear equations.
	static void addDerivatives(
	    ProjectiveSystem<double, D>& system, const Parameters& l, const Point& x, double u, double v) {
		const Image image = project(l, x);
		double r[kShared], s[kShared], t[kShared];
		for (int j = 0; j < D; ++j) {
			r[j] = x[j] / image.w;
			s[j] = -image.u * r[j];
			t[j] = -image.v * r[j];
		}
		r[D] = 1 / image.w;
		s[D] = u - image.u;
		t[D] = v - image.v;
		system.add(r, s, t);
	}
};

/// The points of a calibration as the caller has them.
template <int D>
struct Points {
	const double* world; // D values each
	const double* image; // pairs
	int count;

	void get(int i, double (&x)[D], double& u, double& v) const {
		for (int j = 0; j < D; ++j) x[j] = world[static_cast<size_t>(i) * D + j];
		u = image[static_cast<size_t>(i) * 2];
		v = image[static_cast<size_t>(i) * 2 + 1];
	}
};

/// Whether the points leave the parameters open, however well they are measured: by where they
/// stand in the world, or since all are seen at one place.
template <int D>
bool leaveOpen(const Points<D>& points) {
	double size = 0, extent = 0;
	for (int i = 0; i < 2 * points.count; ++i) {
		size = std::max(size, std::abs(points.image[i]));
		extent = std::max(extent, std::abs(points.image[i] - points.image[i % 2]));
	}
	return !(extent > 16 * std::numeric_limits<double>::epsilon() * size) ||
	       leaveCameraOpen<D>(points.world, points.count);
}

/// Whether a point has w = 0.
template <int D>
bool anyOnFocalPlane(const Points<D>& points, const typename Model<D>::Parameters& l) {
	double x[D], u, v;
	for (int i = 0; i < points.count; ++i) {
		points.get(i, x, u, v);
		if (Model<D>::isOnFocalPlane(l, x)) return true;
	}
	return false;
}

/// Moves points to their centroid and scales them to a mean distance of the square root of
/// their dimension, in the world and in the image alike.
template <int D>
class Normalisation {
public:
	using Parameters = typename Model<D>::Parameters;

	/// @return false when a value is not finite or the sums overflow.
	bool measure(const Points<D>& points) {
		double x[D], u, v;
		for (int i = 0; i < points.count; ++i) {
			points.get(i, x, u, v);
			for (int j = 0; j < D; ++j) mCentre[j] += x[j] / points.count;
			mImageCentre[0] += u / points.count;
			mImageCentre[1] += v / points.count;
		}
		double distance = 0, imageDistance = 0;
		for (int i = 0; i < points.count; ++i) {
			points.get(i, x, u, v);
			double square = 0;
			for (int j = 0; j < D; ++j) square += (x[j] - mCentre[j]) * (x[j] - mCentre[j]);
			distance += std::sqrt(square) / points.count;
			imageDistance += std::hypot(u - mImageCentre[0], v - mImageCentre[1]) / points.count;
		}
		// Points that coincide keep their size; the equations show what is wrong with them.
		if (distance > 0) mScale = std::sqrt(double{D}) / distance;
		if (imageDistance > 0) mImageScale = std::sqrt(2.0) / imageDistance;
		return std::isfinite(distance) && std::isfinite(imageDistance) && std::isnormal(mScale) &&
		       std::isnormal(mImageScale);
	}

	/// Reads a point and normalises it.
	void get(const Points<D>& points, int i, double (&x)[D], double& u, double& v) const {
		points.get(i, x, u, v);
		for (int j = 0; j < D; ++j) x[j] = (x[j] - mCentre[j]) * mScale;
		u = (u - mImageCentre[0]) * mImageScale;
		v = (v - mImageCentre[1]) * mImageScale;
	}

	/// @return false when w is 0, to rounding, at the centroid, or a result is not finite.
	bool toNormalised(const Parameters& l, Parameters& normalised) const {
		Matrix m;
		expand(l, m);
		for (auto& row : m) {
			double sum = 0;
			for (int j = 0; j < D; ++j) {
				sum += row[j] * mCentre[j];
				row[j] /= mScale;
			}
			row[D] += sum;
		}
		for (int i = 0; i < 2; ++i) {
			for (int j = 0; j <= D; ++j) m[i][j] = (m[i][j] - mImageCentre[i] * m[2][j]) * mImageScale;
		}
		return reduce(m, 1, normalised);
	}

	/// @return false when w is 0, to rounding, at the origin, or a result is not finite.
	bool fromNormalised(const Parameters& normalised, Parameters& l) const {
		Matrix m;
		expand(normalised, m);
		for (int i = 0; i < 2; ++i) {
			for (int j = 0; j <= D; ++j) m[i][j] = m[i][j] / mImageScale + mImageCentre[i] * m[2][j];
		}
		for (auto& row : m) {
			for (int j = 0; j < D; ++j) {
				row[j] *= mScale;
				row[D] -= row[j] * mCentre[j];
			}
		}
		double size = 1;
		for (int j = 0; j < D; ++j) size += std::abs(m[2][j] * mCentre[j]);
		return reduce(m, size, l);
	}

private:
	using Matrix = double[3][D + 1];

	static void expand(const Parameters& l, Matrix& m) {
		for (int i = 0; i < 3 * (D + 1) - 1; ++i) m[i / (D + 1)][i % (D + 1)] = l[i];
		m[2][D] = 1;
	}

	/// `size` is that of the terms whose sum the last element is.
	static bool reduce(const Matrix& m, double size, Parameters& l) {
		const double last = m[2][D];
		if (!(std::abs(last) > 16 * std::numeric_limits<double>::epsilon() * size)) return false;
		for (int i = 0; i < 3 * (D + 1) - 1; ++i) {
			l[i] = m[i / (D + 1)][i % (D + 1)] / last;
			if (!std::isfinite(l[i])) return false;
		}
		return true;
	}

	double mCentre[D] = {};
	double mImageCentre[2] = {};
	double mScale = 1;
	double mImageScale = 1;
};

} // namespace calibration
