#pragma once

#include <algorithm>
#include <cmath>
#include <limits>

namespace calibration {

/// Four running sums: the additions need not wait for each other, and the order is fixed.
template <class T>
T dot(const T* a, const T* b, int length) {
	T sums[4] = {};
	int i = 0;
	for (; i + 4 <= length; i += 4) {
		for (int k = 0; k < 4; ++k) sums[k] += a[i + k] * b[i + k];
	}
	for (; i < length; ++i) sums[0] += a[i] * b[i];
	return (sums[0] + sums[1]) + (sums[2] + sums[3]);
}

/// A Householder reflection that gathers the first column of a matrix in its head element.
/// `head` is the matrix' first row; the rows below stand in `tail`, column by column, `stride`
/// apart. The first tail column is not cleared: nobody reads it again.
template <class T>
void reflect(T* head, T* tail, int stride, int columns, int length) {
	const T square = dot(tail, tail, length);
	if (square == 0) return;
	const T norm = std::sqrt(head[0] * head[0] + square);
	const T shifted = head[0] + std::copysign(norm, head[0]); // no cancellation with this sign
	const T scale = 1 / (norm * std::abs(shifted));
	for (int j = 1; j < columns; ++j) {
		T* column = tail + j * stride;
		const T factor = (shifted * head[j] + dot(tail, column, length)) * scale;
		head[j] -= factor * shifted;
		for (int i = 0; i < length; ++i) column[i] -= factor * tail[i];
	}
	head[0] = -std::copysign(norm, head[0]);
}

/// What is left of a least-squares problem with N unknowns after an orthogonal factorisation:
/// an upper triangle, and the right side in the last column.
template <class T, int N>
struct Triangle {
	T rows[N][N + 1] = {};

	/// Of the original columns: reflections keep lengths.
	T columnLength(int column) const {
		T square = 0;
		for (int i = 0; i <= column; ++i) square += rows[i][column] * rows[i][column];
		return std::sqrt(square);
	}

	/// @return false when a column depends, to rounding, on those before it, or on values that
	///         are not finite.
	bool solve(T (&solution)[N]) const {
		constexpr T kTolerance = 4 * N * std::numeric_limits<T>::epsilon();
		for (int k = N - 1; k >= 0; --k) {
			if (!(std::abs(rows[k][k]) > kTolerance * columnLength(k))) return false;
			T sum = rows[k][N];
			for (int j = k + 1; j < N; ++j) sum -= rows[k][j] * solution[j];
			solution[k] = sum / rows[k][k];
		}
		return true;
	}

	/// The length of y in triangle' y = b: the standard deviation of b.x for a solution x with
	/// unit errors on the right side.
	T deviation(const T (&b)[N]) const {
		T y[N];
		T square = 0;
		for (int k = 0; k < N; ++k) {
			T sum = b[k];
			for (int i = 0; i < k; ++i) sum -= rows[i][k] * y[i];
			y[k] = sum / rows[k][k];
			square += y[k] * y[k];
		}
		return std::sqrt(square);
	}

	/// Adds the equations weight[k] * x[k] = 0.
	void damp(const T (&weight)[N]) {
		T tail[(N + 1) * N] = {};
		for (int k = 0; k < N; ++k) tail[k * N + k] = weight[k];
		for (int k = 0; k < N; ++k) reflect(&rows[k][k], tail + k * N, N, N + 1 - k, k + 1);
	}
};

/// Factorises, as they come, the equations of a projection from D dimensions:
/// ```
/// [ r 0 | s ]     r  D + 1 coefficients that both equations of a point share
/// [ 0 r | t ]     s, t  D coefficients and the right side
/// ```
/// The shared columns are factorised once for both. What they leave of s and t is a problem of
/// D unknowns with two rows a point. That is about half the work of a general factorisation,
/// and block after block it is done in one fixed space.
template <class T, int D>
class ProjectiveSystem {
public:
	static constexpr int kShared = D + 1;
	static constexpr int kUnknowns = 2 * kShared + D;

	void add(const T (&r)[kShared], const T (&s)[kShared], const T (&t)[kShared]) {
		if (mLength == kBlock) fold();
		for (int j = 0; j < kShared; ++j) {
			column(j)[mLength] = r[j];
			column(kShared + 2 * j)[mLength] = s[j];
			column(kShared + 2 * j + 1)[mLength] = t[j];
		}
		++mLength;
	}

	Triangle<T, kUnknowns> finish() {
		fold();
		Triangle<T, kUnknowns> triangle;
		for (int i = 0; i < kShared; ++i) {
			T* first = triangle.rows[i];
			T* second = triangle.rows[kShared + i];
			for (int j = i; j < kShared; ++j) first[j] = second[kShared + j] = mHead[i][j];
			for (int j = 0; j < kShared; ++j) {
				first[2 * kShared + j] = mHead[i][kShared + 2 * j];
				second[2 * kShared + j] = mHead[i][kShared + 2 * j + 1];
			}
		}
		for (int i = 0; i < D; ++i)
			std::copy(mRest[i] + i, mRest[i] + kShared, triangle.rows[2 * kShared + i] + 2 * kShared + i);
		return triangle;
	}

private:
	static constexpr int kBlock = 32; // points

	T* column(int index) { return mTail + index * kBlock; }

	void fold() {
		for (int k = 0; k < kShared; ++k) reflect(&mHead[k][k], column(k), kBlock, 3 * kShared - k, mLength);
		for (int j = 0; j < kShared; ++j) {
			// What is left of s and t is one column now; in a full block they touch already.
			T* s = column(kShared + 2 * j);
			if (mLength < kBlock) std::copy(s + kBlock, s + kBlock + mLength, s + mLength);
		}
		for (int k = 0; k < D; ++k)
			reflect(&mRest[k][k], column(kShared + 2 * k), 2 * kBlock, kShared - k, 2 * mLength);
		mLength = 0;
	}

	T mHead[kShared][3 * kShared] = {}; // columns r, then s and t in turn
	T mRest[D][kShared] = {};
	T mTail[3 * kShared * kBlock]; // the same columns, one behind the other, of the points not folded yet
	int mLength = 0;
};

} // namespace calibration
