#include "../common/entry.h"
#include "camera.h"
#include "clock_device.h"

#include <algorithm>
#include <cstdlib>

/// Offers one simulated camera (the environment variable `qorSimCameras` asks for up to 16)
/// and one simulated timing device to every manager that introduces itself.
QOR_SIO_EXPORT int qorSIOEFunc(void* context, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
	return plugin::answerEntry(context, code, p1, p2, [](const plugin::Introduction& manager) {
		const char* wanted = std::getenv("qorSimCameras");
		const int cameras = std::clamp(wanted ? std::atoi(wanted) : 1, 1, 16);
		for (int i = 0; i < cameras; ++i) manager.offer(*new Camera(i));
		manager.offer(*new ClockDevice);
	});
}
