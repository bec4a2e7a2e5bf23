#pragma once

#include "../base/status.h"
#include "../platform/export.h"

/// Camera calibration by direct linear transformation (Abdel-Aziz and Karara, 1971).
///
/// The camera model has 11 parameters L1 to L11 and takes a point (X, Y, Z) to the image:
/// ```
/// w = L9 X + L10 Y + L11 Z + 1
/// u = (L1 X + L2 Y + L3 Z + L4) / w        v = (L5 X + L6 Y + L7 Z + L8) / w
/// ```
/// The plane model has 8 parameters and takes a point (a, b) of a plane to the image:
/// ```
/// w = L7 a + L8 b + 1
/// u = (L1 a + L2 b + L3) / w               v = (L4 a + L5 b + L6) / w
/// ```
/// Lengths are in any one unit, image coordinates in any one unit (pixels as a rule), and the
/// parameters belong to these units. Both models put w = 1 at the origin: a camera whose focal
/// plane (through its centre, parallel to the image) contains the origin has no parameters.
/// Image coordinates may have either handedness; the model takes it from the points.
///
/// `dltSP_` and `dlt2DSP_` work in single precision throughout, `dltDP_` and `dlt2DDP_` in
/// double precision, with the same algorithm. `camera_calibration.h` has functions that
/// calibrate better and say how well.
///
/// Points are consecutive triples (X, Y, Z) and consecutive pairs (u, v); the i-th pair belongs
/// to the i-th triple. Results go to the first argument, which may be one of the inputs, and
/// stay untouched on failure. A null array is refused: with -2 by the 3D calibration, with
/// 0x10000000 by the other functions with a status; values become 0, and `CalculateDirector`
/// does nothing. Not a number and infinity are refused by the calibrations; elsewhere they end in
/// a failure or in the result. Nothing is allocated, locked or kept; any thread may call.

/// Results of the 3D calibration other than 0.
///
/// The codes -3, -5, -10 and -11 say that working storage is missing (rows, right sides,
/// normal matrix, normal vector). They are reserved: the equations are summed up as they are
/// made, in a fixed space on the stack, so a million points need no more than six.
inline constexpr int kDltTooFewPoints = -2;
inline constexpr int kDltNoRows = -3;
inline constexpr int kDltNoRightSides = -5;
inline constexpr int kDltNoNormalMatrix = -10;
inline constexpr int kDltNoNormalVector = -11;
inline constexpr int kDltDegenerate = -100;

/// The plane calibration uses this many points and ignores the rest.
inline constexpr int kDlt2DMaximumPoints = 32;

// --- calibration ---

/// Calculates L1 to L11 from at least 6 points that do not lie on one plane.
///
/// Each point gives two linear equations; their least-squares solution comes from the normal
/// equations by Gaussian elimination with partial pivoting. Forming them squares the condition
/// of the problem. Points on one plane are degenerate, and so are those on one plane but for one
/// place, on two straight lines or at fewer than 6 places: to the rounding of their coordinates or
/// to 1e-7 of their extent, whatever is seen of them. So are points whose last pivot is below a
/// fixed 0.0001 in magnitude, whatever the units. That can meet sound points, too, when the product of a world and an
/// image coordinate is well below 1, or when there are only six: take smaller units, such as millimetres and pixels, or
/// `dltCalibrateCamera`, which knows no such limit.
///
/// @param parameters 11 values out.
/// @param points3D   3 * `count` values.
/// @param points2D   2 * `count` values.
/// @return 0; -2 for fewer than 6 points; -100 for points that stand so, when a pivot is zero or
///         the last one below 0.0001 in magnitude, or the data or the result are not finite.
QOR_API int dltSP_CalculateParameters(float* parameters, const float* points3D, const float* points2D, int count);
QOR_API int dltDP_CalculateParameters(double* parameters, const double* points3D, const double* points2D, int count);

/// Makes the parameters of an ideal camera: square pixels, no skew, no distortion.
///
/// Seen along `direction`, with `up` upwards, u grows to the right and v downwards, in a world
/// with right-handed axes: with r = direction x up and d = direction x r, all of unit length,
/// ```
/// u = uo + c r.(P - position) / direction.(P - position)
/// v = vo + c d.(P - position) / direction.(P - position)
/// ```
/// `CalculateCameraPosition` of the result gives `position`, `CalculateDirector` at (uo, vo)
/// gives `direction`, the derived quantities give uo, vo and c for both principal distances,
/// and D is the distance of the origin from the focal plane. w is positive in front of the
/// camera when the origin is in front of it, else negative.
///
/// @param parameters        11 values out.
/// @param position          centre of projection, 3 values.
/// @param direction         along the optical axis into the scene, of any length.
/// @param up                of any length; only its part perpendicular to `direction` counts.
/// @param principalDistance c, in image units, above 0.
/// @param uo, vo            principal point, in image units.
/// @return 0; 0x10000000 for a direction or up of no length, for parallel ones, for a
///         principal distance that is not above 0, for values that are not finite, and when
///         the focal plane contains the origin (to rounding).
QOR_API int dltSP_CalculateParametersFromVectors(float* parameters, const float* position, const float* direction,
    const float* up, float principalDistance, float uo, float vo);
