#pragma once

#include "../base/linear_array.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "plugin_object.h"

#include <atomic>
#include <cstdint>

class CqorSIO_VideoCap;

/// The host's callback for a camera. It runs on the plug-in's thread, and may use every operation
/// of the camera, also `SetUserCallBack`, and delete the camera.
///
/// 40010: a frame, `a` = its buffer index, p1 = its `qorSIO_VCAP_FRAME_INFO` (valid until the
/// callback returns). 40011: `a` = 1 while the sensor acquires. 40100, 40101, 40110: connected,
/// online again, offline. 40200: the plug-in's own. 40120: the image geometry is about to
/// change; it comes on the thread that changes it, every millisecond, until the host has
/// finished with frames of the old size and sets the int at p1 to non-zero. The int lives as
/// long as the camera; another thread sets it through `std::atomic_ref<int>`.
using qorSIO_VideoCapFunc = int (*)(void* userContext, CqorSIO_VideoCap* camera, unsigned long code, unsigned long a,
    unsigned long b, void* p1, void* p2);

/// What the interval ring holds; all 0 when it is empty. Seconds. The record stays as it is.
struct qorSIO_INTERVAL_STATISTICS {
	int mCount = 0;
	double mMean = 0;
	double mMinimum = 0;
	double mMaximum = 0;
	double mLast = 0;
};

/// A camera of a plug-in.
///
/// Every operation and property is a command to the plug-in (see `CqorSIO_Object`); the
/// order open, allocate buffers, prepare, start, stop, release buffers, close is the
/// plug-in's to enforce. An operation returns the plug-in's status, 0 for success, and a
/// failed one leaves the state bits as they were.
///
/// Integer and float getters return 0 when the get fails. Text getters clear the output
/// first and return 0x10000000 on failure; their output holds `kQorSioValueSize` characters.
/// Setters return the plug-in's status, or 0x10000000 when it does not reply.
///
/// A frame event allocates nothing and waits for nothing: what it locks (the callback's pair, the
/// interval ring when the host made one) is held for a few instructions and never over a call.
class QOR_API CqorSIO_VideoCap : public CqorSIO_Object {
public:
	CqorSIO_VideoCap();
	~CqorSIO_VideoCap() override;

	/// Changes callback and user context in one step, at any time: every call has the two that
	/// were set together. When this returns no call with the former two runs any more, and what
	/// belongs to them may be deleted; hold nothing here that the callback waits for. From within
	/// an event or callback of any device or manager it returns at once: calls on other
	/// threads, and the one it is called from, may still be running.
	void SetUserCallBack(qorSIO_VideoCapFunc callback, void* userContext);
	/// Gives the camera a ring of `count` frame intervals (0: none) and arms it.
	/// @return 0; 0x10000000 for a negative or enormous count or without memory: the old ring stays.
	int SetIntervalRingSize(int count);
	/// Gives the camera `count` cleared frame information records (0: none) for `GetFreeFrameInfoPtr`.
	/// Records handed out before are gone. @return 0; 0x10000000 (the old ring stays) while the
	/// camera acquires, for a negative or enormous count, or without memory.
	int SetFrameInfoRingSize(int count);

	int cmdOpen(); // clears the frame information ring, also on failure
	int cmdClose();
	int cmdAllocInternalBuffers(int count); // clears the frame information ring, also on failure
	int cmdReleaseInternalBuffers();
	int cmdPrepare();
	int cmdStart(); // arms the interval ring unless the camera acquires already
	int cmdStop();
	/// State bits only: no command is sent. @return always 0.
	int cmdRecord(int on);
	int cmdStartRead();
	int cmdPreview(int on);

	/// State bits as 0 or 1. Of operations that overlap the one sent last decides, also when it
	/// is answered first: after a "stop" from the first frame's callback the camera does not acquire.
	int isOnline() const;
	int isOpen() const;
	int isPrepared() const;
	int isAcquiring() const;
	int isRecording() const;
	int isReading() const;
	int isPreview() const;

	/// Pixels.
	int getMaxWidth();
	int getMaxHeight();
	int getWidth();
	int getHeight();
	int getX();
	int getY();
	int setX(int x);
	int setY(int y);

	/// Guarded changes: the host is asked with 40120 until it acknowledges, for 3.0 s at most
	/// ("TIMEOUT!!!" in the log); then the command is sent in any case. Not to be called from
	/// the 40120 callback itself.
	int setWidth(int width);
	int setHeight(int height);
	/// As above. A command that the plug-in does not answer is only logged ("- P2"): the result is 0.
	int setROI(int x, int y, int width, int height);
	/// The last two values are the device's own, commonly horizontal and vertical decimation.
	int setROIex(int x, int y, int width, int height, int horizontal, int vertical);
	bool isGeometryChanging() const;

