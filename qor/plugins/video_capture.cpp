#include "video_capture.h"

#include "../base/host_call_internal.h"
#include "../base/status.h"
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
constexpr int kStartUpFrames = 5;         // their intervals say nothing about the device
constexpr double kGeometryPatience = 3.0; // seconds

/// The word that guards a ring, for a few instructions at a time.
class RingLock {
public:
	explicit RingLock(std::atomic<uint32_t>& word) : mWord(word) { threads::lockWord(mWord); }
	~RingLock() { threads::unlockWord(mWord); }
	RingLock(const RingLock&) = delete;
	RingLock& operator=(const RingLock&) = delete;

private:
	std::atomic<uint32_t>& mWord;
};

} // namespace

CqorSIO_VideoCap::CqorSIO_VideoCap() = default;

CqorSIO_VideoCap::~CqorSIO_VideoCap() {
	piRetire();
	platform::release(mIntervals);
	platform::release(mFrameInfos);
}

void CqorSIO_VideoCap::OnRetire() { plugins::stopBeforeEnd(*this, mState); }

void CqorSIO_VideoCap::SetUserCallBack(qorSIO_VideoCapFunc callback, void* userContext) {
	plugins::changePair(mPlace, [&] {
		mUserCallback = callback;
		mUserContext = userContext;
	});
}

int CqorSIO_VideoCap::callUserCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	qorSIO_VideoCapFunc callback = nullptr;
	const plugins::HostCall call(mPlace, [&] {
		callback = mUserCallback;
		return mUserContext;
	});
	if (!callback) return kQorFailure;
	return base::callHost(
	    "CqorSIO_VideoCap callback", [&] { return callback(call.context(), this, code, a, b, p1, p2); });
}

// ---- events

int CqorSIO_VideoCap::OnObjectCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	switch (code) {
	case qorSIO_EVENT_DATA: return onFrame(p1);
	case qorSIO_EVENT_ACQUIRING: mSensorAcquiring.store(a == 1, std::memory_order_relaxed); break;
	case qorSIO_EVENT_CONNECTED:
		if (!readStrings()) return kQorFailure;
		plugins::changeState(mState, plugins::kStateOnline, 0);
		break;
	case qorSIO_EVENT_ONLINE: plugins::changeState(mState, plugins::kStateOnline, 0); break;
	case qorSIO_EVENT_OFFLINE: plugins::changeState(mState, 0, plugins::kStateOnline); break;
	case qorSIO_EVENT_USER: break;
	default: return kQorSuccess;
	}
	callUserCB(code, a, b, p1, p2);
	return kQorSuccess;
}

bool CqorSIO_VideoCap::readStrings() {
	static_assert(sizeof mVendorName == plugins::kDeviceStringSize);
	return plugins::readDeviceStrings(*this, plugins::LiveWatch(mPlace),
	    {{QOR_SIO_KEY_VENDOR_NAME, &mVendorName}, {QOR_SIO_KEY_MODEL_NAME, &mModelName},
	        {QOR_SIO_KEY_MANUFACTURER_INFO, &mManufacturerInfo}, {QOR_SIO_KEY_VERSION, &mVersion},
	        {QOR_SIO_KEY_FIRMWARE_VERSION, &mFirmwareVersion}, {QOR_SIO_KEY_DEVICE_ID, &mDeviceID}});
}

int CqorSIO_VideoCap::onFrame(void* information) {
	if (!information) return kQorFailure;
	const plugins::LiveWatch watch(mPlace);
	const double now = plugins::counterSeconds();
	rememberInterval(now - mLastFrameTime.load(std::memory_order_relaxed));
	mLastFrameTime.store(now, std::memory_order_relaxed);
	uint32_t words[2];
	std::memcpy(words, information, sizeof words);
	callUserCB(qorSIO_EVENT_DATA, words[1], 0, information, nullptr);
	if (watch.gone()) return kQorFailure; // the host deleted the camera for that frame
	mFrameCount.fetch_add(1, std::memory_order_relaxed);
	// Counted no further than it says something.
	if (mArmedCount.load(std::memory_order_relaxed) < kStartUpFrames &&
	    mArmedCount.fetch_add(1, std::memory_order_relaxed) + 1 == kStartUpFrames)
		clearIntervals();
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
		const RingLock lock(mIntervalLock);
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
	const RingLock lock(mIntervalLock);
	const auto size = static_cast<uint64_t>(mIntervalRingSize.load(std::memory_order_relaxed));
	if (size == 0) return;
	mIntervals[mIntervalIndex % size] = interval;
	++mIntervalIndex;
}

