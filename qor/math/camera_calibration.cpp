#include "camera_calibration.h"

#include "condition_internal.h"
#include "gaussian_elimination_internal.h"
#include "projective_model_internal.h"
#include "refinement_internal.h"

#include <algorithm>
#include <cmath>
#include <limits>

using calibration::conditionNumber;
using calibration::Model;
using calibration::Normalisation;
using calibration::Points;
using calibration::ProjectiveSystem;
using calibration::Refinement;
using calibration::solveByElimination;
using calibration::Triangle;

namespace {

constexpr double kNoValue = std::numeric_limits<double>::quiet_NaN();
constexpr double kOpen = std::numeric_limits<double>::infinity();

template <int D>
int check(const Points<D>& points, const double* output, int minimum) {
	if (!points.world || !points.image || !output) return kDltBadArgument;
	return points.count < minimum ? kDltTooFewPoints : kQorSuccess;
}

template <int D>
Triangle<double, Model<D>::kParameters> factorise(const Points<D>& points, const Normalisation<D>& normalisation) {
	ProjectiveSystem<double, D> system;
	double x[D], u, v;
	for (int i = 0; i < points.count; ++i) {
		normalisation.get(points, i, x, u, v);
		Model<D>::addEquations(system, x, u, v);
	}
	return system.finish();
}

template <int D>
int calibrate(double* parameters, const Points<D>& points) {
	using M = Model<D>;
	if (const int fault = check(points, parameters, M::kMinimumPoints)) return fault;
	Normalisation<D> normalisation;
	if (!normalisation.measure(points)) return kDltBadArgument;
	if (leaveOpen(points)) return kDltDegenerate;
	typename M::Parameters normalised, result;
	if (!factorise(points, normalisation).solve(normalised) || !normalisation.fromNormalised(normalised, result))
		return kDltDegenerate;
	std::copy_n(result, M::kParameters, parameters);
	return kQorSuccess;
}

template <int D>
int refine(double* parameters, const Points<D>& points, int* steps) {
	using M = Model<D>;
	if (const int fault = check(points, parameters, M::kMinimumPoints)) return fault;
	Normalisation<D> normalisation;
	typename M::Parameters start, normalised;
	std::copy_n(parameters, M::kParameters, start);
	if (!normalisation.measure(points)) return kDltBadArgument;
	if (leaveOpen(points)) return kDltDegenerate;
	if (anyOnFocalPlane(points, start) || !normalisation.toNormalised(start, normalised)) return kDltBadArgument;
	Refinement<D> refinement(points, normalisation);
	const auto end = refinement.run(normalised);
	if (end == Refinement<D>::End::noStart) return kDltBadArgument;
	if (refinement.steps() > 0) {
		if (!normalisation.fromNormalised(normalised, start)) return kDltDegenerate;
		std::copy_n(start, M::kParameters, parameters);
	}
	if (steps) *steps = refinement.steps();
	return end == Refinement<D>::End::minimum ? kQorSuccess : kDltNotConverged;
}

template <int D>
int calculateResiduals(double* residuals, const double* parameters, const Points<D>& points) {
	if (!parameters) return kDltBadArgument;
	if (const int fault = check(points, residuals, 1)) return fault;
	typename Model<D>::Parameters l;
	std::copy_n(parameters, Model<D>::kParameters, l);
	double x[D], u, v;
	for (int i = 0; i < points.count; ++i) {
		points.get(i, x, u, v);
		const auto image = Model<D>::project(l, x);
		const bool seen = !Model<D>::isOnFocalPlane(l, x);
		residuals[static_cast<size_t>(i) * 2] = seen ? u - image.u : kNoValue;
		residuals[static_cast<size_t>(i) * 2 + 1] = seen ? v - image.v : kNoValue;
	}
	return kQorSuccess;
}

/// Residuals, in one pass with the derivatives for the standard deviations.
template <int D>
Triangle<double, Model<D>::kParameters> measureResiduals(
    DltQuality& quality, const typename Model<D>::Parameters& l, const Points<D>& points) {
	using M = Model<D>;
	ProjectiveSystem<double, D> derivatives;
	double x[D], u, v, sum = 0, largest = -1;
	int negative = 0;
	for (int i = 0; i < points.count; ++i) {
		points.get(i, x, u, v);
		M::addDerivatives(derivatives, l, x, u, v);
		const auto image = M::project(l, x);
		const double square = (u - image.u) * (u - image.u) + (v - image.v) * (v - image.v);
		sum += square;
		negative += image.w < 0;
		if (square > largest) {
			largest = square;
			quality.worstPoint = i;
		}
	}
	quality.rms = std::sqrt(sum / points.count);
	quality.maximum = std::sqrt(largest);
	quality.pointsBehind = std::min(negative, points.count - negative);
	const double surplus = 2.0 * points.count - M::kParameters;
	quality.sigma = surplus > 0 ? std::sqrt(sum / surplus) : kNoValue;
	return derivatives.finish();
}

/// Standard deviations of sums of the parameters; infinite where the points leave them open.
template <int N>
struct Deviations {
	Triangle<double, N> derivatives;
	double sigma;
	bool open;

