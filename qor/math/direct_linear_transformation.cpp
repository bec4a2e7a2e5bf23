#include "direct_linear_transformation.h"

#include "gaussian_elimination_internal.h"
#include "placing_internal.h"
#include "projective_system_internal.h"

#include <algorithm>
#include <limits>

using calibration::allFinite;
using calibration::leaveCameraOpen;
using calibration::ProjectiveSystem;
using calibration::solveByElimination;

namespace {

constexpr int kMinimumPoints = 6;
constexpr int kMinimumPlanePoints = 4;

// --- calibration ---

/// Sums up the normal equations of
/// ```
/// [ r 0 | s ]   r = X Y Z 1, s = -uX -uY -uZ u
/// [ 0 r | t ]                t = -vX -vY -vZ v
/// ```
/// Only the products that differ are summed. Each sum takes the rows in their order, so it is,
/// to the last bit, the one of a product of full matrices.
template <class T>
class NormalEquations {
public:
	void add(const T* point, T u, T v) {
		const T r[4] = {point[0], point[1], point[2], 1};
		const T s[4] = {-u * r[0], -u * r[1], -u * r[2], u};
		const T t[4] = {-v * r[0], -v * r[1], -v * r[2], v};
		for (int i = 0; i < 4; ++i) {
			for (int j = 0; j < 4; ++j) {
				mShared[i][j] += r[i] * r[j];
				mFirst[i][j] += r[i] * s[j];
				mSecond[i][j] += r[i] * t[j];
				mProjective[i][j] += s[i] * s[j];
				mProjective[i][j] += t[i] * t[j];
			}
		}
	}

