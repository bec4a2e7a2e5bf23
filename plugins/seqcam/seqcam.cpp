#include "../common/entry.h"
#include "camera.h"

/// Offers a camera that plays a folder of numbered images.
QOR_SIO_EXPORT int qorSIOEFunc(void* context, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
	return plugin::answerEntry(
	    context, code, p1, p2, [](const plugin::Introduction& manager) { manager.offer(*new SequenceCamera); });
}
