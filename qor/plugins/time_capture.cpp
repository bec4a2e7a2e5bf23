#include "time_capture.h"

#include "../base/status.h"
#include "../core/line_parameters.h"
#include "capture_internal.h"

CqorSIO_TimeCap::CqorSIO_TimeCap() : mLastUpdate(plugins::counterSeconds()) {}

CqorSIO_TimeCap::~CqorSIO_TimeCap() { piRetire(); }

void CqorSIO_TimeCap::SetUserCallBack(qorSIO_TimeCapFunc callback, void* userContext) {
	mUserCallback.store(nullptr);
	mUserContext.store(userContext);
	mUserCallback.store(callback);
}

int CqorSIO_TimeCap::callUserCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	const auto callback = mUserCallback.load(std::memory_order_acquire);
	return callback ? callback(mUserContext.load(std::memory_order_relaxed), this, code, a, b, p1, p2) : kQorFailure;
}

int CqorSIO_TimeCap::OnObjectCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	if (code == qorSIO_EVENT_DATA) {
		mEvents.add(1);
	} else if (code == qorSIO_EVENT_CONNECTED) {
		// A timing device names its vendor under "!vendorinfo", a camera under "!vendorname".
		plugins::readDeviceStrings(*this, "!vendorinfo", &mStrings);
		mState.modify(plugins::kStateOnline, 0);
		callUserCB(code, a, b, p1, p2);
	}
	return kQorSuccess;
}

int CqorSIO_TimeCap::cmdOpen() { return plugins::runOperation(*this, mState, "open", nullptr, plugins::kStateOpen, 0); }

int CqorSIO_TimeCap::cmdClose() {
	return plugins::runOperation(*this, mState, "close", nullptr, 0, plugins::kStateOpen);
}

int CqorSIO_TimeCap::cmdPrepare() {
	return plugins::runOperation(*this, mState, "prepare", nullptr, plugins::kStatePrepared,
	    plugins::kStateAcquiring | plugins::kStateRecording | plugins::kStateReading);
}

int CqorSIO_TimeCap::cmdStart() {
	return plugins::runOperation(*this, mState, "start", nullptr, plugins::kStateAcquiring, 0);
}

int CqorSIO_TimeCap::cmdStop() {
	return plugins::runOperation(*this, mState, "stop", nullptr, 0,
	    plugins::kStatePrepared | plugins::kStateAcquiring | plugins::kStateRecording | plugins::kStateReading);
}

int CqorSIO_TimeCap::getTime(eqorSIO_TIME* out) {
	if (!out) return kQorFailure;
	*out = {};
	char text[kQorSioValueSize];
	if (piVerboseGetString("!time", text) != kQorSuccess) return kQorFailure;
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

void CqorSIO_TimeCap::updatePerfCounters() {
	const double now = plugins::counterSeconds();
	const double elapsed = now - mLastUpdate;
	if (elapsed <= 1.0) return;
	mEvents.update(elapsed);
	mHostEvents.update(elapsed);
	mLastUpdate = now;
}

const char* CqorSIO_TimeCap::gettype() const { return "CqorSIO_TimeCap"; }

int CqorSIO_TimeCap::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_TimeCap>("CqorSIO_TimeCap", command, out);
}
