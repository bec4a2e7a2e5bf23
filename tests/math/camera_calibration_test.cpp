#include "qor/math/camera_calibration.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <span>
#include <tuple>
#include <vector>

namespace {

/// Points in a box, seen by a camera 4 m away; `unit` world units a metre.
struct Scene {
	explicit Scene(int count, double noise = 0, double unit = 1, double offset = 0, double height = 1) {
		const double centre[] = {offset, -offset, offset / 2};
		const double direction[] = {-1.4, 3.3, -1.6}, up[] = {0, 0, 1};
		for (int i = 0; i < 3; ++i) position[i] = (centre[i] - direction[i] + 0.1) * unit;
		EXPECT_EQ(dltDP_CalculateParametersFromVectors(truth.data(), position, direction, up, 2800, 640, 512), 0);
		std::uniform_real_distribution<double> part(-0.5, 0.5);
		for (int i = 0; i < 3 * count; ++i)
			points.push_back((centre[i % 3] + part(random) * (i % 3 == 2 ? height : 1)) * unit);
		measure(noise);
	}
	void measure(double noise) {
		std::normal_distribution<double> error(0, 1);
		uv.resize(points.size() / 3 * 2);
		for (size_t i = 0; i < uv.size(); i += 2) dltDP_Calculate2DPosition(&uv[i], truth.data(), &points[i / 2 * 3]);
		for (double& value : uv) value += noise * error(random);
	}
	int count() const { return static_cast<int>(uv.size() / 2); }
	int calibrate(double* l) const { return dltCalibrateCamera(l, points.data(), uv.data(), count()); }
	int refine(double* l) const { return dltRefineCamera(l, points.data(), uv.data(), count(), nullptr); }
	DltQuality assess(const double* l) const {
		DltQuality quality = {};
		EXPECT_EQ(dltAssessCamera(&quality, l, points.data(), uv.data(), count()), 0);
		return quality;
	}

