#include "simulation.h"

#include <qor/math/direct_linear_transformation.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <numbers>
#include <random>

namespace {

/// Random numbers that are the same with every standard library.
class Noise {
public:
	explicit Noise(unsigned seed) : mRandom(seed) {}
	double uniform() { return (static_cast<double>(mRandom()) + 0.5) / 4294967296.0; }
	double normal() {
		const double length = std::sqrt(-2 * std::log(uniform()));
		return length * std::cos(2 * std::numbers::pi * uniform());
	}

private:
	std::mt19937 mRandom;
};

} // namespace

int simulate(const SimulationOptions& options) {
	constexpr double kPosition[] = {1150, -1480, 820}, kDirection[] = {-850, 1680, -620}, kUp[] = {0, 0, 1};
	constexpr double kPrincipalDistance = 2600, kPrincipalPoint[] = {652, 507};
	double parameters[11];
	dltDP_CalculateParametersFromVectors(
	    parameters, kPosition, kDirection, kUp, kPrincipalDistance, kPrincipalPoint[0], kPrincipalPoint[1]);

	std::ofstream file(options.file);
	char line[160];
	std::snprintf(line, sizeof line,
	    "# simulated: camera at %.0f %.0f %.0f mm, principal distance %.0f, point %.0f %.0f\n", kPosition[0],
	    kPosition[1], kPosition[2], kPrincipalDistance, kPrincipalPoint[0], kPrincipalPoint[1]);
	file << line;
	std::snprintf(line, sizeof line, "# errors of %.2f pixels, seed %u", options.noise, options.seed);
	file << line;
	if (options.blunder) file << "; point " << options.blunder << " is mismeasured";
	file << "\nX,Y,Z,u,v\n";
	Noise noise(options.seed);
	for (int i = 1; i <= options.points; ++i) {
		const double size[] = {600, 400, options.height};
		double point[3], image[2];
		for (int k = 0; k < 3; ++k) point[k] = std::round(size[k] * noise.uniform() * 10) / 10;
		if (dltDP_Calculate2DPosition(image, parameters, point) != 0) return 3;
		for (double& value : image) value += options.noise * noise.normal();
		if (i == options.blunder) {
			image[0] += 5.2;
			image[1] -= 3.6;
		}
		std::snprintf(
		    line, sizeof line, "%.1f,%.1f,%.1f,%.2f,%.2f\n", point[0], point[1], point[2], image[0], image[1]);
		file << line;
	}
	file.close();
	if (!file) std::cerr << "calibrate: cannot write '" << options.file << "'\n";
	return file ? 0 : 3;
}
