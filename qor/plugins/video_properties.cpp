#include "video_capture.h"

#include "../base/status.h"
#include "../platform/format.h"

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

int CqorSIO_VideoCap::getMaxWidth() { return getInt(QOR_SIO_KEY_MAX_WIDTH); }
int CqorSIO_VideoCap::getMaxHeight() { return getInt(QOR_SIO_KEY_MAX_HEIGHT); }
int CqorSIO_VideoCap::getWidth() { return getInt(QOR_SIO_KEY_WIDTH); }
int CqorSIO_VideoCap::getHeight() { return getInt(QOR_SIO_KEY_HEIGHT); }
int CqorSIO_VideoCap::getX() { return getInt(QOR_SIO_KEY_X); }
int CqorSIO_VideoCap::getY() { return getInt(QOR_SIO_KEY_Y); }
int CqorSIO_VideoCap::setX(int x) { return piVerboseSetInt32(QOR_SIO_KEY_X, x); }
int CqorSIO_VideoCap::setY(int y) { return piVerboseSetInt32(QOR_SIO_KEY_Y, y); }
int CqorSIO_VideoCap::getExposure() { return getInt(QOR_SIO_KEY_EXPOSURE); }
int CqorSIO_VideoCap::getMinExposure() { return getInt(QOR_SIO_KEY_MIN_EXPOSURE); }
int CqorSIO_VideoCap::getMaxExposure() { return getInt(QOR_SIO_KEY_MAX_EXPOSURE); }
int CqorSIO_VideoCap::setExposure(int exposure) { return piVerboseSetInt32(QOR_SIO_KEY_EXPOSURE, exposure); }
int CqorSIO_VideoCap::getGain() { return getInt(QOR_SIO_KEY_GAIN); }
int CqorSIO_VideoCap::getMinGain() { return getInt(QOR_SIO_KEY_MIN_GAIN); }
int CqorSIO_VideoCap::getMaxGain() { return getInt(QOR_SIO_KEY_MAX_GAIN); }
int CqorSIO_VideoCap::setGain(int gain) { return piVerboseSetInt32(QOR_SIO_KEY_GAIN, gain); }
float CqorSIO_VideoCap::getFrameRate() { return getFloat(QOR_SIO_KEY_FRAME_RATE); }
float CqorSIO_VideoCap::getMinFrameRate() { return getFloat(QOR_SIO_KEY_MIN_FRAME_RATE); }
float CqorSIO_VideoCap::getMaxFrameRate() { return getFloat(QOR_SIO_KEY_MAX_FRAME_RATE); }
int CqorSIO_VideoCap::setFrameRate(float frameRate) { return piVerboseSetFloat32(QOR_SIO_KEY_FRAME_RATE, frameRate); }
int CqorSIO_VideoCap::getFrameByteSize() { return getInt(QOR_SIO_KEY_FRAME_BYTE_SIZE); }
int CqorSIO_VideoCap::getPixFormat(char* out) { return getText(QOR_SIO_KEY_PIX_FORMAT, out); }
int CqorSIO_VideoCap::getPixFormatConversion(char* out) { return getText(QOR_SIO_KEY_PIX_FORMAT_CONVERSION, out); }
int CqorSIO_VideoCap::gige_getPacketSize() { return getInt(QOR_SIO_KEY_GIGE_PACKET_SIZE); }
int CqorSIO_VideoCap::gige_setPacketSize(int bytes) { return piVerboseSetInt32(QOR_SIO_KEY_GIGE_PACKET_SIZE, bytes); }

namespace {

/// Kind and feature. A name that does not fit the buffer gives a command that is
/// too long to be sent.
struct FeatureKey {
	char text[QOR_SIO_COMMAND_SIZE + 1];
	FeatureKey(const char* kind, const char* feature) {
		platform::formatText(text, sizeof text, "%s%s", kind, feature ? feature : "");
	}
	operator const char*() const { return text; }
};

} // namespace

int CqorSIO_VideoCap::genICam_GetString(const char* feature, char* out) {
	return getText(FeatureKey(QOR_SIO_KEY_FEATURE_STRING, feature), out);
}
int CqorSIO_VideoCap::genICam_SetString(const char* feature, const char* value) {
	return piVerboseSetString(FeatureKey(QOR_SIO_KEY_FEATURE_STRING, feature), value);
}
int CqorSIO_VideoCap::genICam_GetInt32(const char* feature) {
	return getInt(FeatureKey(QOR_SIO_KEY_FEATURE_INT32, feature));
}
int CqorSIO_VideoCap::genICam_SetInt32(const char* feature, int value) {
	return piVerboseSetInt32(FeatureKey(QOR_SIO_KEY_FEATURE_INT32, feature), value);
}
float CqorSIO_VideoCap::genICam_GetFloat32(const char* feature) {
	return getFloat(FeatureKey(QOR_SIO_KEY_FEATURE_FLOAT32, feature));
}
int CqorSIO_VideoCap::genICam_SetFloat32(const char* feature, float value) {
	return piVerboseSetFloat32(FeatureKey(QOR_SIO_KEY_FEATURE_FLOAT32, feature), value);
}
int CqorSIO_VideoCap::genICam_Command(const char* feature) {
	return piVerboseSetString(FeatureKey(QOR_SIO_KEY_FEATURE_COMMAND, feature), "");
}

const char* CqorSIO_VideoCap::getVendorName() const { return mVendorName; }
const char* CqorSIO_VideoCap::getModelName() const { return mModelName; }
const char* CqorSIO_VideoCap::getManufacturerInfo() const { return mManufacturerInfo; }
const char* CqorSIO_VideoCap::getVersion() const { return mVersion; }
const char* CqorSIO_VideoCap::getFirmwareVersion() const { return mFirmwareVersion; }
const char* CqorSIO_VideoCap::GetDeviceID() const { return mDeviceID; }

bool CqorSIO_VideoCap::isGeometryChanging() const { return mGeometryChanges.load(std::memory_order_acquire) != 0; }
long long CqorSIO_VideoCap::GetFrameCount() const { return mFrameCount.load(std::memory_order_relaxed); }
double CqorSIO_VideoCap::GetLastFrameTime() const { return mLastFrameTime.load(std::memory_order_relaxed); }
int CqorSIO_VideoCap::IsSensorAcquiring() const { return mSensorAcquiring.load(std::memory_order_relaxed); }
