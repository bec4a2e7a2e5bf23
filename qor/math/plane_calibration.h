#pragma once

#include "direct_linear_transformation.h"

/// Constants of `CqorDLT8`, where hosts can bind them by reference.
struct CqorDLT8Constants {
	static constexpr int kMaximumPoints = kDlt2DMaximumPoints;
};

/// Calibrates a camera that looks at a plane, from up to 32 points, and converts points both
/// ways. Double precision; see `direct_linear_transformation.h` for the model.
///
/// Points and parameters are independent: changing points keeps the parameters until the next
/// `CalculateParameters`, and `SetParameters` needs no points. Plain data that may be copied;
/// not locked.
class QOR_API CqorDLT8 : public CqorDLT8Constants {
public:
	CqorDLT8();
	~CqorDLT8(); // NOLINT(performance-trivially-destructible): the class may grow behind its hosts
	CqorDLT8(const CqorDLT8&);
	CqorDLT8& operator=(const CqorDLT8&);

	/// Forgets points and parameters.
	void Reset();

	/// Adds the plane point (a, b) that is seen at the image point (u, v).
	/// @return 0; 0x10000000, with nothing changed, when 32 points are there or a value is not finite.
	int AddPoint(double a, double b, double u, double v);

	/// Replaces a point.
	/// @return 0; 0x10000000, with nothing changed, outside the list or when a value is not finite.
	int SetPoint(int index, double a, double b, double u, double v);

	/// Reads a point; each target may be null.
	/// @return 0; 0x10000000, with the targets untouched, outside the list.
	int GetPoint(int index, double* a, double* b, double* u, double* v) const;

	int GetPointCount() const;

	/// Calculates the parameters from the points (`dlt2DDP_CalculateParameters`).
	/// @return 0; 0x10000000 for fewer than 4 points or points that leave the parameters open.
	///         There are no parameters then: those of former points would be misleading.
	int CalculateParameters();

	bool HasParameters() const;

	/// Copies the 8 parameters out.
	/// @return 0; 0x10000000 without parameters or for null.
	int GetParameters(double* parameters) const;

	/// Takes 8 parameters, for example stored ones.
	/// @return 0; 0x10000000, with nothing changed, for null or a value that is not finite.
	int SetParameters(const double* parameters);

	/// Takes an image point to the plane.
	/// @return 0; 0x10000000, with the targets untouched, without parameters, for null and as
	///         `dlt2DDP_CalculatePosition`.
	int CalculatePosition(double u, double v, double* a, double* b) const;

	/// Takes a plane point to the image.
	/// @return 0; 0x10000000, with the targets untouched, without parameters, for null and when w = 0.
	int CalculateInversePosition(double a, double b, double* u, double* v) const;

	/// The measured image point less the one that the parameters give for the plane point.
	/// @return 0; 0x10000000, with the targets untouched, outside the list, without parameters,
	///         for null and when w = 0.
	int CalculateResidual(int index, double* du, double* dv) const;

	/// The root mean square of the residuals' lengths; not a number without points or when a
	/// residual has no value.
	double CalculateRms() const;

private:
	double mPlane[2 * kMaximumPoints] = {}; // pairs (a, b)
	double mImage[2 * kMaximumPoints] = {}; // pairs (u, v)
	double mParameters[8] = {};
	int mPointCount = 0;
	bool mHasParameters = false;
	void* mMore = nullptr; // for what is to come
};
