#include "video_capture.h"

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../core/line_parameters.h"
#include "../platform/clock.h"
#include "../platform/format.h"
#include "../platform/memory.h"
#include "capture_internal.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr int kMaximumRing = 65536;
constexpr long long kStartUpFrames = 5;   // their intervals say nothing about the device
constexpr double kGeometryPatience = 3.0; // seconds

} // namespace

CqorSIO_VideoCap::CqorSIO_VideoCap() : mIntervalMutex(platform::createMutex(false)) {}

CqorSIO_VideoCap::~CqorSIO_VideoCap() {
	piRetire();
	platform::release(mIntervals);
	platform::release(mFrameInfos);
	platform::closeHandle(mIntervalMutex);
}

void CqorSIO_VideoCap::SetUserCallBack(qorSIO_VideoCapFunc callback, void* userContext) {
	mUserCallback.store(nullptr);
	mUserContext.store(userContext);
	mUserCallback.store(callback);
}

int CqorSIO_VideoCap::callUserCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	const auto callback = mUserCallback.load(std::memory_order_acquire);
	return callback ? callback(mUserContext.load(std::memory_order_relaxed), this, code, a, b, p1, p2) : kQorFailure;
}

// ---- events

int CqorSIO_VideoCap::OnObjectCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	switch (code) {
	case qorSIO_EVENT_DATA: return onFrame(p1);
	case qorSIO_EVENT_ACQUIRING: mSensorAcquiring.store(a == 1, std::memory_order_relaxed); break;
	case qorSIO_EVENT_CONNECTED:
		plugins::readDeviceStrings(*this, "!vendorname", &mStrings);
		mState.modify(plugins::kStateOnline, 0);
		break;
	case qorSIO_EVENT_ONLINE: mState.modify(plugins::kStateOnline, 0); break;
	case qorSIO_EVENT_OFFLINE: mState.modify(0, plugins::kStateOnline); break;
	case qorSIO_EVENT_USER: break;
	default: return kQorSuccess;
	}
	callUserCB(code, a, b, p1, p2);
	return kQorSuccess;
}

int CqorSIO_VideoCap::onFrame(void* information) {
	if (!information) return kQorFailure;
	const double now = plugins::counterSeconds();
	rememberInterval(now - mLastFrameTime.exchange(now, std::memory_order_relaxed));
	uint32_t words[2];
	std::memcpy(words, information, sizeof words);
	callUserCB(qorSIO_EVENT_DATA, words[1], 0, information, nullptr);
	mFrameCount.fetch_add(1, std::memory_order_relaxed);
	if (mArmedCount.fetch_add(1, std::memory_order_relaxed) + 1 == kStartUpFrames) clearIntervals();
	return kQorSuccess;
}

// ---- intervals

int CqorSIO_VideoCap::SetIntervalRingSize(int count) {
	if (count < 0 || count > kMaximumRing) return kQorFailure;
	double* ring = nullptr;
	if (count > 0) {
		ring = static_cast<double*>(platform::allocateZeroed(static_cast<size_t>(count) * sizeof(double)));
		if (!ring) return kQorFailure;
	}
	{
		const base::MutexGuard guard(mIntervalMutex);
		std::swap(mIntervals, ring);
		mIntervalRingSize.store(count, std::memory_order_relaxed);
		mIntervalIndex = 0;
		mArmedCount.store(0, std::memory_order_relaxed);
	}
	platform::release(ring);
	return kQorSuccess;
}

void CqorSIO_VideoCap::rememberInterval(double interval) {
	if (mIntervalRingSize.load(std::memory_order_relaxed) == 0) return;
	const base::MutexGuard guard(mIntervalMutex);
	const auto size = static_cast<uint64_t>(mIntervalRingSize.load(std::memory_order_relaxed));
	if (size == 0) return;
	mIntervals[mIntervalIndex % size] = interval;
	++mIntervalIndex;
}