	std::mt19937 random{3};
	double position[3];
	std::array<double, 11> truth;
	std::vector<double> points, uv;
};

TEST(CameraCalibration, ExactPointsGiveTheCamera) {
	for (const int count : {6, 32, 33, 20000}) // 32 points are summed up at a time
		for (const int variant : {0, 1, 2, 3}) {
			const Scene scene(count, 0, variant & 1 ? 1000 : 1, variant & 2 ? 300 : 0);
			double l[11], position[3];
			ASSERT_EQ(scene.calibrate(l), 0);
			EXPECT_LT(scene.assess(l).maximum, 1e-6) << count << " " << variant;
			ASSERT_EQ(scene.refine(l), 0);
			dltDP_CalculateCameraPosition(position, l);
			for (int i = 0; i < 3; ++i) EXPECT_NEAR(position[i] / scene.position[i], 1, 1e-7);
		}
}

TEST(CameraCalibration, RefinementReachesTheMinimum) {
	for (const int count : {6, 8, 20}) {
		const Scene scene(count, 2, 1000, 20, 0.3);
		double l[11], poor[11];
		ASSERT_EQ(scene.calibrate(l) + scene.refine(l), 0);
		const auto quality = scene.assess(l);
		// A change of any parameter by a tenth of its deviation makes it worse.
		for (int k = 0; k < 22; ++k) {
			double moved[11];
			std::copy(l, l + 11, moved);
			moved[k % 11] += (k < 11 ? 0.1 : -0.1) * quality.parameterErrors[k % 11];
			EXPECT_GT(scene.assess(moved).rms, quality.rms) << k;
		}
		for (size_t k = 0; k < 11; ++k) poor[k] = scene.truth[k] * (1 + 0.002 * std::sin(static_cast<double>(k)));
		int steps = 0;
		ASSERT_EQ(dltRefineCamera(poor, scene.points.data(), scene.uv.data(), count, &steps), 0);
		EXPECT_GT(steps, 0);
		EXPECT_NEAR(scene.assess(poor).rms, quality.rms, 1e-6 * quality.rms);
	}
}

TEST(CameraCalibration, DeviationsAreThoseOfRepeatedMeasurements) {
	Scene scene(20, 0, 1000, 5);
	double seen[5] = {}, told[5] = {0, 0, 0, 0, 0.25}; // squares: position, L1, image coordinate
	constexpr int kTrials = 400;
	for (int trial = 0; trial < kTrials; ++trial) {
		scene.measure(0.5);
		double l[11], position[3];
		ASSERT_EQ(scene.calibrate(l) + scene.refine(l), 0);
		const auto quality = scene.assess(l);
		dltDP_CalculateCameraPosition(position, l);
		for (int i = 0; i < 3; ++i) seen[i] += std::pow(position[i] - scene.position[i], 2) / kTrials;
		for (int i = 0; i < 3; ++i) told[i] += std::pow(quality.positionErrors[i], 2) / kTrials;
		seen[3] += std::pow(l[0] - scene.truth[0], 2) / kTrials;
		told[3] += std::pow(quality.parameterErrors[0], 2) / kTrials;
		seen[4] += std::pow(quality.sigma, 2) / kTrials;
	}
	for (int i = 0; i < 5; ++i) EXPECT_NEAR(std::sqrt(seen[i] / told[i]), 1, i < 4 ? 0.15 : 0.04) << i;
}

TEST(CameraCalibration, ConditionTellsThePlacingOnly) {
	const auto condition = [](const Scene& scene) { return scene.assess(scene.truth.data()).condition; };
	const double cube = condition(Scene(20)), slab = condition(Scene(20, 0, 1, 0, 1e-3));
	EXPECT_NEAR(condition(Scene(20, 0, 1000, 50)) / cube, 1, 1e-9);
	EXPECT_GT(slab, 30 * cube);
	// The thinner, the worse, however it lies, and far beyond what a squared matrix could show.
	for (const double height : {1e-3, 1e-4, 1e-5, 1e-6}) {
		Scene turned(20, 0, 1, 0, height);
		for (double* p = turned.points.data(); p < turned.points.data() + 60; p += 3)
			std::tie(p[0], p[2]) = std::pair(0.6 * p[0] - 0.8 * p[2], 0.8 * p[0] + 0.6 * p[2]);
		EXPECT_NEAR(condition(turned) * height / (slab * 1e-3), 1, height == 1e-3 ? 1e-9 : 0.05);
	}
}

TEST(CameraCalibration, AMismeasuredPointStandsOut) {
	Scene scene(20, 0.2, 1, -30); // the origin is behind the camera
	scene.uv[2 * 13] += 15;
	double l[11], residuals[40];
	ASSERT_EQ(scene.calibrate(l) + scene.refine(l), 0);
	ASSERT_EQ(dltCalculateResidualsCamera(residuals, l, scene.points.data(), scene.uv.data(), 20), 0);
	EXPECT_EQ(scene.assess(l).worstPoint, 13);
	EXPECT_NEAR(std::hypot(residuals[2 * 13], residuals[2 * 13 + 1]), scene.assess(l).maximum, 1e-9);
	for (size_t i = 0; i < 3; ++i) scene.points[i] = 2 * scene.position[i] - scene.points[i];
	EXPECT_EQ(scene.assess(scene.truth.data()).pointsBehind, 1);
}

TEST(CameraCalibration, Refusals) {
	const Scene sound(8, 0.1), exact(8);
	auto infinite = sound.points, aroundCamera = exact.points;
	const std::vector<double> onePlace(16, 7);
	infinite[4] = INFINITY;
	// A focal plane that holds the origin has no parameters, however good the points.
	for (size_t i = 0; i < aroundCamera.size(); ++i) aroundCamera[i] -= exact.position[i % 3];
	const double *points = sound.points.data(), *uv = sound.uv.data();
	const struct {
		const double *points, *uv;
		int count, result, refined;
	} cases[] = {{points, uv, 5, kDltTooFewPoints, kDltTooFewPoints},
	    {points, onePlace.data(), 8, kDltDegenerate, kDltDegenerate},
	    {aroundCamera.data(), exact.uv.data(), 8, kDltDegenerate, 0},
	    {infinite.data(), uv, 8, kDltBadArgument, kDltBadArgument}, {nullptr, uv, 8, kDltBadArgument, kDltBadArgument}};
	for (const auto& c : cases) {
		SCOPED_TRACE(&c - cases);
		auto l = sound.truth;
		EXPECT_EQ(dltCalibrateCamera(l.data(), c.points, c.uv, c.count), c.result);
		EXPECT_EQ(c.refined ? dltRefineCamera(l.data(), c.points, c.uv, c.count, nullptr) : 0, c.refined);
		EXPECT_EQ(l, sound.truth);
		EXPECT_EQ(dltCalibrateCamera(nullptr, c.points, c.uv, c.count), kDltBadArgument);
	}
	// A start that no image of the fourth point belongs to: w is 0 there.
	auto start = sound.truth;
	const double w = 1 + start[8] * points[9] + start[9] * points[10] + start[10] * points[11];
	start[8] -= w / points[9];
	const auto before = start;
	DltQuality quality;
	double residuals[16];
	EXPECT_EQ(sound.refine(start.data()), kDltBadArgument);
	EXPECT_EQ(dltAssessCamera(&quality, start.data(), points, uv, 8), kDltBadArgument);
	EXPECT_EQ(dltCalculateResidualsCamera(residuals, start.data(), points, uv, 8), 0);
	EXPECT_TRUE(std::isnan(residuals[6]) && !std::isnan(residuals[8]));
	EXPECT_EQ(start, before);
}

using Place = std::array<double, 3>;
Place at(double x, double y, double z = 0) { return {x, y, z}; }

/// Where points may stand, by their index and two numbers from -1 to 1.
struct Placing {
	const char* name;
	Place (*place)(int i, double a, double b);
	bool sound = false;
};
const Placing kInSpace[] = {
    {"plane", [](int, double a, double b) { return at(a, b, 0.3 * a - 0.7 * b); }},
    {"plane but one place", [](int i, double a, double b) { return i < 2 ? at(0.3, 0.2, 0.9) : at(a, b, 0.5 * a); }},
    {"two lines", [](int i, double a, double) { return i % 2 ? at(a, 0.2, 0.1 * a) : at(0.3 * a, a, 0.8); }},
    {"five places", [](int i, double, double) { return at(i % 5 * 0.4, i % 5 / 2 - 0.5, i % 5 % 2 * 0.5); }},
    {"line", [](int, double a, double) { return at(a, 0.5 * a, -a); }},
    {"one place", [](int, double, double) { return at(0.1, 0.2, 0.3); }},
    {"slab", [](int i, double a, double b) { return at(a, b, 0.3 * a + i % 3 * 1e-3); }, true},
};
const Placing kOnPlane[] = {
    {"slope 1e-6", [](int, double a, double) { return at(a, 1e-6 * a); }},
    {"slope 1e-3", [](int, double a, double) { return at(1e-3 * a, a); }},
    {"line but one place", [](int i, double a, double) { return i < 2 ? at(0.3, 0.7) : at(a, 0.4 * a); }},
    {"one place", [](int, double, double) { return at(0.1, 0.2); }},
    {"strip", [](int i, double a, double) { return at(a, 0.4 * a + i % 3 * 1e-3); }, true},
};

/// Errors in the image cannot hide that points leave the camera open, in any unit or place.
TEST(CameraCalibration, OpenParametersAreRefused) {
	std::mt19937 random(9);
	std::uniform_real_distribution<double> part(-1, 1);
	for (const int dimensions : {3, 2}) {
		for (const auto& placing : dimensions == 3 ? std::span<const Placing>(kInSpace) : kOnPlane) {
			for (const auto& [unit, offset, count] : {std::tuple(1.0, 0.0, 12), {1000.0, 0.0, 24}, {0.01, 50.0, 300}}) {
				SCOPED_TRACE(testing::Message() << dimensions << placing.name << unit << " " << offset);
				Scene scene(count, 0, unit, offset);
				auto& world = scene.points;
				for (int i = 0; i < count; ++i) {
					const auto place = placing.place(i, part(random), part(random));
					for (size_t k = 0; k < 3; ++k)
						world[3 * static_cast<size_t>(i) + k] = (place[k] * 0.5 + offset * (k == 0)) * unit;
				}
				scene.measure(0.3);
				if (dimensions == 2)
					for (size_t i = 0; i < world.size() / 3; ++i) std::copy_n(&world[3 * i], 2, &world[2 * i]);
				const std::vector<float> worldF(world.begin(), world.end()), uvF(scene.uv.begin(), scene.uv.end());
				const double *points = world.data(), *uv = scene.uv.data();
				double l[11];
				float f[11];
				auto refined = scene.truth;
				DltQuality quality;
				const int expected = placing.sound ? 0 : kDltDegenerate;
				if (dimensions == 3) {
					EXPECT_EQ(dltCalibrateCamera(l, points, uv, count), expected);
					EXPECT_EQ(scene.refine(refined.data()), expected);
					EXPECT_EQ(dltAssessCamera(&quality, scene.truth.data(), points, uv, count), 0);
					if (placing.sound) continue; // the fixed least pivot has its say in these
					EXPECT_EQ(dltDP_CalculateParameters(l, points, uv, count), kDltDegenerate);
					EXPECT_EQ(dltSP_CalculateParameters(f, worldF.data(), uvF.data(), count), kDltDegenerate);
					EXPECT_EQ(quality.positionErrors[0], INFINITY);
				} else {
					double exact[8] = {
					    300 / unit, 20 / unit, 640, 10 / unit, 250 / unit, 512, 0.01 / unit, 0.02 / unit};
					for (int i = 0; i < count; ++i)
						dlt2DDP_CalculateInversePosition(
						    &scene.uv[2 * static_cast<size_t>(i)], exact, points[2 * i], points[2 * i + 1]);
					for (double& value : scene.uv) value += 0.3 * part(random);
					EXPECT_EQ(dltCalibratePlane(l, points, uv, count), expected);
					EXPECT_EQ(dltRefinePlane(exact, points, uv, count, nullptr), expected);
					EXPECT_EQ(dltAssessPlane(&quality, exact, points, uv, count), 0);
					EXPECT_EQ(dlt2DDP_CalculateParameters(l, points, uv, count), placing.sound ? 0 : kQorFailure);
					if (placing.sound) continue;
					EXPECT_EQ(dlt2DSP_CalculateParameters(f, worldF.data(), uvF.data(), count), kQorFailure);
				}
				EXPECT_TRUE(std::isfinite(quality.rms) && quality.condition == INFINITY);
				EXPECT_EQ(quality.parameterErrors[2], INFINITY);
			}
		}
	}
}

TEST(CameraCalibration, Plane) {
	const double truth[8] = {2100, 300, 640, -200, 1900, 512, 0.2, -0.5};
	std::mt19937 random(5);
	std::normal_distribution<double> error(0, 0.5);
	double first[120], second[120], l[8]; // more points than the fixed-size form takes
	for (int i = 0; i < 120; i += 2) {
		first[i] = i % 20 * 0.025;
		first[i + 1] = i / 20 * 0.08;
		dlt2DDP_CalculateInversePosition(second + i, truth, first[i], first[i + 1]);
	}
	for (double& value : second) value += error(random);
	ASSERT_EQ(dltCalibratePlane(l, first, second, 60) + dltRefinePlane(l, first, second, 60, nullptr), 0);
	DltQuality quality;
	ASSERT_EQ(dltAssessPlane(&quality, l, first, second, 60), 0);
	EXPECT_NEAR(quality.sigma, 0.5, 0.1);
	for (size_t k = 0; k < 8; ++k) EXPECT_LT(std::abs(l[k] - truth[k]), 4 * quality.parameterErrors[k]) << k;
	const double corners[] = {0, 0, 1, 0, 1, 1, 0, 1}, seen[] = {10, 10, 500, 20, 480, 400, 30, 420};
	ASSERT_EQ(dltCalibratePlane(l, corners, seen, 4) + dltAssessPlane(&quality, l, corners, seen, 4), 0);
	EXPECT_TRUE(std::isnan(quality.sigma)); // nothing left to judge by
	EXPECT_EQ(dltCalculateResidualsPlane(first, l, corners, seen, 4), 0);
	EXPECT_EQ(dltCalibratePlane(l, corners, seen, 3), kDltTooFewPoints);
}

} // namespace
