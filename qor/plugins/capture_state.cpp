#include "capture_internal.h"

#include "../base/status.h"
#include "../platform/clock.h"
#include "../platform/format.h"
#include "plugin_object.h"

namespace plugins {

int runOperation(CqorSIO_Object& device, StateFlags& state, const char* operation, const char* argument, uint32_t set,
    uint32_t clear) {
	const int status = device.piVerboseSingleOP(operation, argument);
	if (status == kQorSuccess) state.modify(set, clear);
	return status;
}

void readDeviceStrings(CqorSIO_Object& device, const char* vendorKey, DeviceStrings* out) {
	const struct {
		const char* key;
		char* text;
	} entries[] = {
	    {vendorKey, out->mVendor},
	    {"!modelname", out->mModelName},
	    {"!manufacturerinfo", out->mManufacturerInfo},
	    {"!version", out->mVersion},
	    {"!firmwareversion", out->mFirmwareVersion},
	    {"!deviceID", out->mDeviceID},
	};
	for (const auto& entry : entries) {
		char value[QOR_SIO_REPLY_SIZE];
		if (device.piVerboseGetString(entry.key, value, sizeof value) != kQorSuccess) value[0] = 0;
		platform::formatText(entry.text, kDeviceStringSize, "%s", value);
	}
}

double counterSeconds() {
	static const double frequency = platform::counterFrequency();
	return static_cast<double>(platform::counter()) / frequency;
}

} // namespace plugins
