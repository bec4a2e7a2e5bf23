// Camera calibration: what solving its equations costs beside a general solver, and how often
// each form of the calibration fails with noisy image points. Fixed seeds; the solving times
// are medians of interleaved rounds.

#include <qor/math/camera_calibration.h>

#if __has_include(<Eigen/Dense>)
#include <Eigen/Dense>
#define HAVE_EIGEN
#endif

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

namespace {

using Parameters = std::array<double, 11>;

/// A measured volume of 1 m x 1 m x `height`, seen from 4 m, in an image of 1280 x 1024 pixels.
struct World {
	const char* name;
	double unit;      // world units a metre
	double origin[3]; // of the volume's centre, metres
	double height;    // metres
	bool corners;     // points stand near different corners first; else anywhere
};
constexpr World kWorlds[] = {
    {"points anywhere in a cube; metres, origin in the cube", 1, {0.1, 0.05, -0.1}, 1, false},
    {"points near the corners of a cube; metres, origin in the cube", 1, {0.1, 0.05, -0.1}, 1, true},
    {"points near the corners of a cube; millimetres, origin 23 m away", 1000, {12, -8, 18}, 1, true},
    {"points near the corners of a cube; millimetres, origin 360 m away", 1000, {300, -200, 5}, 1, true},
    {"points near the corners of a slab 5 cm high; millimetres, origin 23 m away", 1000, {12, -8, 18}, 0.05, true},
};

class Scene {
public:
	Scene(const World& world, unsigned seed) : mWorld(world), mRandom(seed) {
		constexpr double kFromCentre[3] = {1.4, -3.3, 1.6};
		double position[3], direction[3];
		for (int i = 0; i < 3; ++i) {
			position[i] = (world.origin[i] + kFromCentre[i]) * world.unit;
			direction[i] = -kFromCentre[i];
		}
		const double up[3] = {0, 0, 1};
		dltDP_CalculateParametersFromVectors(truth.data(), position, direction, up, 2800, 645, 505);
	}

	/// Points seen with an error of `noise` pixels (normal, each coordinate).
	void place(int count, double noise, bool corners) {
		points3D.resize(3 * static_cast<size_t>(count));
		points2D.resize(2 * static_cast<size_t>(count));
		std::uniform_real_distribution<double> part(0, 1);
		std::normal_distribution<double> error(0, 1);
		int order[8] = {0, 1, 2, 3, 4, 5, 6, 7};
		std::shuffle(order, order + 8, mRandom);
		for (int i = 0; i < count; ++i) {
			double* point = &points3D[3 * static_cast<size_t>(i)];
			for (int k = 0; k < 3; ++k) {
				double place = part(mRandom) - 0.5;
				if (corners && i < 8) place = (order[i] >> k & 1 ? 1 : -1) * (0.5 - 0.2 * part(mRandom));
				point[k] = (mWorld.origin[k] + place * (k == 2 ? mWorld.height : 1)) * mWorld.unit;
			}
			double* image = &points2D[2 * static_cast<size_t>(i)];
			dltDP_Calculate2DPosition(image, truth.data(), point);
			for (int k = 0; k < 2; ++k) image[k] += noise * error(mRandom);
		}
	}

	int count() const { return static_cast<int>(points2D.size() / 2); }

