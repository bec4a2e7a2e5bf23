#pragma once

#include <cmath>
#include <utility>

namespace calibration {

template <class T, int N>
bool allFinite(const T (&values)[N]) {
	for (const T value : values) {
		if (!std::isfinite(value)) return false;
	}
	return true;
}

/// Gaussian elimination with partial pivoting and back substitution. `system` holds the right
/// side in its last column and is used up.
/// @return false when a pivot is zero, not a number, or in magnitude below `leastPivot` (the
///         last one: `leastLastPivot`); `solution` is untouched then.
template <class T, int N>
bool solveByElimination(T (&system)[N][N + 1], T (&solution)[N], T leastPivot, T leastLastPivot) {
	for (int k = 0; k < N; ++k) {
		int best = k;
		for (int i = k + 1; i < N; ++i) {
			if (std::abs(system[i][k]) > std::abs(system[best][k])) best = i;
		}
		if (best != k) std::swap(system[k], system[best]);
		const T pivot = std::abs(system[k][k]);
		if (!(pivot > 0) || !(pivot >= (k == N - 1 ? leastLastPivot : leastPivot))) return false;
		for (int i = k + 1; i < N; ++i) {
			const T factor = system[i][k] / system[k][k];
			for (int j = k + 1; j <= N; ++j) system[i][j] -= factor * system[k][j];
		}
	}
	for (int k = N - 1; k >= 0; --k) {
		T sum = system[k][N];
		for (int j = k + 1; j < N; ++j) sum -= system[k][j] * solution[j];
		solution[k] = sum / system[k][k];
	}
	return true;
}

} // namespace calibration
