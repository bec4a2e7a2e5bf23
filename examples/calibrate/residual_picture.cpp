#include "residual_picture.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <iostream>

namespace {

constexpr double kWidth = 760;      // of the image plane in the picture, and its largest height
constexpr double kMargin = 50;      // around it
constexpr double kFooter = 60;      // scale bar and text
constexpr double kArrowPart = 0.06; // length of the arrow of a residual as long as the RMS, of the width

/// The largest of 1, 2, 5, 10, 20 ... (and their fractions) that is not above the value.
double roundBelow(double value) {
	const double power = std::pow(10, std::floor(std::log10(value)));
	for (const double step : {5.0, 2.0}) {
		if (value >= step * power) return step * power;
	}
	return power;
}

class Drawing {
public:
	explicit Drawing(const ResidualPicture& picture) : mPicture(picture) {
		for (size_t k = 0; k < 2; ++k) {
			mLow[k] = mHigh[k] = picture.image[k];
			for (size_t i = k; i < picture.image.size(); i += 2) {
				mLow[k] = std::min(mLow[k], picture.image[i]);
				mHigh[k] = std::max(mHigh[k], picture.image[i]);
			}
		}
		const double edge = 0.1 * std::max({mHigh[0] - mLow[0], mHigh[1] - mLow[1], 1.0});
		for (size_t k = 0; k < 2; ++k) {
			mLow[k] = std::floor((mLow[k] - edge) / 10) * 10;
			mHigh[k] = std::ceil((mHigh[k] + edge) / 10) * 10;
		}
		mScale = kWidth / std::max(mHigh[0] - mLow[0], mHigh[1] - mLow[1]);
		mFactor = picture.factor;
		if (!(mFactor > 0)) mFactor = picture.rms > 0 ? roundBelow(kArrowPart * kWidth / mScale / picture.rms) : 1;
	}

	std::string svg() {
		const double width = (mHigh[0] - mLow[0]) * mScale, height = (mHigh[1] - mLow[1]) * mScale;
		add("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%.0f\" height=\"%.0f\" font-family=\"sans-serif\" "
		    "font-size=\"13\">\n<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n",
		    width + 2 * kMargin, height + 2 * kMargin + kFooter);
		add("<rect x=\"%g\" y=\"%g\" width=\"%.1f\" height=\"%.1f\" fill=\"none\" stroke=\"gray\"/>\n", kMargin,
		    kMargin, width, height);
		addAxes(width, height);
		for (size_t i = 0; i < mPicture.numbers.size(); ++i) addPoint(i);
		addScaleBar(kMargin + height + kMargin + 20);
		add("</svg>\n");
		return mText;
	}

private:
	void add(const char* format, ...) {
		char text[512];
		va_list arguments;
		va_start(arguments, format);
		std::vsnprintf(text, sizeof text, format, arguments);
		va_end(arguments);
		mText += text;
	}

	double x(double u) const { return kMargin + (u - mLow[0]) * mScale; }
	double y(double v) const { return kMargin + (v - mLow[1]) * mScale; }

	/// The multiples of `step` along an axis; none where numbers are too large to tell them apart.
	std::vector<double> ticks(int axis, double step) const {
		constexpr int kMaximum = 64;
		std::vector<double> values;
		const double first = std::ceil(mLow[axis] / step);
		for (int i = 0; i < kMaximum && (first + i) * step <= mHigh[axis]; ++i) {
			values.push_back((first + i) * step);
			if (i > 0 && values[static_cast<size_t>(i) - 1] >= values.back()) return {};
		}
		return values;
	}

	void addAxes(double width, double height) {
		const double step = roundBelow((mHigh[0] - mLow[0]) / 4);
		for (const double u : ticks(0, step))
			add("<path d=\"M%.1f %g v-5\" stroke=\"gray\"/><text x=\"%.1f\" y=\"%g\" text-anchor=\"middle\" "
			    "fill=\"gray\">%g</text>\n",
			    x(u), kMargin, x(u), kMargin - 9, u);
		for (const double v : ticks(1, step))
			add("<path d=\"M%g %.1f h-5\" stroke=\"gray\"/><text x=\"%g\" y=\"%.1f\" text-anchor=\"end\" "
			    "fill=\"gray\">%g</text>\n",
			    kMargin, y(v), kMargin - 8, y(v) + 4, v);
		add("<text x=\"%.1f\" y=\"16\" fill=\"gray\">u</text><text x=\"10\" y=\"%.1f\" fill=\"gray\">v</text>\n",
		    kMargin + width / 2, kMargin + height / 2);
	}

	void addPoint(size_t i) {
		const bool suspect = static_cast<int>(i) == mPicture.suspect;
		const char* colour = suspect ? "#c62828" : "#1f5fa8";
		const double px = x(mPicture.image[2 * i]), py = y(mPicture.image[2 * i + 1]);
		add("<circle cx=\"%.1f\" cy=\"%.1f\" r=\"3\" fill=\"%s\"/>", px, py, colour);
		add("<text x=\"%.1f\" y=\"%.1f\" font-size=\"10\" fill=\"%s\"%s>%d</text>", px - 6, py - 6, colour,
		    suspect ? " font-weight=\"bold\"" : "", mPicture.numbers[i]);
		const double dx = mPicture.residuals[2 * i] * mFactor * mScale;
		const double dy = mPicture.residuals[2 * i + 1] * mFactor * mScale;
		const double length = std::hypot(dx, dy);
		if (std::isfinite(length) && length > 0.5) addArrow(px, py, dx, dy, length, colour);
		mText += "\n";
	}

	void addArrow(double px, double py, double dx, double dy, double length, const char* colour) {
		const double head = std::min(7.0, length), ux = dx / length, uy = dy / length;
		add("<path d=\"M%.1f %.1f l%.1f %.1f\" stroke=\"%s\" stroke-width=\"1.5\"/>", px, py, dx, dy, colour);
		add("<path d=\"M%.1f %.1f l%.1f %.1f l%.1f %.1f z\" fill=\"%s\"/>", px + dx, py + dy, -head * (ux + 0.4 * uy),
		    -head * (uy - 0.4 * ux), 0.8 * head * uy, -0.8 * head * ux, colour);
	}

	void addScaleBar(double top) {
		const double pixels = roundBelow(kWidth / 5 / mFactor / mScale), length = pixels * mFactor * mScale;
		add("<path d=\"M%g %.1f v-5 v10 v-5 h%.1f v-5 v10\" stroke=\"black\" fill=\"none\"/>\n", kMargin, top, length);
		add("<text x=\"%.1f\" y=\"%.1f\">residual of %g pixels (arrows drawn %g times as long as in the image); "
		    "RMS %.3g pixels</text>\n",
		    kMargin + length + 10, top + 5, pixels, mFactor, mPicture.rms);
	}

	const ResidualPicture& mPicture;
	std::string mText;
	double mLow[2], mHigh[2]; // of the image plane that is shown
	double mScale = 1;        // picture units a pixel
	double mFactor = 1;
};

} // namespace

bool writePicture(const std::string& path, const ResidualPicture& picture) {
	if (picture.numbers.empty()) return true;
	std::ofstream file(path, std::ios::binary);
	file << Drawing(picture).svg();
	file.close();
	if (!file) std::cerr << "calibrate: cannot write '" << path << "'\n";
	return static_cast<bool>(file);
}
