#pragma once

#include "points_file.h"

#include <string>
#include <vector>

/// What the process answers.
enum ExitCode { kExitGood = 0, kExitNoCalibration = 1, kExitUsage = 2, kExitTrouble = 3 };

struct CalibrationOptions {
	std::string file;
	std::vector<int> without; // numbers of points to leave out
	std::string picture;      // SVG file; empty: none
	double factor = 0;        // of the arrows in it; 0: chosen
};

/// Calibrates in all forms, prints what came out and what to think of it, draws the residuals.
/// @param dimensions 3: a camera from points in space; 2: from points of a plane.
/// @return an `ExitCode`.
int calibrate(const CalibrationOptions& options, int dimensions);
