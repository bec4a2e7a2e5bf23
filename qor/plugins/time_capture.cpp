#include "time_capture.h"

#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../core/line_parameters.h"
#include "capture_internal.h"

CqorSIO_TimeCap::CqorSIO_TimeCap() : mLastUpdate(plugins::counterSeconds()) {}

CqorSIO_TimeCap::~CqorSIO_TimeCap() { piRetire(); }

void CqorSIO_TimeCap::OnRetire() { plugins::stopBeforeEnd(*this, mState); }

void CqorSIO_TimeCap::SetUserCallBack(qorSIO_TimeCapFunc callback, void* userContext) {
	plugins::changePair(mPlace, [&] {
		mUserCallback = callback;
		mUserContext = userContext;
	});
}

int CqorSIO_TimeCap::callUserCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	qorSIO_TimeCapFunc callback = nullptr;
	const plugins::HostCall call(mPlace, [&] {
		callback = mUserCallback;
		return mUserContext;
	});
	if (!callback) return kQorFailure;
	return base::callHost(
	    "CqorSIO_TimeCap callback", [&] { return callback(call.context(), this, code, a, b, p1, p2); });
}

int CqorSIO_TimeCap::OnObjectCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	if (code == qorSIO_EVENT_DATA) {
		mEvents.mCount.fetch_add(1, std::memory_order_relaxed);
	} else if (code == qorSIO_EVENT_CONNECTED) {
		if (!readStrings()) return kQorFailure;
		plugins::changeState(mState, plugins::kStateOnline, 0);
		callUserCB(code, a, b, p1, p2);
	}
	return kQorSuccess;
}

bool CqorSIO_TimeCap::readStrings() {
	// A timing device names its vendor under "!vendorinfo", a camera under "!vendorname".
	return plugins::readDeviceStrings(*this, plugins::LiveWatch(mPlace),
	    {{QOR_SIO_KEY_VENDOR_INFO, &mVendorInfo}, {QOR_SIO_KEY_MODEL_NAME, &mModelName},
	        {QOR_SIO_KEY_MANUFACTURER_INFO, &mManufacturerInfo}, {QOR_SIO_KEY_VERSION, &mVersion},
	        {QOR_SIO_KEY_FIRMWARE_VERSION, &mFirmwareVersion}, {QOR_SIO_KEY_DEVICE_ID, &mDeviceID}});
}

int CqorSIO_TimeCap::cmdOpen() { return plugins::runOperation(*this, mPlace, mState, plugins::kOpen); }
int CqorSIO_TimeCap::cmdClose() { return plugins::runOperation(*this, mPlace, mState, plugins::kClose); }
int CqorSIO_TimeCap::cmdPrepare() { return plugins::runOperation(*this, mPlace, mState, plugins::kPrepare); }
int CqorSIO_TimeCap::cmdStart() { return plugins::runOperation(*this, mPlace, mState, plugins::kStart); }
int CqorSIO_TimeCap::cmdStop() { return plugins::runOperation(*this, mPlace, mState, plugins::kStop); }

int CqorSIO_TimeCap::isOnline() const { return plugins::hasState(mState, plugins::kStateOnline); }
int CqorSIO_TimeCap::isOpen() const { return plugins::hasState(mState, plugins::kStateOpen); }
int CqorSIO_TimeCap::isPrepared() const { return plugins::hasState(mState, plugins::kStatePrepared); }
int CqorSIO_TimeCap::isAcquiring() const { return plugins::hasState(mState, plugins::kStateAcquiring); }
int CqorSIO_TimeCap::isRecording() const { return plugins::hasState(mState, plugins::kStateRecording); }
int CqorSIO_TimeCap::isReading() const { return plugins::hasState(mState, plugins::kStateReading); }
int CqorSIO_TimeCap::isPreview() const { return plugins::hasState(mState, plugins::kStatePreview); }

const char* CqorSIO_TimeCap::getVendorInfo() const { return mVendorInfo; }
const char* CqorSIO_TimeCap::getModelName() const { return mModelName; }
const char* CqorSIO_TimeCap::getManufacturerInfo() const { return mManufacturerInfo; }
const char* CqorSIO_TimeCap::getVersion() const { return mVersion; }
const char* CqorSIO_TimeCap::getFirmwareVersion() const { return mFirmwareVersion; }
const char* CqorSIO_TimeCap::GetDeviceID() const { return mDeviceID; }

int CqorSIO_TimeCap::getTime(eqorSIO_TIME* out) {
	if (!out) return kQorFailure;
	*out = {};
	char text[kQorSioValueSize];
	if (piVerboseGetString(QOR_SIO_KEY_TIME, text) != kQorSuccess) return kQorFailure;
	const CmcLineParSet parts('/', text, 1);
	out->mPart1 = static_cast<uint16_t>(parts.GetIntPar(0, 0));
	out->mPart2 = static_cast<uint16_t>(parts.GetIntPar(1, 0));
	out->mPart3 = static_cast<uint16_t>(parts.GetIntPar(2, 0));
	out->mPart4 = static_cast<uint8_t>(parts.GetIntPar(3, 0));
	out->mPart5 = static_cast<uint8_t>(parts.GetIntPar(4, 0));
	out->mPart6 = static_cast<uint32_t>(parts.GetIntPar(5, 0));
	out->mPart7 = parts.GetDoublePar(6, 0);
	return kQorSuccess;
}

void CqorSIO_TimeCap::RateCounter::update(double seconds) {
	const auto now = mCount.load(std::memory_order_relaxed);
	mRate.store(static_cast<double>(now - mLast) / seconds, std::memory_order_relaxed);
	mLast = now;
}

long long CqorSIO_TimeCap::GetEventCount() const { return mEvents.mCount.load(std::memory_order_relaxed); }
long long CqorSIO_TimeCap::GetHostEventCount() const { return mHostEvents.mCount.load(std::memory_order_relaxed); }
double CqorSIO_TimeCap::GetEventRate() const { return mEvents.mRate.load(std::memory_order_relaxed); }
double CqorSIO_TimeCap::GetHostEventRate() const { return mHostEvents.mRate.load(std::memory_order_relaxed); }

void CqorSIO_TimeCap::CountHostEvents(int count) { mHostEvents.mCount.fetch_add(count, std::memory_order_relaxed); }

void CqorSIO_TimeCap::updatePerfCounters() {
	const double now = plugins::counterSeconds();
	const double elapsed = now - mLastUpdate;
	if (elapsed <= 1.0) return;
	mEvents.update(elapsed);
	mHostEvents.update(elapsed);
	mLastUpdate = now;
}

const char* CqorSIO_TimeCap::gettype() const { return "CqorSIO_TimeCap"; }
qorMCClassFunc CqorSIO_TimeCap::getclassfunc() const { return qorMC__CLASSFUNC; }

int CqorSIO_TimeCap::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_TimeCap>("CqorSIO_TimeCap", command, out);
}
