#pragma once

#include "projective_system_internal.h"

#include <algorithm>
#include <utility>

namespace calibration {

/// The ratio of the largest to the smallest singular value; infinite for a singular triangle.
///
/// By one-sided Jacobi rotations, which make the columns orthogonal: small singular values come
/// out with all their digits, which eigenvalues of the normal matrix would have lost.
template <int N>
double conditionNumber(const Triangle<double, N>& triangle) {
	constexpr int kMaximumSweeps = 40; // six to ten are usual
	constexpr double kOrthogonal = 1e-15;
	double columns[N][N] = {};
	for (int j = 0; j < N; ++j) {
		for (int i = 0; i <= j; ++i) columns[j][i] = triangle.rows[i][j];
	}
	bool rotated = true;
	for (int sweep = 0; rotated && sweep < kMaximumSweeps; ++sweep) {
		rotated = false;
		for (int p = 0; p < N; ++p) {
			for (int q = p + 1; q < N; ++q) {
				const double pp = dot(columns[p], columns[p], N), qq = dot(columns[q], columns[q], N);
				const double pq = dot(columns[p], columns[q], N);
				if (!(std::abs(pq) > kOrthogonal * std::sqrt(pp * qq))) continue;
				rotated = true;
				const double zeta = (qq - pp) / (2 * pq);
				const double tangent = std::copysign(1 / (std::abs(zeta) + std::hypot(1.0, zeta)), zeta);
				const double cosine = 1 / std::hypot(1.0, tangent), sine = cosine * tangent;
				for (int i = 0; i < N; ++i) {
					const double a = columns[p][i], b = columns[q][i];
					columns[p][i] = cosine * a - sine * b;
					columns[q][i] = sine * a + cosine * b;
				}
			}
		}
	}
	double least = std::numeric_limits<double>::infinity(), most = 0;
	for (const auto& column : columns) {
		const double square = dot(column, column, N);
		least = std::min(least, square);
		most = std::max(most, square);
	}
	return std::sqrt(most / least);
}

} // namespace calibration
