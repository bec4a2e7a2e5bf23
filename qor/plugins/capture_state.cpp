#include "capture_internal.h"

#include "../base/status.h"
#include "../platform/clock.h"
#include "../platform/format.h"
#include "plugin_object.h"

namespace plugins {

namespace {

uint64_t takeTicket(LivePlace* place) {
	const PlaceLock lock(place);
	return place ? ++place->tickets : 0;
}

/// Leaves out the bits that an operation sent later has changed.
void applyOperation(LivePlace* place, std::atomic<uint32_t>& state, uint64_t ticket, const Operation& operation) {
	const PlaceLock lock(place);
	uint32_t bits = operation.set | operation.clear;
	for (int i = 0; place && i < kStateBits; ++i) {
		const uint32_t bit = 1u << i;
		if (!(bits & bit)) continue;
		if (place->changedBy[i] > ticket)
			bits &= ~bit;
		else
			place->changedBy[i] = ticket;
	}
	changeState(state, operation.set & bits, operation.clear & bits);
}

} // namespace

int runOperation(CqorSIO_Object& device, LivePlace* place, std::atomic<uint32_t>& state, const Operation& operation,
    const char* argument) {
	const LiveWatch watch(place);
	const uint64_t ticket = takeTicket(place);
	if (operation.set == kStateAcquiring) changeState(state, kStateStarting, 0);
	const int status = device.piVerboseSingleOP(operation.name, argument);
	if (watch.gone()) return status;
	if (status == kQorSuccess) applyOperation(place, state, ticket, operation);
	if (operation.set == kStateAcquiring) changeState(state, 0, kStateStarting);
	return status;
}

void stopBeforeEnd(CqorSIO_Object& device, const std::atomic<uint32_t>& state) {
	if (!hasState(state, kStateAcquiring | kStateStarting)) return;
	const int status = device.piVerboseSingleOP(kStop.name, nullptr);
	if (status != kQorSuccess) device._mclog(3, "Destroyed while it acquires, and not to be stopped (%d)", status);
}

bool readDeviceStrings(CqorSIO_Object& device, const LiveWatch& watch, const DeviceString (&strings)[6]) {
	for (const auto& string : strings) {
		char value[QOR_SIO_REPLY_SIZE];
		if (device.piVerboseGetString(string.key, value, sizeof value) != kQorSuccess) value[0] = 0;
		if (watch.gone()) return false;
		platform::formatText(*string.text, kDeviceStringSize, "%s", value);
	}
	return true;
}

double counterSeconds() {
	static const double frequency = platform::counterFrequency();
	return static_cast<double>(platform::counter()) / frequency;
}

} // namespace plugins