	Parameters truth;
	std::vector<double> points3D, points2D;

private:
	const World& mWorld;
	std::mt19937 mRandom;
};

int singlePrecision(const Scene& scene, Parameters& l) {
	const std::vector<float> points3D(scene.points3D.begin(), scene.points3D.end());
	const std::vector<float> points2D(scene.points2D.begin(), scene.points2D.end());
	float parameters[11];
	const int result = dltSP_CalculateParameters(parameters, points3D.data(), points2D.data(), scene.count());
	if (result == 0) std::copy_n(parameters, 11, l.begin());
	return result;
}
int doublePrecision(const Scene& scene, Parameters& l) {
	return dltDP_CalculateParameters(l.data(), scene.points3D.data(), scene.points2D.data(), scene.count());
}
int normalised(const Scene& scene, Parameters& l) {
	return dltCalibrateCamera(l.data(), scene.points3D.data(), scene.points2D.data(), scene.count());
}
int refined(const Scene& scene, Parameters& l) {
	const int result = normalised(scene, l);
	return result ? result
	              : dltRefineCamera(l.data(), scene.points3D.data(), scene.points2D.data(), scene.count(), nullptr);
}
#ifdef HAVE_EIGEN
int eigen(const Scene& scene, Parameters& l) {
	Eigen::Matrix<double, Eigen::Dynamic, 11> rows(2 * scene.count(), 11);
	Eigen::VectorXd right(2 * scene.count());
	for (int i = 0; i < scene.count(); ++i) {
		const double *p = &scene.points3D[3 * static_cast<size_t>(i)], *q = &scene.points2D[2 * static_cast<size_t>(i)];
		const double u = q[0], v = q[1];
		rows.row(2 * i) << p[0], p[1], p[2], 1, 0, 0, 0, 0, -u * p[0], -u * p[1], -u * p[2];
		rows.row(2 * i + 1) << 0, 0, 0, 0, p[0], p[1], p[2], 1, -v * p[0], -v * p[1], -v * p[2];
		right[2 * i] = u;
		right[2 * i + 1] = v;
	}
	Eigen::Map<Eigen::Matrix<double, 11, 1>>(l.data()) = Eigen::ColPivHouseholderQR<decltype(rows)>(rows).solve(right);
	return 0;
}
#endif

using Form = int (*)(const Scene&, Parameters&);

// --- solving time ---

/// Keeps the compiler from dropping the work.
volatile double sink;

double microseconds(Form form, const Scene& scene, int repeats) {
	Parameters l = {};
	const auto start = std::chrono::steady_clock::now();
	for (int i = 0; i < repeats; ++i) {
		form(scene, l);
		sink = l[0];
	}
	const std::chrono::duration<double, std::micro> time = std::chrono::steady_clock::now() - start;
	return time.count() / repeats;
}

double median(std::vector<double>& values) {
	std::nth_element(values.begin(), values.begin() + static_cast<long>(values.size() / 2), values.end());
	return values[values.size() / 2];
}

void compareTimes() {
#ifdef HAVE_EIGEN
	constexpr int kRounds = 101;
	constexpr Form kForms[] = {eigen, doublePrecision, normalised, refined};
	std::printf("Solving time, microseconds, and the ratio beside Eigen::ColPivHouseholderQR on the same equations\n");
	std::printf("%7s %10s | %10s %7s | %10s %7s | %10s %7s\n", "points", "Eigen", "double", "ratio", "normalised",
	    "ratio", "refined", "ratio");
	for (const int count : {6, 20, 100, 1000}) {
		Scene scene(kWorlds[0], 1);
		scene.place(count, 0.3, false);
		std::vector<double> times[4];
		for (int round = 0; round < kRounds; ++round) {
			for (int form = 0; form < 4; ++form)
				times[form].push_back(microseconds(kForms[form], scene, std::max(1, 2000 / count)));
		}
		const double beside = median(times[0]);
		std::printf("%7d %10.2f", count, beside);
		for (int form = 1; form < 4; ++form) {
			const double time = median(times[form]);
			std::printf(" | %10.2f %7.2f", time, time / beside);
		}
		std::printf("\n");
	}
#else
	std::printf("Solving time: not measured, this program was built without Eigen\n");
#endif
}

// --- failures under noise ---

/// Root mean square distance in the image, at the scene's points, between two calibrations.
double disagreement(const Scene& at, const Parameters& l) {
	double sum = 0;
	for (int i = 0; i < at.count(); ++i) {
		const double* point = &at.points3D[3 * static_cast<size_t>(i)];
		double seen[2];
		if (dltDP_Calculate2DPosition(seen, l.data(), point) != 0) return INFINITY;
		sum += std::pow(seen[0] - at.points2D[2 * static_cast<size_t>(i)], 2) +
		       std::pow(seen[1] - at.points2D[2 * static_cast<size_t>(i) + 1], 2);
	}
	return std::sqrt(sum / at.count());
}

void countFailures(const World& world, int trials) {
	constexpr Form kForms[] = {singlePrecision, doublePrecision, normalised, refined};
	std::printf("\nFailures in percent of %d trials; %s\n", trials, world.name);
	std::printf("%7s %6s | %8s %8s %10s %8s | %s\n", "points", "noise", "single", "double", "normalised", "refined",
	    "median check error / noise: double, normalised, refined");
	for (const int count : {6, 8, 20}) {
		for (const double noise : {0.1, 0.2, 0.5, 1.0, 2.0}) {
			Scene scene(world, static_cast<unsigned>(count)), check(world, 4711);
			check.place(50, 0, false);
			int failures[4] = {};
			std::vector<double> errors[4];
			for (int trial = 0; trial < trials; ++trial) {
				scene.place(count, noise, world.corners);
				for (int form = 0; form < 4; ++form) {
					Parameters l;
					const double error = kForms[form](scene, l) == 0 ? disagreement(check, l) : INFINITY;
					failures[form] += !(error <= 3 * noise);
					errors[form].push_back(error / noise);
				}
			}
			std::printf("%7d %6.1f |", count, noise);
			for (const int failed : failures) std::printf(" %8.2f", 100.0 * failed / trials);
			std::printf(" |");
			for (int form = 0; form < 4; ++form) std::printf(" %6.2f", median(errors[form]));
			std::printf("\n");
		}
	}
}

} // namespace

int main() {
	compareTimes();
	std::printf("\nA trial fails when the calibration answers an error, or when it misses 50 check points without\n"
	            "noise, anywhere in the volume, by more than three times the noise (root mean square).\n");
	for (const auto& world : kWorlds) countFailures(world, 3000);
	return 0;
}
