// A module: a library with one entry function. What its arguments mean is agreed with the hosts
// of this example, and with nobody else:
//   a  1 the mean, 2 the spread
//   b  the number of samples
//   p1 the samples (double), p2 the result (double)
#include <algorithm>
#include <numeric>

#ifdef _WIN32
#define EXPORT extern "C" __declspec(dllexport)
#else
#define EXPORT extern "C" __attribute__((visibility("default")))
#endif

EXPORT int qorDMFUNC(unsigned long a, unsigned long b, unsigned long, void* p1, void* p2) {
	if (b == 0 || !p1 || !p2) return 1;
	const auto* samples = static_cast<const double*>(p1);
	auto* result = static_cast<double*>(p2);
	const auto [least, most] = std::minmax_element(samples, samples + b);
	switch (a) {
	case 1: *result = std::accumulate(samples, samples + b, 0.0) / static_cast<double>(b); return 0;
	case 2: *result = *most - *least; return 0;
	default: return 1;
	}
}