	void fill(T (&system)[11][12]) const {
		for (int i = 0; i < 4; ++i) {
			for (int j = 0; j < 4; ++j) {
				system[i][j] = system[4 + i][4 + j] = mShared[i][j];
				system[i][4 + j] = system[4 + i][j] = 0;
				system[i][8 + j] = mFirst[i][j];
				system[4 + i][8 + j] = mSecond[i][j];
			}
		}
		for (int i = 0; i < 3; ++i) {
			for (int j = 0; j < 4; ++j) {
				system[8 + i][j] = mFirst[j][i];
				system[8 + i][4 + j] = mSecond[j][i];
			}
			for (int j = 0; j < 4; ++j) system[8 + i][8 + j] = mProjective[i][j];
		}
	}

private:
	T mShared[4][4] = {};
	T mFirst[4][4] = {};
	T mSecond[4][4] = {};
	T mProjective[4][4] = {};
};

template <class T>
int calculateParameters(T* parameters, const T* points3D, const T* points2D, int count) {
	if (!parameters || !points3D || !points2D || count < kMinimumPoints) return kDltTooFewPoints;
	if (leaveCameraOpen<3>(points3D, count)) return kDltDegenerate;
	NormalEquations<T> equations;
	for (int i = 0; i < count; ++i, points3D += 3, points2D += 2) equations.add(points3D, points2D[0], points2D[1]);
	T system[11][12], solution[11];
	equations.fill(system);
	if (!solveByElimination(system, solution, T(0), T(0.0001)) || !allFinite(solution)) return kDltDegenerate;
	std::copy_n(solution, 11, parameters);
	return kQorSuccess;
}

template <class T>
T dot3(const T* a, const T* b) {
	return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

template <class T>
void cross(T (&result)[3], const T* a, const T* b) {
	result[0] = a[1] * b[2] - a[2] * b[1];
	result[1] = a[2] * b[0] - a[0] * b[2];
	result[2] = a[0] * b[1] - a[1] * b[0];
}

/// Makes the length 1, whatever it is. @return false for a vector of no length or no value.
template <class T>
bool normalise(T (&unit)[3], const T* vector) {
	const T largest = std::max({std::abs(vector[0]), std::abs(vector[1]), std::abs(vector[2])});
	if (!(largest > 0) || !std::isfinite(largest)) return false;
	for (int i = 0; i < 3; ++i) unit[i] = vector[i] / largest; // their squares neither vanish nor overflow
	const T length = std::sqrt(dot3(unit, unit));
	for (T& value : unit) value /= length;
	return allFinite(unit);
}

template <class T>
int calculateParametersFromVectors(
    T* parameters, const T* position, const T* direction, const T* up, T distance, T uo, T vo) {
	if (!parameters || !position || !direction || !up || !(distance > 0)) return kQorFailure;
	constexpr T kRounding = 16 * std::numeric_limits<T>::epsilon();
	T axis[3], upwards[3], right[3], down[3];
	if (!normalise(axis, direction) || !normalise(upwards, up)) return kQorFailure;
	cross(right, axis, upwards);
	if (!(dot3(right, right) > kRounding * kRounding) || !normalise(right, right)) return kQorFailure;
	cross(down, axis, right);

	// The scale of the projection is free; the model wants w = 1 at the origin.
	const T depth = -dot3(axis, position);
	const T size = std::abs(position[0]) + std::abs(position[1]) + std::abs(position[2]);
	if (!(std::abs(depth) > kRounding * size)) return kQorFailure;
	T result[11];
	for (int i = 0; i < 3; ++i) {
		result[i] = (distance * right[i] + uo * axis[i]) / depth;
		result[4 + i] = (distance * down[i] + vo * axis[i]) / depth;
		result[8 + i] = axis[i] / depth;
	}
	result[3] = uo - distance * dot3(right, position) / depth;
	result[7] = vo - distance * dot3(down, position) / depth;
	if (!allFinite(result)) return kQorFailure;
	std::copy_n(result, 11, parameters);
	return kQorSuccess;
}

// --- use of a calibration ---

/// Solves for a point; one that the equations leave open becomes not a number.
template <class T>
void solvePoint(T* point, T (&system)[3][4]) {
	T solution[3];
	if (!solveByElimination(system, solution, T(0), T(0)))
		std::fill_n(solution, 3, std::numeric_limits<T>::quiet_NaN());
	std::copy_n(solution, 3, point);
}

template <class T>
int calculateCameraPosition(T* position, const T* l) {
	if (!position || !l) return kQorFailure;
	T system[3][4] = {{l[0], l[1], l[2], -l[3]}, {l[4], l[5], l[6], -l[7]}, {l[8], l[9], l[10], -1}};
	solvePoint(position, system);
	return kQorSuccess;
}

/// One of the two planes through the centre of projection in which an image point lies: the one
/// of `value`, its u (`row` = L1 to L4) or v (`row` = L5 to L8).
template <class T>
void rayEquation(T* equation, const T* row, const T* l, T value) {
	for (int i = 0; i < 3; ++i) equation[i] = row[i] - l[8 + i] * value;
	equation[3] = value - row[3];
}

template <class T>
void calculateDirector(T* direction, const T* l, T u, T v) {
	if (!direction || !l) return;
	T a[4], b[4], product[3];
	rayEquation(a, l, l, u);
	rayEquation(b, l + 4, l, v);
	cross(product, a, b);
	T unit[3];
	if (!normalise(unit, product)) std::fill_n(unit, 3, std::numeric_limits<T>::quiet_NaN());
	std::copy_n(unit, 3, direction);
}

template <class T>
int calculate2DPosition(T* point, const T* l, T x, T y, T z) {
	if (!point || !l) return kQorFailure;
	const T w = l[8] * x + l[9] * y + l[10] * z + 1;
	if (w == 0) return kQorFailure;
	const T u = (l[0] * x + l[1] * y + l[2] * z + l[3]) / w;
	const T v = (l[4] * x + l[5] * y + l[6] * z + l[7]) / w;
	point[0] = u;
	point[1] = v;
	return kQorSuccess;
}

template <class T>
int calculate3D(T* point, const T* a, T uA, T vA, const T* b, T uB) {
	if (!point || !a || !b) return kQorFailure;
	T system[3][4];
	rayEquation(system[0], a, a, uA);
	rayEquation(system[1], a + 4, a, vA);
	rayEquation(system[2], b, b, uB);
	solvePoint(point, system);
	return kQorSuccess;
}

// --- what the parameters say about the camera ---

float inverseSquareSum(const float* l) {
	if (!l) return 0;
	const float sum = dot3(l + 8, l + 8);
	return sum == 0 ? 0 : 1 / sum;
}

/// `row` is 0 for u and 4 for v.
float principalPoint(const float* l, int row) { return l ? dot3(l + row, l + 8) * inverseSquareSum(l) : 0; }

float principalDistanceSquare(const float* l, int row) {
	if (!l) return 0;
	const float centre = principalPoint(l, row);
	float part[3];
	for (int i = 0; i < 3; ++i) part[i] = centre * l[8 + i] - l[row + i];
	return inverseSquareSum(l) * dot3(part, part);
}

// --- plane ---

template <class T>
int calculatePlaneParameters(T* parameters, const T* first, const T* second, int count) {
	if (!parameters || !first || !second || count < kMinimumPlanePoints) return kQorFailure;
	count = std::min(count, kDlt2DMaximumPoints);
	if (leaveCameraOpen<2>(first, count)) return kQorFailure;
	ProjectiveSystem<T, 2> equations;
	for (int i = 0; i < count; ++i) {
		const T a = first[2 * i], b = first[2 * i + 1], u = second[2 * i], v = second[2 * i + 1];
		equations.add({a, b, 1}, {-u * a, -u * b, u}, {-v * a, -v * b, v});
	}
	T solution[8];
	if (!equations.finish().solve(solution) || !allFinite(solution)) return kQorFailure;
	std::copy_n(solution, 8, parameters);
	return kQorSuccess;
}

template <class T>
int calculatePosition(T* point, const T* l, T u, T v) {
	if (!point || !l) return kQorFailure;
	constexpr T kLeastPivot = T(0.000001);
	T system[2][3] = {{l[0] - l[6] * u, l[1] - l[7] * u, u - l[2]}, {l[3] - l[6] * v, l[4] - l[7] * v, v - l[5]}};
	T solution[2];
	if (!solveByElimination(system, solution, kLeastPivot, kLeastPivot)) return kQorFailure;
	std::copy_n(solution, 2, point);
	return kQorSuccess;
}

template <class T>
int calculateInversePosition(T* point, const T* l, T a, T b) {
	if (!point || !l) return kQorFailure;
	const T w = l[6] * a + l[7] * b + 1;
	if (w == 0) return kQorFailure;
	const T u = (l[0] * a + l[1] * b + l[2]) / w;
	const T v = (l[3] * a + l[4] * b + l[5]) / w;
	point[0] = u;
	point[1] = v;
	return kQorSuccess;
}

} // namespace

int dltSP_CalculateParameters(float* parameters, const float* points3D, const float* points2D, int count) {
	return calculateParameters(parameters, points3D, points2D, count);
}
int dltDP_CalculateParameters(double* parameters, const double* points3D, const double* points2D, int count) {
	return calculateParameters(parameters, points3D, points2D, count);
}

int dltSP_CalculateParametersFromVectors(float* parameters, const float* position, const float* direction,
    const float* up, float principalDistance, float uo, float vo) {
	return calculateParametersFromVectors(parameters, position, direction, up, principalDistance, uo, vo);
}
int dltDP_CalculateParametersFromVectors(double* parameters, const double* position, const double* direction,
    const double* up, double principalDistance, double uo, double vo) {
	return calculateParametersFromVectors(parameters, position, direction, up, principalDistance, uo, vo);
}

int dltSP_CalculateCameraPosition(float* position, const float* parameters) {
	return calculateCameraPosition(position, parameters);
}
int dltDP_CalculateCameraPosition(double* position, const double* parameters) {
	return calculateCameraPosition(position, parameters);
}

void dltSP_CalculateDirector(float* direction, const float* parameters, float u, float v) {
	calculateDirector(direction, parameters, u, v);
}
void dltDP_CalculateDirector(double* direction, const double* parameters, double u, double v) {
	calculateDirector(direction, parameters, u, v);
}

int dltSP_Calculate2DPosition(float* point, const float* parameters, float x, float y, float z) {
	return calculate2DPosition(point, parameters, x, y, z);
}
int dltDP_Calculate2DPosition(double* point, const double* parameters, double x, double y, double z) {
	return calculate2DPosition(point, parameters, x, y, z);
}
int dltSP_Calculate2DPosition(float* point, const float* parameters, const float* point3D) {
	return point3D ? calculate2DPosition(point, parameters, point3D[0], point3D[1], point3D[2]) : kQorFailure;
}
int dltDP_Calculate2DPosition(double* point, const double* parameters, const double* point3D) {
	return point3D ? calculate2DPosition(point, parameters, point3D[0], point3D[1], point3D[2]) : kQorFailure;
}

int dltSP_Calculate3D(
    float* point, const float* parametersA, float uA, float vA, const float* parametersB, float uB, float /*vB*/) {
	return calculate3D(point, parametersA, uA, vA, parametersB, uB);
}
int dltDP_Calculate3D(double* point, const double* parametersA, double uA, double vA, const double* parametersB,
    double uB, double /*vB*/) {
	return calculate3D(point, parametersA, uA, vA, parametersB, uB);
}
int dltSP_Calculate3D_AVP(
    float* point, const float* parametersA, float uA, float vA, const float* parametersB, float uB, float vB) {
	return dltSP_Calculate3D(point, parametersA, uA, vA, parametersB, uB, vB);
}
int dltDP_Calculate3D_AVP(
    double* point, const double* parametersA, double uA, double vA, const double* parametersB, double uB, double vB) {
	return dltDP_Calculate3D(point, parametersA, uA, vA, parametersB, uB, vB);
}

float dltSP_Calculate_D_FromParameters(const float* parameters) { return std::sqrt(inverseSquareSum(parameters)); }
float dltSP_Calculate_D_Square_FromParameters(const float* parameters) { return inverseSquareSum(parameters); }
float dltSP_Calculate_uo_FromParameters(const float* parameters) { return principalPoint(parameters, 0); }
float dltSP_Calculate_vo_FromParameters(const float* parameters) { return principalPoint(parameters, 4); }
float dltSP_Calculate_du_Square_FromParameters(const float* parameters) {
	return principalDistanceSquare(parameters, 0);
}
float dltSP_Calculate_dv_Square_FromParameters(const float* parameters) {
	return principalDistanceSquare(parameters, 4);
}

int dlt2DSP_CalculateParameters(float* parameters, const float* first, const float* second, int count) {
	return calculatePlaneParameters(parameters, first, second, count);
}
int dlt2DDP_CalculateParameters(double* parameters, const double* first, const double* second, int count) {
	return calculatePlaneParameters(parameters, first, second, count);
}
int dlt2DSP_CalculatePosition(float* point, const float* parameters, float u, float v) {
	return calculatePosition(point, parameters, u, v);
}
int dlt2DDP_CalculatePosition(double* point, const double* parameters, double u, double v) {
	return calculatePosition(point, parameters, u, v);
}
int dlt2DSP_CalculateInversePosition(float* point, const float* parameters, float a, float b) {
	return calculateInversePosition(point, parameters, a, b);
}
int dlt2DDP_CalculateInversePosition(double* point, const double* parameters, double a, double b) {
	return calculateInversePosition(point, parameters, a, b);
}