QOR_API int dltDP_CalculateParametersFromVectors(double* parameters, const double* position, const double* direction,
    const double* up, double principalDistance, double uo, double vo);

// --- use of a calibration ---

/// Calculates the centre of projection (3 values).
/// @return 0, also for a camera at infinity (a parallel projection), which has no position: at
///         least one coordinate is not finite then.
QOR_API int dltSP_CalculateCameraPosition(float* position, const float* parameters);
QOR_API int dltDP_CalculateCameraPosition(double* position, const double* parameters);

/// Calculates the unit vector (3 values) along the ray of the image point (u, v).
///
/// It points into the scene where a turn from u to v is clockwise as the image is looked at
/// (v downwards), and out of it where v points upwards, in a world with right-handed axes.
/// Where the parameters leave no direction all three values are not a number.
QOR_API void dltSP_CalculateDirector(float* direction, const float* parameters, float u, float v);
QOR_API void dltDP_CalculateDirector(double* direction, const double* parameters, double u, double v);

/// Projects a point to the image (2 values).
/// @return 0; 0x10000000 when w = 0: the point lies on the focal plane.
QOR_API int dltSP_Calculate2DPosition(float* point, const float* parameters, float x, float y, float z);
QOR_API int dltDP_Calculate2DPosition(double* point, const double* parameters, double x, double y, double z);
QOR_API int dltSP_Calculate2DPosition(float* point, const float* parameters, const float* point3D);
QOR_API int dltDP_Calculate2DPosition(double* point, const double* parameters, const double* point3D);

/// Calculates the point (3 values) that camera A sees at (uA, vA) and camera B at (uB, vB).
///
/// Three equations determine it: both of camera A and the one of uB. `vB` is accepted and
/// deliberately not used, so its error cannot spoil a point; put the camera with the better
/// image first, and see to it that camera B is displaced along its u axis.
/// @return 0, also when the rays leave the point open: the coordinates are not finite then.
QOR_API int dltSP_Calculate3D(
    float* point, const float* parametersA, float uA, float vA, const float* parametersB, float uB, float vB);
QOR_API int dltDP_Calculate3D(
    double* point, const double* parametersA, double uA, double vA, const double* parametersB, double uB, double vB);
/// The same as `Calculate3D`.
QOR_API int dltSP_Calculate3D_AVP(
    float* point, const float* parametersA, float uA, float vA, const float* parametersB, float uB, float vB);
QOR_API int dltDP_Calculate3D_AVP(
    double* point, const double* parametersA, double uA, double vA, const double* parametersB, double uB, double vB);

// --- what the parameters say about the camera; single precision only ---

/// The distance of the origin from the focal plane, and its square; 0 when L9 = L10 = L11 = 0.
QOR_API float dltSP_Calculate_D_FromParameters(const float* parameters);
QOR_API float dltSP_Calculate_D_Square_FromParameters(const float* parameters);
/// The principal point, where the optical axis meets the image; 0 when L9 = L10 = L11 = 0.
QOR_API float dltSP_Calculate_uo_FromParameters(const float* parameters);
QOR_API float dltSP_Calculate_vo_FromParameters(const float* parameters);
/// The squares of the principal distances, measured in units of u and of v: the focal lengths
/// in pixels when u and v are pixels. 0 when L9 = L10 = L11 = 0.
QOR_API float dltSP_Calculate_du_Square_FromParameters(const float* parameters);
QOR_API float dltSP_Calculate_dv_Square_FromParameters(const float* parameters);

// --- plane ---

/// Calculates L1 to L8 from at least 4 points, four of them so that no three are on one line.
///
/// Each point gives two linear equations, as in the 3D calibration; their least-squares
/// solution comes from an orthogonal (QR) factorisation, which keeps single precision usable
/// with pixels. Of more than 32 points only the first 32 count: callers that pass a whole list
/// get the same parameters as with its first 32.
///
/// @param parameters 8 values out.
/// @param first      points (a, b) of the plane, 2 * `count` values.
/// @param second     their image points (u, v), 2 * `count` values.
/// @return 0; 0x10000000 for fewer than 4 points, for points that leave the parameters open (on
///         one line but for one place, to rounding or to 1e-7 of their extent), and when the
///         data or the result are not finite.
QOR_API int dlt2DSP_CalculateParameters(float* parameters, const float* first, const float* second, int count);
QOR_API int dlt2DDP_CalculateParameters(double* parameters, const double* first, const double* second, int count);

/// Takes the image point (u, v) back to the plane point (a, b) (2 values).
/// @return 0; 0x10000000 when a pivot of the 2 x 2 system is below 0.000001 in magnitude: the
///         ray is parallel to the plane, or the plane's unit is so small that a step of one
///         moves the image by no more than that.
QOR_API int dlt2DSP_CalculatePosition(float* point, const float* parameters, float u, float v);
QOR_API int dlt2DDP_CalculatePosition(double* point, const double* parameters, double u, double v);

/// Takes the plane point (a, b) to the image point (u, v) (2 values).
/// @return 0; 0x10000000 when w = 0.
QOR_API int dlt2DSP_CalculateInversePosition(float* point, const float* parameters, float a, float b);
QOR_API int dlt2DDP_CalculateInversePosition(double* point, const double* parameters, double a, double b);