void CqorSIO_VideoCap::clearIntervals() {
	const base::MutexGuard guard(mIntervalMutex);
	std::fill_n(mIntervals, mIntervalRingSize.load(std::memory_order_relaxed), 0.0);
	mIntervalIndex = 0;
}

void CqorSIO_VideoCap::GetIntervalStatistics(qorSIO_INTERVAL_STATISTICS* out) {
	if (!out) return;
	*out = {};
	const base::MutexGuard guard(mIntervalMutex);
	const auto size = static_cast<uint64_t>(mIntervalRingSize.load(std::memory_order_relaxed));
	out->mCount = static_cast<int>(std::min(mIntervalIndex, size));
	if (out->mCount == 0) return;
	const auto [minimum, maximum] = std::minmax_element(mIntervals, mIntervals + out->mCount);
	out->mMinimum = *minimum;
	out->mMaximum = *maximum;
	for (int i = 0; i < out->mCount; ++i) out->mMean += mIntervals[i] / out->mCount;
	out->mLast = mIntervals[(mIntervalIndex - 1) % size];
}

// ---- frame information

int CqorSIO_VideoCap::SetFrameInfoRingSize(int count) {
	if (count < 0 || count > kMaximumRing || isAcquiring()) return kQorFailure;
	qorSIO_VCAP_FRAME_INFO* ring = nullptr;
	if (count > 0) {
		const auto bytes = static_cast<size_t>(count) * sizeof(qorSIO_VCAP_FRAME_INFO);
		ring = static_cast<qorSIO_VCAP_FRAME_INFO*>(platform::allocateZeroed(bytes));
		if (!ring) return kQorFailure;
	}
	platform::release(std::exchange(mFrameInfos, ring));
	mFrameInfoRingSize = count;
	mFrameInfoIndex.store(0);
	return kQorSuccess;
}

void CqorSIO_VideoCap::clearFrameInfos() {
	std::fill_n(mFrameInfos, mFrameInfoRingSize, qorSIO_VCAP_FRAME_INFO{});
	mFrameInfoIndex.store(0);
}

qorSIO_VCAP_FRAME_INFO* CqorSIO_VideoCap::GetFreeFrameInfoPtr() {
	if (mFrameInfoRingSize == 0) return nullptr;
	const auto index = mFrameInfoIndex.fetch_add(1, std::memory_order_relaxed);
	auto* record = &mFrameInfos[index % static_cast<uint64_t>(mFrameInfoRingSize)];
	record->mByteSize = 0;
	return record;
}

// ---- operations

int CqorSIO_VideoCap::cmdOpen() {
	clearFrameInfos();
	return plugins::runOperation(*this, mState, "open", nullptr, plugins::kStateOpen, 0);
}

int CqorSIO_VideoCap::cmdClose() {
	return plugins::runOperation(*this, mState, "close", nullptr, 0, plugins::kStateOpen);
}

int CqorSIO_VideoCap::cmdAllocInternalBuffers(int count) {
	clearFrameInfos();
	char argument[16];
	platform::formatText(argument, sizeof argument, "%d", count);
	return plugins::runOperation(*this, mState, "allocbuffers", argument, 0, 0);
}

int CqorSIO_VideoCap::cmdReleaseInternalBuffers() {
	return plugins::runOperation(*this, mState, "releasebuffers", nullptr, 0, 0);
}

int CqorSIO_VideoCap::cmdPrepare() {
	return plugins::runOperation(*this, mState, "prepare", nullptr, plugins::kStatePrepared,
	    plugins::kStateAcquiring | plugins::kStateRecording | plugins::kStateReading);
}

int CqorSIO_VideoCap::cmdStart() {
	// Before the command: the first frames may arrive before it returns.
	if (!isAcquiring()) mArmedCount.store(0, std::memory_order_relaxed);
	return plugins::runOperation(*this, mState, "start", nullptr, plugins::kStateAcquiring, 0);
}

int CqorSIO_VideoCap::cmdStop() {
	return plugins::runOperation(*this, mState, "stop", nullptr, 0,
	    plugins::kStatePrepared | plugins::kStateAcquiring | plugins::kStateRecording | plugins::kStateReading);
}

