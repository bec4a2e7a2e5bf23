#pragma once

#include <string>
#include <vector>

/// What a picture of the residuals shows; image units are pixels, v downwards.
struct ResidualPicture {
	std::vector<double> image;     // measured points, pairs (u, v)
	std::vector<double> residuals; // pairs, measured less projected
	std::vector<int> numbers;      // of the points
	int suspect = -1;              // index of the point drawn in red
	double rms = 0;
	double factor = 0; // lengths of the arrows beside the residuals; 0: a round one that shows them well
};

/// Writes the image plane with the points, their residuals as arrows, and a scale bar, as SVG.
/// @return false, with a message on the error stream, when the file cannot be written.
bool writePicture(const std::string& path, const ResidualPicture& picture);
