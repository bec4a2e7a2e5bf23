#pragma once

#include "device.h"

#include <mutex>
#include <vector>

namespace plugin {

/// What a manager gives a plug-in to call back with.
class Introduction {
public:
	Introduction(void* manager, void* pi, qorSIO_ManagerFunc callback)
	    : mManager(manager), mPi(pi), mCallback(callback) {}

	/// Offers a device. The device lives until the process ends, offered with success or not:
	/// the library may have kept it.
	void offer(Device& device) const {
		keep(device);
		mCallback(
		    mManager, mPi, qorSIO_CB_PI_CREATE_OBJECT, 0, 0, &device, reinterpret_cast<void*>(&Device::objectFunction));
	}

private:
	/// Never destroyed, like the devices in it: their threads may outlive every static.
	static void keep(Device& device) {
		static auto* const mutex = new std::mutex;
		static auto* const devices = new std::vector<Device*>;
		const std::lock_guard guard(*mutex);
		devices->push_back(&device);
	}

	void* mManager;
	void* mPi;
	qorSIO_ManagerFunc mCallback;
};

/// The body of an entry function; `introduce` receives each manager.
template <class Introduce>
int answerEntry(void* context, unsigned long code, void* p1, void* p2, Introduce introduce) {
	if (code == qorSIO_PI_INITIALISE) return QOR_SIO_OK;
	if (code != qorSIO_PI_CALLBACK || !p1 || !p2) return QOR_SIO_FAILURE;
	try {
		introduce(Introduction(context, p1, reinterpret_cast<qorSIO_ManagerFunc>(p2)));
	} catch (...) {
		return QOR_SIO_FAILURE;
	}
	return QOR_SIO_OK;
}

} // namespace plugin
