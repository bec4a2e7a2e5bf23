#pragma once

#include "live_table_internal.h"
#include "sio_plugin.h"

#include <atomic>
#include <cstdint>

class CqorSIO_Object;

/// What camera and timing device have in common.
namespace plugins {

/// State of a capture device. Recording, reading and preview are the host's bookkeeping.
enum CaptureState : uint32_t {
	kStateStarting = 1, // "start" has been sent and not been answered
	kStateOnline = 2,
	kStateOpen = 4,
	kStatePrepared = 8,
	kStateAcquiring = 16,
	kStateRecording = 32,
	kStateReading = 64,
	kStatePreview = 128
};

inline constexpr uint32_t kStatesOfRun = kStateAcquiring | kStateRecording | kStateReading;

inline int hasState(const std::atomic<uint32_t>& state, uint32_t bit) {
	return (state.load(std::memory_order_acquire) & bit) != 0;
}

/// Changes bits that no operation changes.
inline void changeState(std::atomic<uint32_t>& state, uint32_t set, uint32_t clear) {
	auto bits = state.load(std::memory_order_relaxed);
	while (!state.compare_exchange_weak(bits, (bits & ~clear) | set, std::memory_order_acq_rel)) {
	}
}

inline void putState(std::atomic<uint32_t>& state, uint32_t bit, bool on) {
	changeState(state, on ? bit : 0, on ? 0 : bit);
}

/// An operation and what it changes.
struct Operation {
	const char* name;
	uint32_t set = 0;
	uint32_t clear = 0;
};

inline constexpr Operation kOpen = {QOR_SIO_OP_OPEN, kStateOpen, 0};
inline constexpr Operation kClose = {QOR_SIO_OP_CLOSE, 0, kStateOpen};
inline constexpr Operation kPrepare = {QOR_SIO_OP_PREPARE, kStatePrepared, kStatesOfRun};
inline constexpr Operation kStart = {QOR_SIO_OP_START, kStateAcquiring, 0};
inline constexpr Operation kStop = {QOR_SIO_OP_STOP, 0, kStatePrepared | kStatesOfRun};

/// Sends an operation and, when it succeeds, changes the state. Of two that overlap the one sent
/// later decides: a "stop" from the first frame's callback is not undone by the answer to "start"
/// that arrives behind it. @return the plug-in's status.
int runOperation(CqorSIO_Object& device, LivePlace* place, std::atomic<uint32_t>& state, const Operation& operation,
    const char* argument = nullptr);

/// Stops a device that is about to lose its object.
void stopBeforeEnd(CqorSIO_Object& device, const std::atomic<uint32_t>& state);

inline constexpr int kDeviceStringSize = 128;

/// A text of a device and where it is kept; a longer one is cut at 127 characters.
struct DeviceString {
	const char* key;
	char (*text)[kDeviceStringSize];
};

/// Reads texts of a device; what it does not tell is left empty.
/// @return false: the device's object was destroyed meanwhile.
bool readDeviceStrings(CqorSIO_Object& device, const LiveWatch& watch, const DeviceString (&strings)[6]);

/// Seconds of the counter. Not `appGetTime`, whose scale the host may not have set yet or sets
/// by a configuration file: intervals and time limits of a device hold from the first call on.
double counterSeconds();

} // namespace plugins
