#pragma once

#include "../base/linear_array.h"
#include "../platform/export.h"
#include "capture_state.h"
#include "plugin_object.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class CqorSIO_TimeCap;

/// The host's callback for a timing device: only 40100 (connected) arrives. It runs on the
/// plug-in's thread.
using qorSIO_TimeCapFunc = int (*)(void* userContext, CqorSIO_TimeCap* device, unsigned long code, unsigned long a,
    unsigned long b, void* p1, void* p2);

/// The device's time in seven parts, whose meaning is the plug-in's. The timing devices
/// that ship with the library give year, month, day, hour, minute, milliseconds of the
/// minute, and seconds since the device started.
struct eqorSIO_TIME {
	uint16_t mPart1;
	uint16_t mPart2;
	uint16_t mPart3;
	uint8_t mPart4;
	uint8_t mPart5;
	uint32_t mPart6;
	double mPart7;
};
static_assert(
    sizeof(eqorSIO_TIME) == 24 && offsetof(eqorSIO_TIME, mPart6) == 8 && offsetof(eqorSIO_TIME, mPart7) == 16);

/// A timing device of a plug-in. Operations and state bits are those of `CqorSIO_VideoCap`.
class QOR_API CqorSIO_TimeCap : public CqorSIO_Object {
public:
	CqorSIO_TimeCap();
	~CqorSIO_TimeCap() override;

	/// Sets callback and user context. While events arrive only from null to a callback and back.
	void SetUserCallBack(qorSIO_TimeCapFunc callback, void* userContext);

	/// @return the plug-in's status, 0 for success.
	int cmdOpen();
	int cmdClose();
	int cmdPrepare();
	int cmdStart();
	int cmdStop();

	/// State bits as 0 or 1. Online is never cleared again, and recording, reading and
	/// preview stay 0: no operation of a timing device touches them.
	int isOnline() const { return mState.has(plugins::kStateOnline); }
	int isOpen() const { return mState.has(plugins::kStateOpen); }
	int isPrepared() const { return mState.has(plugins::kStatePrepared); }
	int isAcquiring() const { return mState.has(plugins::kStateAcquiring); }
	int isRecording() const { return mState.has(plugins::kStateRecording); }
	int isReading() const { return mState.has(plugins::kStateReading); }
	int isPreview() const { return mState.has(plugins::kStatePreview); }

	/// Reads the device's time: seven parts between '/'. Missing parts give 0, integers too
	/// large for their field keep its low bits.
	/// @return 0; 0x10000000 for null or when the get fails: the record is then all 0.
	int getTime(eqorSIO_TIME* out);

	/// Read at event 40100; empty before. Stable until the next 40100.
	const char* getVendorInfo() const { return mStrings.mVendor; }
	const char* getModelName() const { return mStrings.mModelName; }
	const char* getManufacturerInfo() const { return mStrings.mManufacturerInfo; }
	const char* getVersion() const { return mStrings.mVersion; }
	const char* getFirmwareVersion() const { return mStrings.mFirmwareVersion; }
	const char* GetDeviceID() const { return mStrings.mDeviceID; }

	/// Time events (40010) received since construction.
	long long GetEventCount() const { return mEvents.count(); }
	/// A second counter, advanced by the host, with a rate of its own.
	void CountHostEvents(int count) { mHostEvents.add(count); }
	long long GetHostEventCount() const { return mHostEvents.count(); }

	/// Brings the rates up to date when more than 1.0 s has passed since the last time; to be
	/// called again and again by one thread.
	void updatePerfCounters();
	/// Events per second.
	double GetEventRate() const { return mEvents.rate(); }
	double GetHostEventRate() const { return mHostEvents.rate(); }

	/// Calls the host callback. @return its answer; 0x10000000 when none is set.
	int callUserCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

	/// @return always 0.
	int OnObjectCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) override;

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override { return qorMC__CLASSFUNC; }
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

private:
	/// Counted on any thread; the rate is written by the thread that updates it.
	class RateCounter {
	public:
		void add(int count) { mCount.fetch_add(count, std::memory_order_relaxed); }
		long long count() const { return mCount.load(std::memory_order_relaxed); }
		double rate() const { return mRate.load(std::memory_order_relaxed); }
		void update(double seconds) {
			const auto now = count();
			mRate.store(static_cast<double>(now - mLast) / seconds, std::memory_order_relaxed);
			mLast = now;
		}

	private:
		std::atomic<long long> mCount{0};
		long long mLast = 0;
		std::atomic<double> mRate{0};
	};

	std::atomic<qorSIO_TimeCapFunc> mUserCallback{nullptr};
	std::atomic<void*> mUserContext{nullptr};
	plugins::DeviceStrings mStrings;
	plugins::StateFlags mState;
	RateCounter mEvents;
	RateCounter mHostEvents;
	double mLastUpdate = 0;
};

/// A plain list of timing devices, which stay their makers'. One thread at a time.
class QOR_API CqorSIO_TimeCapList : public Cmc {
public:
	CqorSIO_TimeCapList() = default;
	CqorSIO_TimeCapList(const CqorSIO_TimeCapList&) = delete;
	CqorSIO_TimeCapList& operator=(const CqorSIO_TimeCapList&) = delete;

	/// @return 0; 0x10000000 for null or without memory.
	int Add(CqorSIO_TimeCap* device);
	/// Takes the first entry of that device out. @return 0; 0x10000000 when it is not listed.
	int Remove(CqorSIO_TimeCap* device);
	void Clear();
	int GetCount();
	/// @return null outside the list.
	CqorSIO_TimeCap* Get(int index);
	CqorSIO_TimeCap* operator()(int index) { return Get(index); }

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override { return qorMC__CLASSFUNC; }
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

private:
	CstmArray<CqorSIO_TimeCap*> mItems;
};
