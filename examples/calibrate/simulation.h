#pragma once

#include <string>

struct SimulationOptions {
	std::string file;
	int points = 24;
	double noise = 0.25; // pixels, standard deviation of each image coordinate
	double height = 400; // of the frame that carries the points, mm
	int blunder = 0;     // number of a point that is measured 5.2 pixels right and 3.6 above; 0: none
	unsigned seed = 2;
};

/// Writes the points of a frame of 600 x 400 x `height` mm as a camera of known place and make sees them,
/// with measuring errors. The same options write the same file everywhere.
/// @return an exit code.
int simulate(const SimulationOptions& options);