void CqorSIO_VideoCap::clearIntervals() {
	const RingLock lock(mIntervalLock);
	mIntervalIndex = 0;
}

void CqorSIO_VideoCap::GetIntervalStatistics(qorSIO_INTERVAL_STATISTICS* out) {
	while (out && !readIntervals(out)) {
	}
}

/// In parts, so that a frame never waits for a whole ring.
/// @return false: the ring was emptied or exchanged on the way.
bool CqorSIO_VideoCap::readIntervals(qorSIO_INTERVAL_STATISTICS* out) {
	*out = {};
	double part[256] = {};
	uint64_t seen = 0;
	double sum = 0;
	for (int at = 0, count = 0; at == 0 || at < count; at += static_cast<int>(std::size(part))) {
		int taken = 0;
		{
			const RingLock lock(mIntervalLock);
			const int size = mIntervalRingSize.load(std::memory_order_relaxed);
			if (at > 0 && (mIntervalIndex < seen || size < count)) return false;
			if (at == 0) {
				seen = mIntervalIndex;
				count = static_cast<int>(std::min<uint64_t>(seen, static_cast<uint64_t>(size)));
				if (count == 0) return true;
				out->mLast = mIntervals[(seen - 1) % static_cast<uint64_t>(size)];
			}
			taken = std::min(count - at, static_cast<int>(std::size(part)));
			std::copy_n(mIntervals + at, taken, part);
		}
		const auto [minimum, maximum] = std::minmax_element(part, part + taken);
		out->mMinimum = at == 0 ? *minimum : std::min(out->mMinimum, *minimum);
		out->mMaximum = std::max(out->mMaximum, *maximum);
		for (int i = 0; i < taken; ++i) sum += part[i];
		out->mCount = at + taken;
	}
	out->mMean = sum / out->mCount;
	return true;
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
	{
		const plugins::PlaceLock lock(mPlace);
		std::swap(mFrameInfos, ring);
		mFrameInfoRingSize = count;
		mFrameInfoIndex = 0;
	}
	platform::release(ring);
	return kQorSuccess;
}

void CqorSIO_VideoCap::clearFrameInfos() {
	const plugins::PlaceLock lock(mPlace);
	std::fill_n(mFrameInfos, mFrameInfoRingSize, qorSIO_VCAP_FRAME_INFO{});
	mFrameInfoIndex = 0;
}

qorSIO_VCAP_FRAME_INFO* CqorSIO_VideoCap::GetFreeFrameInfoPtr() {
	const plugins::PlaceLock lock(mPlace);
	if (mFrameInfoRingSize == 0) return nullptr;
	auto* record = &mFrameInfos[mFrameInfoIndex++ % static_cast<uint64_t>(mFrameInfoRingSize)];
	record->mByteSize = 0;
	return record;
}

// ---- operations

int CqorSIO_VideoCap::cmdOpen() {
	clearFrameInfos();
	return plugins::runOperation(*this, mPlace, mState, plugins::kOpen);
}

int CqorSIO_VideoCap::cmdClose() { return plugins::runOperation(*this, mPlace, mState, plugins::kClose); }

int CqorSIO_VideoCap::cmdAllocInternalBuffers(int count) {
	clearFrameInfos();
	char argument[16];
	platform::formatText(argument, sizeof argument, "%d", count);
	return plugins::runOperation(*this, mPlace, mState, {QOR_SIO_OP_ALLOC_BUFFERS}, argument);
}

int CqorSIO_VideoCap::cmdReleaseInternalBuffers() {
	return plugins::runOperation(*this, mPlace, mState, {QOR_SIO_OP_RELEASE_BUFFERS});
}

int CqorSIO_VideoCap::cmdPrepare() { return plugins::runOperation(*this, mPlace, mState, plugins::kPrepare); }

int CqorSIO_VideoCap::cmdStart() {
	// Before the command: the first frames may arrive before it returns.
	if (!isAcquiring()) mArmedCount.store(0, std::memory_order_relaxed);
	return plugins::runOperation(*this, mPlace, mState, plugins::kStart);
}

int CqorSIO_VideoCap::cmdStop() { return plugins::runOperation(*this, mPlace, mState, plugins::kStop); }

int CqorSIO_VideoCap::cmdRecord(int on) {
	plugins::putState(mState, plugins::kStateRecording, on != 0);
	return kQorSuccess;
}

int CqorSIO_VideoCap::cmdStartRead() {
	plugins::changeState(mState, plugins::kStateReading, 0);
	return kQorSuccess;
}

int CqorSIO_VideoCap::cmdPreview(int on) {
	plugins::putState(mState, plugins::kStatePreview, on != 0);
	return kQorSuccess;
}

