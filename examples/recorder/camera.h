#pragma once

#include <qor/qor.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// Loads a plug-in folder and keeps the cameras that its plug-ins offer.
class CameraHost {
public:
	struct Camera {
		std::unique_ptr<CqorSIO_VideoCap> device;
		std::string plugIn; // file name
		std::string information;

		/// Vendor, model and identifier.
		std::string description() const;
	};

	/// @return false, with a message on the error stream, when the folder is missing or has no plug-in.
	bool load(const std::string& folder);

	int plugInCount() { return mManager.mPIList.GetCount(); }
	size_t cameraCount() const { return mCameras.size(); }
	size_t timingDeviceCount() const { return mTimingDevices.size(); }
	const Camera& camera(size_t index) const { return *mCameras[index]; }

	/// Finds a camera by its number in the list, or by a part of plug-in name or description.
	/// @return null, with a message, when none or more than one fits.
	const Camera* find(const std::string& which) const;

private:
	static int offered(void* manager, unsigned long code, unsigned long a, unsigned long b, void* record, void* p2);
	int take(void* record);

	// The devices end before the manager: plug-ins hear of neither afterwards.
	CqorSIO_PIManager mManager;
	std::mutex mMutex; // a plug-in may offer devices on threads of its own
	std::vector<std::unique_ptr<Camera>> mCameras;
	std::vector<std::unique_ptr<CqorSIO_TimeCap>> mTimingDevices;
};