int CqorSIO_VideoCap::cmdRecord(int on) {
	mState.put(plugins::kStateRecording, on != 0);
	return kQorSuccess;
}

int CqorSIO_VideoCap::cmdStartRead() {
	mState.modify(plugins::kStateReading, 0);
	return kQorSuccess;
}

int CqorSIO_VideoCap::cmdPreview(int on) {
	mState.put(plugins::kStatePreview, on != 0);
	return kQorSuccess;
}

// ---- geometry

void CqorSIO_VideoCap::askForGeometryChange() {
	std::atomic_ref<int> acknowledged(mGeometryAcknowledged);
	acknowledged.store(0);
	const double begin = plugins::counterSeconds();
	do {
		callUserCB(QOR_SIO_HOST_GEOMETRY, 0, 0, &mGeometryAcknowledged, nullptr);
		platform::sleepMs(1);
		if (acknowledged.load(std::memory_order_acquire) != 0) return;
	} while (plugins::counterSeconds() - begin < kGeometryPatience);
	_mclog(3, "TIMEOUT!!!");
}

int CqorSIO_VideoCap::setGuarded(const char* call, const char* key, int value) {
	_mclog(1, "%s(%d)", call, value);
	mGeometryChanges.fetch_add(1);
	askForGeometryChange();
	const int status = piVerboseSetInt32(key, value);
	mGeometryChanges.fetch_sub(1);
	_mclog(2, "%s(%d)", call, value);
	return status;
}

int CqorSIO_VideoCap::setRegion(const char* call, const char* command, const char* key) {
	_mclog(1, "%s", call);
	mGeometryChanges.fetch_add(1);
	askForGeometryChange();
	CmcLineParSet reply;
	if (piAsk(reply, "%s", command) != kQorSuccess) {
		// Hosts set a region in passing and go on with whatever the camera has: only the log tells.
		mGeometryChanges.fetch_sub(1);
		_mclog(3, "%s - P2", call);
		return kQorSuccess;
	}
	const int status = piInteger(reply, key);
	mGeometryChanges.fetch_sub(1);
	_mclog(2, "%s", call);
	return status;
}

int CqorSIO_VideoCap::setWidth(int width) { return setGuarded("setWidth", "!width", width); }
int CqorSIO_VideoCap::setHeight(int height) { return setGuarded("setHeight", "!height", height); }

int CqorSIO_VideoCap::setROI(int x, int y, int width, int height) {
	char call[96];
	char command[96];
	platform::formatText(call, sizeof call, "setROI(%d,%d,%d,%d)", x, y, width, height);
	platform::formatText(command, sizeof command, "set,!roi,%d,%d,%d,%d", x, y, width, height);
	return setRegion(call, command, "!roi");
}

int CqorSIO_VideoCap::setROIex(int x, int y, int width, int height, int horizontal, int vertical) {
	char call[128];
	char command[128];
	platform::formatText(call, sizeof call, "setROIEX(%d,%d,%d,%d,%d,%d)", x, y, width, height, horizontal, vertical);
	platform::formatText(
	    command, sizeof command, "set,!roiex,%d,%d,%d,%d,%d,%d", x, y, width, height, horizontal, vertical);
	return setRegion(call, command, "!roiex");
}

// ---- properties

int CqorSIO_VideoCap::getInt(const char* key) {
	int value = 0;
	return piVerboseGetInt32(key, &value) == kQorSuccess ? value : 0;
}

float CqorSIO_VideoCap::getFloat(const char* key) {
	float value = 0;
	return piVerboseGetFloat32(key, &value) == kQorSuccess ? value : 0;
}

int CqorSIO_VideoCap::getText(const char* key, char* out) {
	if (!out) return kQorFailure;
	out[0] = 0;
	return piVerboseGetString(key, out);
}

