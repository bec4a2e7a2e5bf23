#include "calibration.h"

#include "residual_picture.h"

#include <qor/math/camera_calibration.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>

namespace {

constexpr double kFlatCondition = 50;
constexpr double kSuspectRatio = 4; // of a residual beside the deviation that most of them show

struct Result {
	double parameters[11] = {};
	DltQuality quality = {};
	std::vector<double> residuals;
	int suspect = -1; // index of the point that fits the others worst, when that is bad
	int standOut = 0; // points with residuals far longer than most
};

const char* meaningOf(int code) {
	switch (code) {
	case 0: return "ok";
	case kDltTooFewPoints: return "too few points";
	case kDltDegenerate: return "the points leave the parameters open";
	case kDltNotConverged: return "no minimum found in 100 steps";
	default: return "failed";
	}
}

/// Camera and plane differ in the functions to call and in the number of parameters.
class Calibration {
public:
	explicit Calibration(const PointList& points)
	    : mPoints(points), mWorld(points.world.data()), mImage(points.image.data()) {}

	bool isCamera() const { return mPoints.dimensions == 3; }
	int parameterCount() const { return isCamera() ? 11 : 8; }

	int singlePrecision(double* l) const {
		const std::vector<float> world(mPoints.world.begin(), mPoints.world.end());
		const std::vector<float> image(mPoints.image.begin(), mPoints.image.end());
		float parameters[11] = {};
		const auto form = isCamera() ? dltSP_CalculateParameters : dlt2DSP_CalculateParameters;
		const int code = form(parameters, world.data(), image.data(), mPoints.count());
		std::copy(parameters, parameters + parameterCount(), l);
		return code;
	}
	int doublePrecision(double* l) const {
		return (isCamera() ? dltDP_CalculateParameters : dlt2DDP_CalculateParameters)(
		    l, mWorld, mImage, mPoints.count());
	}
	int normalised(double* l) const {
		return (isCamera() ? dltCalibrateCamera : dltCalibratePlane)(l, mWorld, mImage, mPoints.count());
	}
	int refined(double* l) const {
		const int code = normalised(l);
		const auto refine = isCamera() ? dltRefineCamera : dltRefinePlane;
		return code ? code : refine(l, mWorld, mImage, mPoints.count(), nullptr);
	}
	int assess(const double* l, DltQuality& quality) const {
		return (isCamera() ? dltAssessCamera : dltAssessPlane)(&quality, l, mWorld, mImage, mPoints.count());
	}
	std::vector<double> residuals(const double* l) const {
		std::vector<double> result(mPoints.image.size());
		(isCamera() ? dltCalculateResidualsCamera : dltCalculateResidualsPlane)(
		    result.data(), l, mWorld, mImage, mPoints.count());
		return result;
	}

private:
	const PointList& mPoints;
	const double *mWorld, *mImage;
};

/// Finds residuals that are far longer than most: the median of lengths of errors in u and v is
/// 1.177 of their deviation, and a few wrong points do not move it. Only the longest one is under
/// suspicion, for it drags others along.
void findSuspect(Result& result) {
	std::vector<double> lengths(result.residuals.size() / 2);
	for (size_t i = 0; i < lengths.size(); ++i)
		lengths[i] = std::hypot(result.residuals[2 * i], result.residuals[2 * i + 1]);
	auto sorted = lengths;
	std::nth_element(sorted.begin(), sorted.begin() + static_cast<long>(sorted.size() / 2), sorted.end());
	const double limit = kSuspectRatio * sorted[sorted.size() / 2] / 1.177 + 1e-6;
	result.standOut =
	    static_cast<int>(std::count_if(lengths.begin(), lengths.end(), [&](double length) { return length > limit; }));
	if (result.standOut) result.suspect = result.quality.worstPoint;
}

/// Prints the forms beside each other. @return the refined form's code.
int compareForms(const Calibration& calibration, Result& result, std::vector<std::string>& warnings) {
	using Form = int (Calibration::*)(double*) const;
	static constexpr struct {
		const char* name;
		Form form;
	} kForms[] = {
	    {"single precision", &Calibration::singlePrecision},
	    {"double precision", &Calibration::doublePrecision},
	    {"normalised", &Calibration::normalised},
	    {"refined", &Calibration::refined},
	};
	int code = 0;
	double rms[4];
	std::printf("\n%-18s %14s %14s   %s\n", "form", "RMS, pixels", "worst, pixels", "result");
	for (int i = 0; i < 4; ++i) {
		DltQuality quality = {};
		rms[i] = INFINITY;
		const auto& [name, form] = kForms[i];
		code = (calibration.*form)(result.parameters);
		const bool usable = code == 0 || code == kDltNotConverged;
		if (usable && calibration.assess(result.parameters, quality) == 0) {
			std::printf("%-18s %14.4f %14.4f   %s\n", name, quality.rms, quality.maximum, meaningOf(code));
			result.quality = quality;
			rms[i] = quality.rms;
		} else {
			if (usable) code = kDltBadArgument;
			std::printf("%-18s %14s %14s   %s\n", name, "-", "-", meaningOf(code));
		}
	}
	for (int i = 0; i < 2; ++i) {
		if (rms[i] > 1.2 * rms[3] + 1e-3)
			warnings.push_back(std::string(kForms[i].name) + " is not good enough for these points and units");
	}
	return code;
}

void printCamera(const Result& result) {
	double position[3], direction[3];
	float single[11];
	std::copy(result.parameters, result.parameters + 11, single);
	const float uo = dltSP_Calculate_uo_FromParameters(single), vo = dltSP_Calculate_vo_FromParameters(single);
	dltDP_CalculateCameraPosition(position, result.parameters);
	dltDP_CalculateDirector(direction, result.parameters, uo, vo);
	const auto& errors = result.quality.positionErrors;
	std::printf("\ncamera position      %.6g %.6g %.6g  +- %.2g %.2g %.2g\n", position[0], position[1], position[2],
	    errors[0], errors[1], errors[2]);
	std::printf("viewing direction    %.5f %.5f %.5f\n", direction[0], direction[1], direction[2]);
	std::printf("principal point      %.2f %.2f\n", uo, vo);
	std::printf("principal distances  %.2f %.2f\n", std::sqrt(dltSP_Calculate_du_Square_FromParameters(single)),
	    std::sqrt(dltSP_Calculate_dv_Square_FromParameters(single)));
	std::printf("origin to focal plane %.6g\n", dltSP_Calculate_D_FromParameters(single));
}

void printParameters(const Result& result, int count) {
	std::printf("\nparameters, and their standard deviations\n");
	for (int i = 0; i < count; ++i)
		std::printf("L%-3d %22.14e %10.1e\n", i + 1, result.parameters[i], result.quality.parameterErrors[i]);
	std::printf("\nerror of one image coordinate  %.3f pixels\ncondition of the equations      %.1f\n",
	    result.quality.sigma, result.quality.condition);
}

void printResiduals(const PointList& points, const Result& result) {
	std::printf("\npoint          u          v     du     dv  length, pixels\n");
	for (size_t i = 0; i < points.numbers.size(); ++i) {
		const double du = result.residuals[2 * i], dv = result.residuals[2 * i + 1];
		std::printf("%5d %10.2f %10.2f %6.2f %6.2f %7.2f%s\n", points.numbers[i], points.image[2 * i],
		    points.image[2 * i + 1], du, dv, std::hypot(du, dv), static_cast<int>(i) == result.suspect ? "  <-" : "");
	}
}

void judge(const PointList& points, const Result& result, int code, std::vector<std::string>& warnings) {
	const int few = points.dimensions == 3 ? 10 : 8;
	if (points.count() < few)
		warnings.push_back(std::to_string(points.count()) + " points leave little to judge by: take " +
		                   std::to_string(few) + " or more");
	if (result.quality.condition > kFlatCondition)
		warnings.emplace_back("the points hardly determine the camera: they are few, or nearly on a plane or a line");
	if (result.quality.pointsBehind)
		warnings.push_back(std::to_string(result.quality.pointsBehind) + " points lie behind the camera");
	if (code != 0) warnings.emplace_back(meaningOf(code));
	if (result.suspect < 0) return;
	const auto number = std::to_string(points.numbers[static_cast<size_t>(result.suspect)]);
	warnings.push_back(
	    "point " + number + " fits the others worst: measure it again, or leave it out (--without " + number + ")");
	if (result.standOut > 1)
		warnings.push_back(std::to_string(result.standOut - 1) + " more stand out: look again when it is settled");
}

} // namespace

