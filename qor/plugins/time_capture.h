#pragma once

#include "../base/linear_array.h"
#include "../platform/export.h"
#include "plugin_object.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

class CqorSIO_TimeCap;

/// The host's callback for a timing device: only 40100 (connected) arrives. It runs on the
/// plug-in's thread.
using qorSIO_TimeCapFunc = int (*)(void* userContext, CqorSIO_TimeCap* device, unsigned long code, unsigned long a,
    unsigned long b, void* p1, void* p2);

/// The device's time in seven parts, whose meaning is the plug-in's. The record stays as it is. The timing devices
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

	/// As `CqorSIO_VideoCap::SetUserCallBack`: in one step, and when it returns, no call with the
	/// former two runs any more, unless it is called from within an event or callback.
	void SetUserCallBack(qorSIO_TimeCapFunc callback, void* userContext);

	/// @return the plug-in's status, 0 for success.
	int cmdOpen();
	int cmdClose();
	int cmdPrepare();
	int cmdStart();
	int cmdStop();

	/// State bits as 0 or 1. Online is never cleared again, and recording, reading and
	/// preview stay 0: no operation of a timing device touches them.
	int isOnline() const;
	int isOpen() const;
	int isPrepared() const;
	int isAcquiring() const;
	int isRecording() const;
	int isReading() const;
	int isPreview() const;

	/// Reads the device's time: seven parts between '/'. Missing parts give 0, integers too
	/// large for their field keep its low bits.
	/// @return 0; 0x10000000 for null or when the get fails: the record is then all 0.
	int getTime(eqorSIO_TIME* out);

	/// Read at event 40100; empty before. Stable until the next 40100.
	const char* getVendorInfo() const;
	const char* getModelName() const;
	const char* getManufacturerInfo() const;
	const char* getVersion() const;
	const char* getFirmwareVersion() const;
	const char* GetDeviceID() const;

	/// Time events (40010) received since construction.
	long long GetEventCount() const;
	/// A second counter, advanced by the host, with a rate of its own.
	void CountHostEvents(int count);
	long long GetHostEventCount() const;

	/// Brings the rates up to date when more than 1.0 s has passed since the last time; to be
	/// called again and again by one thread.
	void updatePerfCounters();
	/// Events per second.
	double GetEventRate() const;
	double GetHostEventRate() const;

	/// Calls the host callback. @return its answer; 0x10000000 when none is set.
	int callUserCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

	/// @return 0; 0x10000000 when the device was destroyed on the way.
	int OnObjectCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) override;

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

protected:
	/// Stops the device if it acquires.
	void OnRetire() override;

private:
	/// Counted on any thread; the rate is written by the thread that updates it.
	struct RateCounter {
		std::atomic<long long> mCount{0};
		long long mLast = 0;
		std::atomic<double> mRate{0};
		void update(double seconds);
	};
	bool readStrings();

	qorSIO_TimeCapFunc mUserCallback = nullptr; // with the context under the lock of the object's place
	void* mUserContext = nullptr;
	char mVendorInfo[128] = {};
	char mModelName[128] = {};
	char mManufacturerInfo[128] = {};
	char mVersion[128] = {};
	char mFirmwareVersion[128] = {};
	char mDeviceID[128] = {};
	std::atomic<uint32_t> mState{0};
	RateCounter mEvents;
	RateCounter mHostEvents;
	double mLastUpdate;
};

/// A plain list of timing devices, which stay their makers'. One thread at a time.
class QOR_API CqorSIO_TimeCapList : public Cmc {
public:
	CqorSIO_TimeCapList();
	~CqorSIO_TimeCapList() override;
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
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

private:
	CstmArray<CqorSIO_TimeCap*> mItems;
};