// ---- geometry

/// @return false: the host destroyed the camera when it was asked.
bool CqorSIO_VideoCap::askForGeometryChange() {
	const plugins::LiveWatch watch(mPlace);
	std::atomic_ref<int> acknowledged(mGeometryAcknowledged);
	acknowledged.store(0);
	const double begin = plugins::counterSeconds();
	do {
		callUserCB(QOR_SIO_HOST_GEOMETRY, 0, 0, &mGeometryAcknowledged, nullptr);
		platform::sleepMs(1);
		if (watch.gone()) return false;
		if (acknowledged.load(std::memory_order_acquire) != 0) return true;
	} while (plugins::counterSeconds() - begin < kGeometryPatience);
	_mclog(3, "TIMEOUT!!!");
	return true;
}

int CqorSIO_VideoCap::setGuarded(const char* call, const char* key, int value) {
	_mclog(1, "%s(%d)", call, value);
	const plugins::LiveWatch watch(mPlace);
	mGeometryChanges.fetch_add(1);
	if (!askForGeometryChange()) return kQorFailure;
	const int status = piVerboseSetInt32(key, value);
	if (watch.gone()) return status;
	mGeometryChanges.fetch_sub(1);
	_mclog(2, "%s(%d)", call, value);
	return status;
}

int CqorSIO_VideoCap::setRegion(const char* call, const char* command, const char* key) {
	_mclog(1, "%s", call);
	const plugins::LiveWatch watch(mPlace);
	mGeometryChanges.fetch_add(1);
	if (!askForGeometryChange()) return kQorFailure;
	CmcLineParSet reply;
	const int answer = piAsk(reply, "%s", command);
	const int status = answer == kQorSuccess ? piInteger(reply, key) : kQorSuccess;
	if (watch.gone()) return status;
	mGeometryChanges.fetch_sub(1);
	// Hosts set a region in passing and go on with whatever the camera has: only the log tells.
	if (answer == kQorSuccess)
		_mclog(2, "%s", call);
	else
		_mclog(3, "%s - P2", call);
	return status;
}

int CqorSIO_VideoCap::setWidth(int width) { return setGuarded("setWidth", QOR_SIO_KEY_WIDTH, width); }
int CqorSIO_VideoCap::setHeight(int height) { return setGuarded("setHeight", QOR_SIO_KEY_HEIGHT, height); }

int CqorSIO_VideoCap::setROI(int x, int y, int width, int height) {
	char call[96];
	char command[96];
	platform::formatText(call, sizeof call, "setROI(%d,%d,%d,%d)", x, y, width, height);
	platform::formatText(command, sizeof command, "set," QOR_SIO_KEY_ROI ",%d,%d,%d,%d", x, y, width, height);
	return setRegion(call, command, QOR_SIO_KEY_ROI);
}

int CqorSIO_VideoCap::setROIex(int x, int y, int width, int height, int horizontal, int vertical) {
	char call[128];
	char command[128];
	platform::formatText(call, sizeof call, "setROIEX(%d,%d,%d,%d,%d,%d)", x, y, width, height, horizontal, vertical);
	platform::formatText(command, sizeof command, "set," QOR_SIO_KEY_ROI_EX ",%d,%d,%d,%d,%d,%d", x, y, width, height,
	    horizontal, vertical);
	return setRegion(call, command, QOR_SIO_KEY_ROI_EX);
}

int CqorSIO_VideoCap::isOnline() const { return plugins::hasState(mState, plugins::kStateOnline); }
int CqorSIO_VideoCap::isOpen() const { return plugins::hasState(mState, plugins::kStateOpen); }
int CqorSIO_VideoCap::isPrepared() const { return plugins::hasState(mState, plugins::kStatePrepared); }
int CqorSIO_VideoCap::isAcquiring() const { return plugins::hasState(mState, plugins::kStateAcquiring); }
int CqorSIO_VideoCap::isRecording() const { return plugins::hasState(mState, plugins::kStateRecording); }
int CqorSIO_VideoCap::isReading() const { return plugins::hasState(mState, plugins::kStateReading); }
int CqorSIO_VideoCap::isPreview() const { return plugins::hasState(mState, plugins::kStatePreview); }

const char* CqorSIO_VideoCap::gettype() const { return "CqorSIO_VideoCap"; }
qorMCClassFunc CqorSIO_VideoCap::getclassfunc() const { return qorMC__CLASSFUNC; }

int CqorSIO_VideoCap::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_VideoCap>("CqorSIO_VideoCap", command, out);
}