	/// Units are the device's, commonly microseconds (exposure) and frames per second.
	int getExposure();
	int getMinExposure();
	int getMaxExposure();
	int setExposure(int exposure);
	int getGain();
	int getMinGain();
	int getMaxGain();
	int setGain(int gain);
	float getFrameRate();
	float getMinFrameRate();
	float getMaxFrameRate();
	int setFrameRate(float frameRate);

	/// Bytes of the largest frame with the present settings.
	int getFrameByteSize();
	int getPixFormat(char* out);
	int getPixFormatConversion(char* out);
	int gige_getPacketSize();
	int gige_setPacketSize(int bytes);

	/// Features by name; null counts as the empty name.
	int genICam_GetString(const char* feature, char* out);
	int genICam_SetString(const char* feature, const char* value);
	int genICam_GetInt32(const char* feature);
	int genICam_SetInt32(const char* feature, int value);
	float genICam_GetFloat32(const char* feature);
	int genICam_SetFloat32(const char* feature, float value);
	int genICam_Command(const char* feature);

	/// Read at event 40100; empty before. Stable until the next 40100.
	const char* getVendorName() const;
	const char* getModelName() const;
	const char* getManufacturerInfo() const;
	const char* getVersion() const;
	const char* getFirmwareVersion() const;
	const char* GetDeviceID() const;

	/// Frames received since construction.
	long long GetFrameCount() const;
	/// When the last frame arrived, in seconds of the high-resolution counter; 0 before the first.
	double GetLastFrameTime() const;
	/// The indicator of event 40011.
	int IsSensorAcquiring() const;
	/// Statistics of the intervals in the ring. The fifth frame after arming empties the
	/// ring, so that start-up does not count.
	void GetIntervalStatistics(qorSIO_INTERVAL_STATISTICS* out);

	/// The next record of the ring with its fourth field cleared; null when the ring is
	/// empty. The record is the caller's until the ring has gone round.
	qorSIO_VCAP_FRAME_INFO* GetFreeFrameInfoPtr();

	/// Calls the host callback. @return its answer; 0x10000000 when none is set.
	int callUserCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

	/// @return 0; 0x10000000 for a frame event without frame information, and when the camera was
	/// destroyed on the way.
	int OnObjectCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) override;

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

protected:
	/// Stops the camera if it acquires.
	void OnRetire() override;

private:
	int onFrame(void* information);
	bool readStrings();
	void rememberInterval(double interval);
	void clearIntervals();
	bool readIntervals(qorSIO_INTERVAL_STATISTICS* out);
	void clearFrameInfos();
	bool askForGeometryChange();
	int setGuarded(const char* call, const char* key, int value);
	int setRegion(const char* call, const char* command, const char* key);
	int getInt(const char* key);
	float getFloat(const char* key);
	int getText(const char* key, char* out);

	qorSIO_VideoCapFunc mUserCallback = nullptr; // with the context under the lock of the object's place
	void* mUserContext = nullptr;
	char mVendorName[128] = {};
	char mModelName[128] = {};
	char mManufacturerInfo[128] = {};
	char mVersion[128] = {};
	char mFirmwareVersion[128] = {};
	char mDeviceID[128] = {};
	std::atomic<long long> mFrameCount{0};
	std::atomic<double> mLastFrameTime{0};
	double* mIntervals = nullptr; // ring, size and index under mIntervalLock
	std::atomic<int> mIntervalRingSize{0};
	uint64_t mIntervalIndex = 0;
	std::atomic<uint32_t> mIntervalLock{0};
	std::atomic<int> mSensorAcquiring{0};
	std::atomic<int> mArmedCount{0};
	std::atomic<uint32_t> mState{0};
	std::atomic<int> mGeometryChanges{0};
	qorSIO_VCAP_FRAME_INFO* mFrameInfos = nullptr; // ring, size and index under the lock of the place
	int mFrameInfoRingSize = 0;
	uint64_t mFrameInfoIndex = 0;
	int mGeometryAcknowledged = 0; // read through std::atomic_ref; outlives a host that answers late
};

/// A plain list of cameras, which stay their makers'. One thread at a time.
class QOR_API CqorSIO_VideoCapList : public Cmc {
public:
	CqorSIO_VideoCapList();
	~CqorSIO_VideoCapList() override;
	CqorSIO_VideoCapList(const CqorSIO_VideoCapList&) = delete;
	CqorSIO_VideoCapList& operator=(const CqorSIO_VideoCapList&) = delete;

	/// @return 0; 0x10000000 for null or without memory.
	int Add(CqorSIO_VideoCap* camera);
	/// Takes the first entry of that camera out. @return 0; 0x10000000 when it is not listed.
	int Remove(CqorSIO_VideoCap* camera);
	void Clear();
	int GetCount();
	/// @return null outside the list.
	CqorSIO_VideoCap* Get(int index);
	CqorSIO_VideoCap* operator()(int index) { return Get(index); }

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

private:
	CstmArray<CqorSIO_VideoCap*> mItems;
};
