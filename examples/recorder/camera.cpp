#include "camera.h"

#include <cctype>
#include <filesystem>
#include <iostream>

std::string CameraHost::Camera::description() const {
	std::string text;
	for (const char* part : {device->getVendorName(), device->getModelName(), device->GetDeviceID()}) {
		if (*part) text += (text.empty() ? "" : " ") + std::string(part);
	}
	return text.empty() ? information : text;
}

bool CameraHost::load(const std::string& folder) {
	std::error_code error;
	if (!std::filesystem::is_directory(folder, error)) {
		std::cerr << "recorder: there is no plug-in folder '" << folder << "'\n";
		return false;
	}
	mManager.SetUserCallBack(offered, this);
	mManager.Create(folder.c_str(), 0);
	if (plugInCount() == 0) {
		std::cerr << "recorder: no plug-in could be loaded from '" << folder << "'; the log says why\n";
		return false;
	}
	return true;
}

int CameraHost::offered(void* manager, unsigned long code, unsigned long, unsigned long, void* record, void*) {
	if (code != QOR_SIO_HOST_CREATE || !record) return QOR_SIO_FAILURE;
	return static_cast<CameraHost*>(static_cast<CqorSIO_PIManager*>(manager)->mUserContext)->take(record);
}

// Type names are compared without regard to case.
static bool isCamera(const char* typeName) {
	std::string lower = typeName;
	for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
	return lower == "cqorsio_videocap";
}

// Camera and timing device come with records of the same layout; the type name tells which.
int CameraHost::take(void* record) {
	auto* offer = static_cast<eqorSIO_CREATE_VIDEOCAP*>(record);
	const std::lock_guard lock(mMutex);
	if (isCamera(offer->mTypeName)) {
		auto camera = std::make_unique<Camera>();
		camera->device = std::make_unique<CqorSIO_VideoCap>();
		camera->plugIn = offer->mFileName;
		camera->information = offer->mInfo;
		offer->mObject = camera->device.get();
		mCameras.push_back(std::move(camera));
	} else {
		mTimingDevices.push_back(std::make_unique<CqorSIO_TimeCap>());
		static_cast<eqorSIO_CREATE_TIMECAP*>(record)->mObject = mTimingDevices.back().get();
	}
	return QOR_SIO_OK;
}

const CameraHost::Camera* CameraHost::find(const std::string& which) const {
	if (mCameras.empty()) {
		std::cerr << "recorder: the plug-ins offer no camera\n";
		return nullptr;
	}
	if (!which.empty() && which.find_first_not_of("0123456789") == std::string::npos && which.size() < 6) {
		const auto index = static_cast<size_t>(std::stoul(which));
		if (index < mCameras.size()) return mCameras[index].get();
	}
	const Camera* found = nullptr;
	for (const auto& camera : mCameras) {
		if ((camera->plugIn + " " + camera->description()).find(which) == std::string::npos) continue;
		if (found) {
			std::cerr << "recorder: more than one camera fits '" << which
			          << "'; take its number from 'recorder list'\n";
			return nullptr;
		}
		found = camera.get();
	}
	if (!found) std::cerr << "recorder: there is no camera '" << which << "'; 'recorder list' shows them\n";
	return found;
}
