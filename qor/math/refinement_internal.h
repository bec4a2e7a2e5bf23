#pragma once

#include "projective_model_internal.h"

namespace calibration {

/// Levenberg and Marquardt's method for the error in the image, on normalised points.
///
/// Each step factorises the derivatives (one pass over the points) and solves them damped;
/// damping grows until the error falls, which takes one pass a trial. The damping of a
/// parameter is in proportion to its derivatives, so units do not matter.
template <int D>
class Refinement {
public:
	using M = Model<D>;
	using Parameters = typename M::Parameters;
	enum class End { minimum, stepsUsedUp, noStart };

	Refinement(const Points<D>& points, const Normalisation<D>& normalisation)
	    : mPoints(points), mNormalisation(normalisation) {}

	End run(Parameters& p) {
		mError = errorOf(p);
		if (!std::isfinite(mError)) return End::noStart;
		while (mSteps < kMaximumSteps) {
			const auto derivatives = factorise(p);
			if (isMinimum(derivatives) || !improve(p, derivatives)) return End::minimum;
			++mSteps;
		}
		return End::stepsUsedUp;
	}

	int steps() const { return mSteps; }

private:
	using Derivatives = Triangle<double, M::kParameters>;
	static constexpr int kMaximumSteps = 100;
	static constexpr double kMinimumDamping = 1e-12, kMaximumDamping = 1e20;
	static constexpr double kFlat = 1e-7;       // cosine between residuals and what parameters can change
	static constexpr double kSmallStep = 1e-14; // as a part of the parameters' length

	double errorOf(const Parameters& p) const {
		double sum = 0, x[D], u, v;
		for (int i = 0; i < mPoints.count; ++i) {
			mNormalisation.get(mPoints, i, x, u, v);
			const auto image = M::project(p, x);
			sum += (u - image.u) * (u - image.u) + (v - image.v) * (v - image.v);
		}
		return sum;
	}

	Derivatives factorise(const Parameters& p) const {
		ProjectiveSystem<double, D> system;
		double x[D], u, v;
		for (int i = 0; i < mPoints.count; ++i) {
			mNormalisation.get(mPoints, i, x, u, v);
			M::addDerivatives(system, p, x, u, v);
		}
		return system.finish();
	}

	/// The right side of the triangle is the part of the residuals that a step could remove.
	bool isMinimum(const Derivatives& derivatives) const {
		double removable = 0;
		for (const auto& row : derivatives.rows) removable += row[M::kParameters] * row[M::kParameters];
		return removable <= kFlat * kFlat * mError;
	}

	/// @return false when not even the smallest step lowers the error.
	bool improve(Parameters& p, const Derivatives& derivatives) {
		for (; mDamping < kMaximumDamping; mDamping *= 10) {
			Derivatives damped = derivatives;
			Parameters weights, step, candidate;
			for (int k = 0; k < M::kParameters; ++k) weights[k] = std::sqrt(mDamping) * derivatives.columnLength(k);
			damped.damp(weights);
			if (!damped.solve(step)) continue;
			double stepSquare = 0, square = 0;
			for (int k = 0; k < M::kParameters; ++k) {
				candidate[k] = p[k] + step[k];
				stepSquare += step[k] * step[k];
				square += p[k] * p[k];
			}
			if (!(stepSquare > kSmallStep * kSmallStep * square)) return false;
			const double error = errorOf(candidate);
			if (!(error < mError)) continue;
			mError = error;
			std::copy_n(candidate, M::kParameters, p);
			mDamping = std::max(mDamping / 10, kMinimumDamping);
			return true;
		}
		return false;
	}

	const Points<D> mPoints;
	const Normalisation<D>& mNormalisation;
	double mError = 0;
	double mDamping = 1e-3;
	int mSteps = 0;
};

} // namespace calibration