int CqorSIO_VideoCap::getMaxWidth() { return getInt("!maxwidth"); }
int CqorSIO_VideoCap::getMaxHeight() { return getInt("!maxheight"); }
int CqorSIO_VideoCap::getWidth() { return getInt("!width"); }
int CqorSIO_VideoCap::getHeight() { return getInt("!height"); }
int CqorSIO_VideoCap::getX() { return getInt("!x"); }
int CqorSIO_VideoCap::getY() { return getInt("!y"); }
int CqorSIO_VideoCap::setX(int x) { return piVerboseSetInt32("!x", x); }
int CqorSIO_VideoCap::setY(int y) { return piVerboseSetInt32("!y", y); }
int CqorSIO_VideoCap::getExposure() { return getInt("!exposure"); }
int CqorSIO_VideoCap::getMinExposure() { return getInt("!minexposure"); }
int CqorSIO_VideoCap::getMaxExposure() { return getInt("!maxexposure"); }
int CqorSIO_VideoCap::setExposure(int exposure) { return piVerboseSetInt32("!exposure", exposure); }
int CqorSIO_VideoCap::getGain() { return getInt("!gain"); }
int CqorSIO_VideoCap::getMinGain() { return getInt("!mingain"); }
int CqorSIO_VideoCap::getMaxGain() { return getInt("!maxgain"); }
int CqorSIO_VideoCap::setGain(int gain) { return piVerboseSetInt32("!gain", gain); }
float CqorSIO_VideoCap::getFrameRate() { return getFloat("!framerate"); }
float CqorSIO_VideoCap::getMinFrameRate() { return getFloat("!minframerate"); }
float CqorSIO_VideoCap::getMaxFrameRate() { return getFloat("!maxframerate"); }
int CqorSIO_VideoCap::setFrameRate(float frameRate) { return piVerboseSetFloat32("!framerate", frameRate); }
int CqorSIO_VideoCap::getFrameByteSize() { return getInt("!framebytesize"); }
int CqorSIO_VideoCap::getPixFormat(char* out) { return getText("!pixformat", out); }
int CqorSIO_VideoCap::getPixFormatConversion(char* out) { return getText("!pixformatconversion", out); }
int CqorSIO_VideoCap::gige_getPacketSize() { return getInt("!gige_packet_size"); }
int CqorSIO_VideoCap::gige_setPacketSize(int bytes) { return piVerboseSetInt32("!gige_packet_size", bytes); }

namespace {

/// "!genicam:<kind>:<feature>". A name that does not fit the buffer gives a command that is
/// too long to be sent.
struct FeatureKey {
	char text[QOR_SIO_COMMAND_SIZE + 1];
	FeatureKey(const char* kind, const char* feature) {
		platform::formatText(text, sizeof text, "!genicam:%s:%s", kind, feature ? feature : "");
	}
	operator const char*() const { return text; }
};

} // namespace

int CqorSIO_VideoCap::genICam_GetString(const char* feature, char* out) {
	return getText(FeatureKey("str", feature), out);
}
int CqorSIO_VideoCap::genICam_SetString(const char* feature, const char* value) {
	return piVerboseSetString(FeatureKey("str", feature), value);
}
int CqorSIO_VideoCap::genICam_GetInt32(const char* feature) { return getInt(FeatureKey("int32", feature)); }
int CqorSIO_VideoCap::genICam_SetInt32(const char* feature, int value) {
	return piVerboseSetInt32(FeatureKey("int32", feature), value);
}
float CqorSIO_VideoCap::genICam_GetFloat32(const char* feature) { return getFloat(FeatureKey("float32", feature)); }
int CqorSIO_VideoCap::genICam_SetFloat32(const char* feature, float value) {
	return piVerboseSetFloat32(FeatureKey("float32", feature), value);
}
int CqorSIO_VideoCap::genICam_Command(const char* feature) {
	return piVerboseSetString(FeatureKey("cmd", feature), "");
}

const char* CqorSIO_VideoCap::gettype() const { return "CqorSIO_VideoCap"; }

int CqorSIO_VideoCap::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_VideoCap>("CqorSIO_VideoCap", command, out);
}
