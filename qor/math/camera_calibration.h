#pragma once

#include "direct_linear_transformation.h"

/// Calibrates as well as the points allow, and says how well that is.
///
/// The models, arrays and parameters are those of `direct_linear_transformation.h`, in double
/// precision; the functions ending in `Camera` take at least 6 points in space for 11
/// parameters, those ending in `Plane` at least 4 points of a plane for 8. A calibration takes
/// two steps and a look:
/// ```cpp
/// int result = dltCalibrateCamera(parameters, points3D, points2D, count);      // linear
/// if (result == 0) result = dltRefineCamera(parameters, points3D, points2D, count, nullptr);
/// DltQuality quality;
/// if (result == 0) result = dltAssessCamera(&quality, parameters, points3D, points2D, count);
/// ```
/// The points are read in a few passes and summed up in a fixed space on the stack: any number
/// of points, and nothing that can fail for lack of memory. Outputs stay untouched on failure
/// unless stated otherwise. Any thread may call.
///
/// Results, all functions: 0; `kDltTooFewPoints`; `kDltDegenerate` when the points leave the
/// parameters open or the focal plane contains the origin; `kDltNotConverged`;
/// `kDltBadArgument` for null, for values that are not finite or too large to compute with, and
/// for parameters with w = 0, to rounding, at a point or at the points' centroid.
///
/// Which points leave the parameters open is told from where they stand in the world, whatever
/// the errors in the image, the unit and the origin: `Camera`, all on one plane, or on one plane
/// but for one place, on two straight lines, or at fewer than 6 places; `Plane`, all on one line,
/// or on one line but for one place. Distances below 1e-7 of the extent, or below the rounding of
/// the coordinates, count as none. Points that are all seen at one place leave them open, too.
inline constexpr int kDltNotConverged = -101;
inline constexpr int kDltBadArgument = kQorFailure;

/// Solves the linear equations of the calibration without squaring their condition.
///
/// Points are moved to their centroid and scaled to a mean distance of the square root of
/// their dimension (Hartley, 1997), which also puts w = 1 at the centroid, where every camera
/// that sees the points has a positive w. The equations are solved by an orthogonal (QR)
/// factorisation. What is minimised is still the error of the equations, not that of the image.
///
/// @param parameters 11 (`Plane`: 8) values out, in the units of the points.
QOR_API int dltCalibrateCamera(double* parameters, const double* points3D, const double* points2D, int count);
QOR_API int dltCalibratePlane(double* parameters, const double* first, const double* second, int count);

/// Minimises the sum of the squared distances in the image between the measured points and
/// the projected ones, by the Levenberg-Marquardt method: the best estimate when the
/// measured image points have independent errors of one size.
///
/// @param parameters in: where to start, as a rule the result of the linear calibration;
///                   out: the minimum, with `kDltNotConverged` the best found in 100 steps.
///                   The error in the image does not grow beyond the start's, but for rounding.
///                   With any other failure they are what they were.
/// @param steps      accepted steps out; may be null.
QOR_API int dltRefineCamera(double* parameters, const double* points3D, const double* points2D, int count, int* steps);
QOR_API int dltRefinePlane(double* parameters, const double* first, const double* second, int count, int* steps);

/// Calculates the residual of each point: measured less projected, pairs (du, dv).
/// @param residuals 2 * `count` values out; not a number where w = 0, to rounding.
/// @return 0; `kDltTooFewPoints` for no points; `kDltBadArgument`.
QOR_API int dltCalculateResidualsCamera(
    double* residuals, const double* parameters, const double* points3D, const double* points2D, int count);
QOR_API int dltCalculateResidualsPlane(
    double* residuals, const double* parameters, const double* first, const double* second, int count);

/// How good a calibration is. Image units are pixels when the image points are. The record stays
/// as it is: what is to come has a record of its own.
struct DltQuality {
	/// Root mean square of the residuals' lengths, image units.
	double rms;
	/// The longest residual, image units, and its point's index.
	double maximum;
	int worstPoint;
	/// Points for which w has another sign than at most points, which no camera can see.
	int pointsBehind;
	/// Standard deviation of one measured image coordinate, estimated from the residuals:
	/// the root of their square sum over 2 * count - 11 (`Plane`: - 8). Not a number without
	/// surplus points (a plane from 4).
	double sigma;
	/// Condition number, in the 2-norm, of the linear equations of the centred and scaled points
	/// (see `dltCalibrateCamera`): how unequally well the points determine the parameters. It
	/// depends on where the points stand to each other and to the camera, not on units or
	/// origin. Twenty points all over a cube: about 4; few or flat points: larger; infinite when
	/// they leave the parameters open.
	double condition;
	/// Standard deviations of the parameters to first order, for measured image points with
	/// independent errors of `sigma`; not a number where `sigma` is, else infinite when the points
	/// leave the parameters open. `Plane` sets 8, the rest 0.
	double parameterErrors[11];
	/// The same for the camera position, in world units; also not a number for a parallel
	/// projection, which has no position; 0 from `Plane`.
	double positionErrors[3];
};
static_assert(sizeof(DltQuality) == 152);

/// Judges parameters by the points. They should come from `dltRefineCamera` or `dltRefinePlane`
/// for the standard deviations to hold. Points that would not calibrate are judged all the same:
/// the residuals tell how well they fit, `condition` and the standard deviations are infinite.
QOR_API int dltAssessCamera(
    DltQuality* quality, const double* parameters, const double* points3D, const double* points2D, int count);
QOR_API int dltAssessPlane(
    DltQuality* quality, const double* parameters, const double* first, const double* second, int count);
