#include "qor/math/camera_calibration.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <numeric>
#include <vector>

namespace {

#define QOR_PRECISION(Name, Type, tolerance, space, plane)                                                             \
	struct Name {                                                                                                      \
		using T = Type;                                                                                                \
		static constexpr T kTolerance = tolerance;                                                                     \
		static inline const auto fromVectors = space##CalculateParametersFromVectors;                                  \
		static inline const auto calibrate = space##CalculateParameters;                                               \
		static inline const auto position = space##CalculateCameraPosition;                                            \
		static inline const auto director = space##CalculateDirector;                                                  \
		static inline const auto locate = space##Calculate3D;                                                          \
		static inline const auto locateAVP = space##Calculate3D_AVP;                                                   \
		static inline const auto calibratePlane = plane##CalculateParameters;                                          \
		static inline const auto toPlane = plane##CalculatePosition;                                                   \
		static inline const auto toImage = plane##CalculateInversePosition;                                            \
		static int project(T* uv, const T* l, const T* p) { return space##Calculate2DPosition(uv, l, p); }             \
		static int project(T* uv, const T* l, T x, T y, T z) { return space##Calculate2DPosition(uv, l, x, y, z); }    \
	}
QOR_PRECISION(Single, float, 2e-4F, dltSP_, dlt2DSP_);
QOR_PRECISION(Double, double, 1e-9, dltDP_, dlt2DDP_);

template <class Precision>
class DirectLinear : public testing::Test {
public:
	using T = typename Precision::T;
	static constexpr T kNone = NAN;

	static void expectAll(int expected, std::initializer_list<int> results) {
		for (const int result : results) EXPECT_EQ(result, expected);
	}
	static void expectNear(const T* actual, const T* expected, int count, T tolerance = Precision::kTolerance) {
		for (int i = 0; i < count; ++i)
			EXPECT_NEAR(actual[i], expected[i], tolerance * (1 + std::abs(expected[i]))) << i;
	}
	/// Image coordinates around 1, a camera 4 units away, looking down.
	static std::array<T, 11> camera(T x = 1) {
		const T position[] = {x, -4, 2}, direction[] = {-x, 4, T(-1.9)}, up[] = {0, 0, 1};
		std::array<T, 11> l;
		EXPECT_EQ(Precision::fromVectors(l.data(), position, direction, up, T(1.5), T(0.1), T(-0.05)), 0);
		return l;
	}
	/// Any six of them calibrate.
	const std::vector<T> kPoints = {1, 1, 1, -1, 1, -1, 1, -1, -1, -1, -1, 1, T(0.9), T(-0.8), 1, -1, T(0.7), T(0.2),
	    T(0.2), T(-0.3), T(0.9), T(-0.5), T(0.8), T(-0.1), T(0.3), T(0.3), T(-0.9)};
};
using Precisions = testing::Types<Single, Double>;
TYPED_TEST_SUITE(DirectLinear, Precisions);

TYPED_TEST(DirectLinear, IdealCameraInClosedForm) {
	using T = typename TypeParam::T;
	// Along +Z with +Y upwards, +X is on the left.
	const T position[] = {0, 0, -4}, direction[] = {0, 0, 3}, up[] = {0, 2, 5};
	const T expected[] = {-200, 0, 160, 640, 0, -200, 120, 480, 0, 0, T(0.25)};
	T l[11];
	ASSERT_EQ(TypeParam::fromVectors(l, position, direction, up, 800, 640, 480), 0);
	this->expectNear(l, expected, 11);
	T uv[2], centre[3];
	const T right[] = {480, 400}; // of the point (1, 0.5, 1): 800 / 5 to the left, half of it up
	ASSERT_EQ(TypeParam::project(uv, l, 1, T(0.5), 1), 0);
	this->expectNear(uv, right, 2);

	// w = 0 on the focal plane, the position among its points
	EXPECT_EQ(TypeParam::position(centre, l), 0);
	this->expectAll(kQorFailure, {TypeParam::project(uv, l, centre), TypeParam::project(uv, l, 9, 8, -4),
	                                 TypeParam::project(uv, nullptr, 0, 0, 0), TypeParam::project(uv, l, nullptr),
	                                 TypeParam::project(nullptr, l, l)});
	this->expectNear(uv, right, 2);
}

TYPED_TEST(DirectLinear, CamerasComeBack) {
	using T = typename TypeParam::T;
	static constexpr struct {
		T position[3], direction[3], up[3], distance, uo, vo;
	} cases[] = {
	    {{1, -4, 2}, {-1, 4, -2}, {0, 0, 1}, 1000, 640, 512},
	    {{1, -4, 2}, {1, -3, 2}, {0, 1, 1}, 800, 320, 240},                // the origin is behind
	    {{2, 0, 0}, {T(-1e-4), 0, 0}, {0, 0, T(1e5)}, T(0.5), T(0.01), 0}, // lengths do not matter
	};
	for (const auto& c : cases) {
		T l[11], position[3], director[3];
		ASSERT_EQ(TypeParam::fromVectors(l, c.position, c.direction, c.up, c.distance, c.uo, c.vo), 0);
		EXPECT_EQ(TypeParam::position(position, l), 0);
		this->expectNear(position, c.position, 3, T(1e-3));
		TypeParam::director(director, l, c.uo, c.vo);
		const T length = std::hypot(c.direction[0], c.direction[1], c.direction[2]);
		T depth = 0;
		for (int i = 0; i < 3; ++i) {
			EXPECT_NEAR(director[i], c.direction[i] / length, 1e-5);
			depth += c.direction[i] / length * c.position[i];
		}
		float f[11];
		std::copy(l, l + 11, f);
		EXPECT_NEAR(dltSP_Calculate_D_FromParameters(f) / std::abs(depth), 1, 1e-4);
		EXPECT_NEAR(dltSP_Calculate_D_Square_FromParameters(f) / depth / depth, 1, 1e-4);
		EXPECT_NEAR(dltSP_Calculate_uo_FromParameters(f), c.uo, 1e-3 * c.distance);
		EXPECT_NEAR(dltSP_Calculate_vo_FromParameters(f), c.vo, 1e-3 * c.distance);
		EXPECT_NEAR(dltSP_Calculate_du_Square_FromParameters(f) / c.distance / c.distance, 1, 1e-3);
		EXPECT_NEAR(dltSP_Calculate_dv_Square_FromParameters(f) / c.distance / c.distance, 1, 1e-3);
	}
}

TYPED_TEST(DirectLinear, NoCameraFromBadVectors) {
	using T = typename TypeParam::T;
	constexpr T n = TestFixture::kNone;
	static constexpr struct {
		T position[3], direction[3], up[3], distance;
	} cases[] = {
	    {{1, 2, 3}, {0, 0, 0}, {0, 0, 1}, 1},    // no direction
	    {{1, 2, 3}, {1, 0, 0}, {0, 0, 0}, 1},    // no up
	    {{1, 2, 3}, {1, 2, 2}, {-3, -6, -6}, 1}, // parallel
	    {{1, 2, 3}, {1, 0, 0}, {0, 0, 1}, 0}, {{1, 2, 3}, {1, n, 0}, {0, 0, 1}, 1},
	    {{1, n, 3}, {1, 0, 0}, {0, 0, 1}, 1}, {{3, 1, -1}, {1, -2, 1}, {0, 0, 1}, 1}, // the origin on the focal plane
	};
	for (const auto& c : cases) {
		T l[11] = {5};
		const int result = TypeParam::fromVectors(l, c.position, c.direction, c.up, c.distance, 0, 0);
		EXPECT_TRUE(result == kQorFailure && l[0] == 5) << &c - cases;
	}
}

/// With errors in the image the sum of the squared equation errors is at its minimum: its
/// derivatives, formed here from the equations as they are defined, vanish.
TYPED_TEST(DirectLinear, LeastSquares) {
	using T = typename TypeParam::T;
	const auto& points = this->kPoints;
	std::vector<T> uv(points.size() / 3 * 2);
	for (size_t i = 0; i < uv.size(); i += 2) TypeParam::project(&uv[i], this->camera().data(), &points[i / 2 * 3]);
	for (size_t i = 0; i < uv.size(); ++i) uv[i] += T(0.02) * static_cast<T>(std::sin(7.0 * static_cast<double>(i)));
	for (const size_t dimensions : {3, 2}) {
		const size_t shared = dimensions + 1, unknowns = 2 * shared + dimensions;
		std::vector<T> world, l(unknowns);
		for (size_t i = 0; i < points.size(); ++i) world.insert(world.end(), i % 3 < dimensions, points[i]);
		const auto form = dimensions == 3 ? TypeParam::calibrate : TypeParam::calibratePlane;
		ASSERT_EQ(form(l.data(), world.data(), uv.data(), static_cast<int>(uv.size() / 2)), 0);
		std::vector<double> slope(unknowns);
		for (size_t equation = 0; equation < uv.size(); ++equation) {
			std::vector<double> row(unknowns);
			for (size_t j = 0; j < shared; ++j) {
				const double x = j < dimensions ? world[equation / 2 * dimensions + j] : 1;
				row[equation % 2 * shared + j] = x;
				if (j < dimensions) row[2 * shared + j] = -x * uv[equation];
			}
			const double error = std::inner_product(row.begin(), row.end(), l.begin(), -double{uv[equation]});
			for (size_t k = 0; k < unknowns; ++k) slope[k] += row[k] * error;
		}
		for (const double value : slope) EXPECT_NEAR(value, 0, TypeParam::kTolerance * 0.05) << dimensions;
	}
}

TYPED_TEST(DirectLinear, WhichPointsCalibrate) {
	using T = typename TypeParam::T;
	auto unknown = this->kPoints;
	unknown[0] = this->kNone;
	std::vector<T> plane; // a pivot on the way is exactly 0
	for (const T a : {-1.0, 0.0, 1.2})
		for (const T b : {-0.8, -0.1, 0.5, 0.9}) plane.insert(plane.end(), {a, b, 0});
	const struct {
		std::vector<T> points;
		int count, result;
	} cases[] = {{this->kPoints, 6, 0}, {this->kPoints, 5, -2}, {plane, 12, -100}, {unknown, 6, -100}};
	for (const auto& c : cases) {
		T l[11] = {5}, untouched[11] = {5};
		std::vector<T> uv(c.points.size());
		for (size_t i = 0; i < c.points.size() / 3; ++i)
			TypeParam::project(&uv[2 * i], this->camera().data(), &c.points[3 * i]);
		EXPECT_EQ(TypeParam::calibrate(l, c.points.data(), uv.data(), c.count), c.result) << &c - cases;
		this->expectNear(l, c.result == 0 ? this->camera().data() : untouched, 11);
	}
	T l[11], *points = unknown.data();
	this->expectAll(-2, {TypeParam::calibrate(l, nullptr, points, 6), TypeParam::calibrate(l, points, nullptr, 6),
	                        TypeParam::calibrate(nullptr, points, points, 6), TypeParam::calibrate(l, l, l, -6)});
}

TYPED_TEST(DirectLinear, PointFromTwoCameras) {
	using T = typename TypeParam::T;
	const auto a = this->camera(), b = this->camera(-2);
	const T point[] = {T(0.5), T(-0.3), T(0.8)};
	T atA[2], atB[2], found[3], again[3];
	TypeParam::project(atA, a.data(), point);
	TypeParam::project(atB, b.data(), point);
	ASSERT_EQ(TypeParam::locate(found, a.data(), atA[0], atA[1], b.data(), atB[0], atB[1]), 0);
	this->expectNear(found, point, 3);
	for (const auto form : {TypeParam::locate, TypeParam::locateAVP}) {
		for (const T vB : {atB[1] + 100, this->kNone}) {
			EXPECT_EQ(form(again, a.data(), atA[0], atA[1], b.data(), atB[0], vB), 0);
			this->expectNear(again, found, 3, 0);
		}
		this->expectAll(
		    kQorFailure, {form(nullptr, point, 0, 0, point, 0, 0), form(again, point, 0, 0, nullptr, 0, 0)});
	}
	// Twice the same ray: no point, and still 0.
	const T above[] = {0, 0, T(0.25), 1, 0, T(0.25), 0, 1, 0, 0, 0};
	EXPECT_EQ(TypeParam::locate(found, above, 1, 1, above, 1, 1), 0);
	EXPECT_FALSE(std::isfinite(found[0] + found[1] + found[2]));
}

TYPED_TEST(DirectLinear, ParallelProjectionAndNull) {
	const typename TypeParam::T l[11] = {1, 0, 0, 5, 0, 1, 0, 6}; // u = X + 5, v = Y + 6
	typename TypeParam::T position[3] = {}, direction[3] = {};
	EXPECT_EQ(TypeParam::position(position, l), 0);
	EXPECT_FALSE(std::isfinite(position[0] + position[1] + position[2]));
	TypeParam::director(direction, l, 3, 4);
	TypeParam::director(nullptr, l, 0, 0);
	EXPECT_EQ(direction[2], 1);
	this->expectAll(kQorFailure, {TypeParam::position(nullptr, l), TypeParam::position(position, nullptr)});
	const typename TypeParam::T large[11] = {typename TypeParam::T(1e10), 0, 0, 0, 0, typename TypeParam::T(1e10)};
	TypeParam::director(direction, large, 3, 4); // a parameter vector of any size
	EXPECT_EQ(direction[2], 1);
	const float parallel[11] = {1, 0, 0, 5, 0, 1, 0, 6};
	for (const float* f : {&parallel[0], static_cast<const float*>(nullptr)}) {
		EXPECT_EQ(dltSP_Calculate_D_FromParameters(f) + dltSP_Calculate_D_Square_FromParameters(f), 0);
		EXPECT_EQ(std::hypot(dltSP_Calculate_uo_FromParameters(f), dltSP_Calculate_vo_FromParameters(f)), 0);
		EXPECT_EQ(dltSP_Calculate_du_Square_FromParameters(f) + dltSP_Calculate_dv_Square_FromParameters(f), 0);
	}
}

TYPED_TEST(DirectLinear, PlaneInPixels) {
	using T = typename TypeParam::T;
	// An image of 1280 x 1024 pixels, a plane of a few hundred millimetres, and beyond the first
	// 32 points nonsense, which must not count.
	const T truth[] = {T(2.1), T(0.3), 640, T(-0.2), T(1.9), 512, T(2e-4), T(-5e-4)};
	std::vector<T> first, second;
	for (int i = 0; i < 40; ++i) {
		const int place = i * 23 % 40; // the first four are far apart
		const T a = static_cast<T>(place % 8) * 40 - 150, b = static_cast<T>(place / 8) * 70 - 130 + a / 9;
		T uv[2];
		ASSERT_EQ(TypeParam::toImage(uv, truth, a, b), 0);
		first.insert(first.end(), {a, b});
		second.insert(second.end(), {i < 32 ? uv[0] : 0, i < 32 ? uv[1] : 0});
	}
	for (const int count : {4, 32, 40}) {
		T l[8];
		ASSERT_EQ(TypeParam::calibratePlane(l, first.data(), second.data(), count), 0);
		for (size_t i = 0; i < 32; ++i) {
			T uv[2], ab[2];
			ASSERT_EQ(TypeParam::toImage(uv, l, first[2 * i], first[2 * i + 1]), 0);
			this->expectNear(uv, &second[2 * i], 2);
			ASSERT_EQ(TypeParam::toPlane(ab, l, second[2 * i], second[2 * i + 1]), 0);
			this->expectNear(ab, &first[2 * i], 2);
		}
	}
}

TYPED_TEST(DirectLinear, PlaneFailures) {
	using T = typename TypeParam::T;
	const T square[] = {0, 0, 3, 0, 3, 2, 0, 2}, image[] = {1, 1, 5, 2, 6, 7, 2, 8};
	const T line[] = {0, 0, T(0.7), T(0.7), 2, 2, T(0.3), 5}, bad[] = {0, 0, 3, 0, 3, this->kNone, 0, 2};
	T l[8] = {5}, point[2] = {7, 7};
	this->expectAll(kQorFailure,
	    {TypeParam::calibratePlane(l, square, image, 3),
	        TypeParam::calibratePlane(l, line, image, 4), // three on one line
	        TypeParam::calibratePlane(l, bad, image, 4), TypeParam::calibratePlane(l, nullptr, image, 4),
	        TypeParam::calibratePlane(l, square, nullptr, 4), TypeParam::calibratePlane(nullptr, square, image, 4)});
	const T parallel[] = {1, 2, 0, 2, 4, 0, 0, 0}, tiny[] = {1, 0, 0, 0, T(0.9e-6), 0, 0, 0};
	const T sound[] = {1, 0, 0, 0, T(1.1e-6), 0, 0, 0}, swapped[] = {0, 1, 5, 1, 0, 6, 0, 0};
	const T horizon[] = {1, 0, 0, 0, 1, 0, T(0.5), 0};
	this->expectAll(
	    kQorFailure, {TypeParam::toPlane(point, parallel, 1, 1), TypeParam::toPlane(point, tiny, 1, 1),
	                     TypeParam::toPlane(point, nullptr, 1, 1), TypeParam::toPlane(nullptr, sound, 1, 1),
	                     TypeParam::toImage(point, horizon, -2, 3), // w = 0
	                     TypeParam::toImage(point, nullptr, 1, 1), TypeParam::toImage(nullptr, sound, 1, 1)});
	EXPECT_EQ(point[0] + point[1] + l[0], 19);
	this->expectAll(0, {TypeParam::toPlane(point, sound, 1, 1), TypeParam::toPlane(point, swapped, 8, 10)});
	EXPECT_EQ(point[0] * 10 + point[1], 43);
}

} // namespace