int calibrate(const CalibrationOptions& options, int dimensions) {
	PointList points;
	if (!readPoints(options.file, dimensions, points)) return kExitTrouble;
	for (const int number : options.without) {
		if (points.remove(number)) continue;
		std::cerr << "calibrate: there is no point " << number << "\n";
		return kExitUsage;
	}
	std::printf("%d points from %s\n", points.count(), options.file.c_str());
	if (points.count() == 0) {
		std::cerr << "calibrate: no points\n";
		return kExitNoCalibration;
	}

	const Calibration calibration(points);
	Result result;
	std::vector<std::string> warnings;
	const int code = compareForms(calibration, result, warnings);
	if (code != 0 && code != kDltNotConverged) return kExitNoCalibration;
	result.residuals = calibration.residuals(result.parameters);
	findSuspect(result);
	judge(points, result, code, warnings);

	if (calibration.isCamera()) printCamera(result);
	printParameters(result, calibration.parameterCount());
	printResiduals(points, result);
	std::printf("\n");
	for (const auto& warning : warnings) std::printf("WARNING: %s\n", warning.c_str());
	if (warnings.empty()) std::printf("no warnings\n");
	if (options.picture.empty()) return kExitGood;
	const ResidualPicture picture = {
	    points.image, result.residuals, points.numbers, result.suspect, result.quality.rms, options.factor};
	return writePicture(options.picture, picture) ? kExitGood : kExitTrouble;
}
