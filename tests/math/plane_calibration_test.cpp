#include "qor/math/plane_calibration.h"

#include <gtest/gtest.h>

#include <cmath>

static void expectFailure(std::initializer_list<int> results) {
	for (const int result : results) EXPECT_EQ(result, kQorFailure);
}

TEST(PlaneCalibration, PointsParametersAndResiduals) {
	CqorDLT8 plane;
	double a, b, u, v, l[8];
	const double truth[] = {2.1, 0.3, 640, -0.2, 1.9, 512, 2e-4, -5e-4};
	expectFailure({plane.CalculatePosition(1, 1, &a, &b), plane.GetParameters(l), plane.CalculateParameters()});
	ASSERT_EQ(plane.SetParameters(truth), 0);
	for (int i = 0; i < CqorDLT8::kMaximumPoints; ++i) {
		ASSERT_EQ(plane.CalculateInversePosition(i % 6 * 30, i / 6 * 40, &u, &v), 0);
		ASSERT_EQ(plane.AddPoint(i % 6 * 30, i / 6 * 40, u, v), 0);
	}
	EXPECT_EQ(plane.AddPoint(1, 2, 3, 4), kQorFailure); // full
	ASSERT_EQ(plane.CalculateParameters() + plane.GetParameters(l), 0);
	for (int i = 0; i < 8; ++i) EXPECT_NEAR(l[i], truth[i], 1e-10 * (1 + std::abs(truth[i])));
	ASSERT_EQ(plane.GetPoint(9, &a, &b, &u, &v), 0);
	EXPECT_EQ(a * 1000 + b, 90040);
	ASSERT_EQ(plane.CalculatePosition(u, v, &a, &b), 0);
	EXPECT_NEAR(a * 1000 + b, 90040, 1e-5);
	// A measured point that is 3 and 4 pixels off, against the same parameters.
	ASSERT_EQ(plane.SetPoint(9, 90, 40, u + 3, v - 4), 0);
	ASSERT_EQ(plane.CalculateResidual(9, &a, &b), 0);
	EXPECT_NEAR(a * 10 + b, 26, 1e-6);
	EXPECT_NEAR(plane.CalculateRms(), 5 / std::sqrt(32.0), 1e-8);
}

TEST(PlaneCalibration, Refusals) {
	CqorDLT8 plane;
	double a = 7, b = 7;
	const double bad[8] = {1, 2, NAN}, horizon[] = {1, 0, 0, 0, 1, 0, 0.5, 0};
	EXPECT_TRUE(std::isnan(plane.CalculateRms()));
	ASSERT_EQ(plane.AddPoint(-2, 0, 1, 1), 0);
	expectFailure({plane.AddPoint(1, INFINITY, 2, 3), plane.SetPoint(0, 1, 2, 3, NAN), plane.SetParameters(bad),
	    plane.SetParameters(nullptr), plane.CalculateResidual(0, &a, &b)}); // no parameters
	ASSERT_EQ(plane.SetParameters(horizon), 0);
	for (const int index : {-1, 0, 1, 32}) // w = 0 for the only point
		expectFailure({plane.SetPoint(index ? index : 9, 1, 2, 3, 4), plane.CalculateResidual(index, &a, &b),
		    plane.GetPoint(index ? index : 9, &a, nullptr, nullptr, nullptr)});
	EXPECT_TRUE(std::isnan(plane.CalculateRms()));
	expectFailure({plane.CalculatePosition(1, 1, nullptr, &b), plane.CalculateInversePosition(1, 1, &a, nullptr),
	    plane.CalculateParameters(), // too few, and the old ones are gone
	    plane.CalculateInversePosition(1, 1, &a, &b)});
	plane.Reset();
	EXPECT_EQ(a + b + plane.GetPointCount(), 14);
}
