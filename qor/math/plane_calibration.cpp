#include "plane_calibration.h"

#include "gaussian_elimination_internal.h"

#include <algorithm>
#include <cmath>
#include <limits>

CqorDLT8::CqorDLT8() = default;
CqorDLT8::~CqorDLT8() = default;
CqorDLT8::CqorDLT8(const CqorDLT8&) = default;
CqorDLT8& CqorDLT8::operator=(const CqorDLT8&) = default;

int CqorDLT8::GetPointCount() const { return mPointCount; }
bool CqorDLT8::HasParameters() const { return mHasParameters; }

void CqorDLT8::Reset() { *this = CqorDLT8(); }

int CqorDLT8::AddPoint(double a, double b, double u, double v) {
	if (mPointCount == kMaximumPoints) return kQorFailure;
	++mPointCount;
	const int result = SetPoint(mPointCount - 1, a, b, u, v);
	if (result != kQorSuccess) --mPointCount;
	return result;
}

int CqorDLT8::SetPoint(int index, double a, double b, double u, double v) {
	if (index < 0 || index >= mPointCount || !calibration::allFinite({a, b, u, v})) return kQorFailure;
	mPlane[2 * index] = a;
	mPlane[2 * index + 1] = b;
	mImage[2 * index] = u;
	mImage[2 * index + 1] = v;
	return kQorSuccess;
}

int CqorDLT8::GetPoint(int index, double* a, double* b, double* u, double* v) const {
	if (index < 0 || index >= mPointCount) return kQorFailure;
	if (a) *a = mPlane[2 * index];
	if (b) *b = mPlane[2 * index + 1];
	if (u) *u = mImage[2 * index];
	if (v) *v = mImage[2 * index + 1];
	return kQorSuccess;
}

int CqorDLT8::CalculateParameters() {
	const int result = dlt2DDP_CalculateParameters(mParameters, mPlane, mImage, mPointCount);
	mHasParameters = result == kQorSuccess;
	return result;
}

int CqorDLT8::GetParameters(double* parameters) const {
	if (!mHasParameters || !parameters) return kQorFailure;
	std::copy_n(mParameters, 8, parameters);
	return kQorSuccess;
}

int CqorDLT8::SetParameters(const double* parameters) {
	if (!parameters || !std::all_of(parameters, parameters + 8, [](double value) { return std::isfinite(value); }))
		return kQorFailure;
	std::copy_n(parameters, 8, mParameters);
	mHasParameters = true;
	return kQorSuccess;
}

int CqorDLT8::CalculatePosition(double u, double v, double* a, double* b) const {
	double point[2];
	if (!mHasParameters || !a || !b || dlt2DDP_CalculatePosition(point, mParameters, u, v) != kQorSuccess)
		return kQorFailure;
	*a = point[0];
	*b = point[1];
	return kQorSuccess;
}

int CqorDLT8::CalculateInversePosition(double a, double b, double* u, double* v) const {
	double point[2];
	if (!mHasParameters || !u || !v || dlt2DDP_CalculateInversePosition(point, mParameters, a, b) != kQorSuccess)
		return kQorFailure;
	*u = point[0];
	*v = point[1];
	return kQorSuccess;
}

int CqorDLT8::CalculateResidual(int index, double* du, double* dv) const {
	double a, b, u, v, projected[2];
	if (!du || !dv || GetPoint(index, &a, &b, &u, &v) != kQorSuccess ||
	    CalculateInversePosition(a, b, &projected[0], &projected[1]) != kQorSuccess)
		return kQorFailure;
	*du = u - projected[0];
	*dv = v - projected[1];
	return kQorSuccess;
}

double CqorDLT8::CalculateRms() const {
	double sum = 0;
	for (int i = 0; i < mPointCount; ++i) {
		double du, dv;
		if (CalculateResidual(i, &du, &dv) != kQorSuccess) return std::numeric_limits<double>::quiet_NaN();
		sum += du * du + dv * dv;
	}
	return std::sqrt(sum / mPointCount); // 0 / 0 without points: not a number
}