	double of(const double (&weights)[N]) const {
		if (std::isnan(sigma)) return sigma;
		const double part = open ? kOpen : derivatives.deviation(weights);
		return std::isfinite(part) ? sigma * part : kOpen; // also for a sigma of 0
	}
};

/// Differentiating  M position = -m  by the parameters in M and m gives, for each coordinate, the
/// weights by which parameter errors reach it; those of row i are -inverse(M)[j][i] * (position, 1).
void calculatePositionErrors(DltQuality& quality, const double* l, const Deviations<11>& deviations) {
	double position[3];
	dltDP_CalculateCameraPosition(position, l);
	for (int j = 0; j < 3; ++j) {
		double transposed[3][4], inverse[3], weights[11];
		for (int i = 0; i < 3; ++i) {
			for (int k = 0; k < 3; ++k) transposed[i][k] = l[4 * k + i];
			transposed[i][3] = i == j ? 1 : 0;
		}
		quality.positionErrors[j] = kNoValue;
		if (!solveByElimination(transposed, inverse, 0.0, 0.0)) continue;
		for (int k = 0; k < 11; ++k) weights[k] = -inverse[k / 4] * (k % 4 == 3 ? 1 : position[k % 4]);
		quality.positionErrors[j] = deviations.of(weights);
	}
}

template <int D>
int assess(DltQuality* quality, const double* parameters, const Points<D>& points) {
	using M = Model<D>;
	if (!quality || !parameters) return kDltBadArgument;
	if (const int fault = check(points, parameters, M::kMinimumPoints)) return fault;
	Normalisation<D> normalisation;
	if (!normalisation.measure(points)) return kDltBadArgument;
	typename M::Parameters l;
	std::copy_n(parameters, M::kParameters, l);
	if (anyOnFocalPlane(points, l)) return kDltBadArgument;

	DltQuality result = {};
	const auto derivatives = measureResiduals<D>(result, l, points);
	if (!std::isfinite(result.rms)) return kDltBadArgument;
	const Deviations<M::kParameters> deviations{derivatives, result.sigma, leaveOpen(points)};
	result.condition = deviations.open ? kOpen : conditionNumber(factorise(points, normalisation));
	for (int k = 0; k < M::kParameters; ++k) {
		typename M::Parameters unit = {};
		unit[k] = 1;
		result.parameterErrors[k] = deviations.of(unit);
	}
	if constexpr (D == 3) calculatePositionErrors(result, l, deviations);
	*quality = result;
	return kQorSuccess;
}

} // namespace

int dltCalibrateCamera(double* parameters, const double* points3D, const double* points2D, int count) {
	return calibrate<3>(parameters, {points3D, points2D, count});
}
int dltCalibratePlane(double* parameters, const double* first, const double* second, int count) {
	return calibrate<2>(parameters, {first, second, count});
}

int dltRefineCamera(double* parameters, const double* points3D, const double* points2D, int count, int* steps) {
	return refine<3>(parameters, {points3D, points2D, count}, steps);
}
int dltRefinePlane(double* parameters, const double* first, const double* second, int count, int* steps) {
	return refine<2>(parameters, {first, second, count}, steps);
}

int dltCalculateResidualsCamera(
    double* residuals, const double* parameters, const double* points3D, const double* points2D, int count) {
	return calculateResiduals<3>(residuals, parameters, {points3D, points2D, count});
}
int dltCalculateResidualsPlane(
    double* residuals, const double* parameters, const double* first, const double* second, int count) {
	return calculateResiduals<2>(residuals, parameters, {first, second, count});
}

int dltAssessCamera(
    DltQuality* quality, const double* parameters, const double* points3D, const double* points2D, int count) {
	return assess<3>(quality, parameters, {points3D, points2D, count});
}
int dltAssessPlane(
    DltQuality* quality, const double* parameters, const double* first, const double* second, int count) {
	return assess<2>(quality, parameters, {first, second, count});
}
