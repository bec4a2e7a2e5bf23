#include "support/refused_allocations.h"

#include <qor/core/class_manager.h>
#include <qor/plugins/dynamic_module_list.h>
#include <qor/plugins/plugin_manager.h>
#include <qor/plugins/video_capture.h>

#include <cstring>
#include <memory>

namespace {

/// A device that needs no memory for its answers: every operation and setting succeeds.
int device(void*, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
	if (code == qorSIO_OBJ_INFORMATION) std::strcpy(static_cast<char*>(p1), "!siotype,CqorSIO_VideoCap");
	if (code != qorSIO_OBJ_COMMAND) return 0;
	const char* command = static_cast<char*>(p1);
	if (std::strncmp(command, "set,", 4) == 0) command += 4;
	std::strcpy(std::strchr(std::strcpy(static_cast<char*>(p2), command), ','), ",0");
	return 0;
}

std::unique_ptr<CqorSIO_VideoCap> made;

int create(void*, unsigned long, unsigned long, unsigned long, void* p1, void*) {
	made.reset(static_cast<CqorSIO_VideoCap*>(qorMCGetManager()->classNew("CqorSIO_VideoCap")));
	static_cast<eqorSIO_CREATE_VIDEOCAP*>(p1)->mObject = made.get();
	return 0;
}

bool useCamera() {
	CqorSIO_VideoCap camera;
	const int result = camera.piAccept(&made, &device) | camera.cmdOpen() | camera.SetFrameInfoRingSize(4) |
	                   camera.cmdStart() | camera.SetIntervalRingSize(9) | camera.setX(5) | camera.cmdStop();
	return result == 0 && camera.GetFreeFrameInfoPtr();
}

bool offerDevices() {
	CqorSIO_PIManager manager;
	manager.SetUserCallBack(&create, nullptr);
	manager.Create(QOR_BAD_PLUGINS, 0);
	int answer = 0;
	for (int i = 0; auto* plugIn = manager.mPIList.Get(i); ++i)
		answer |= manager.manCB(plugIn, qorSIO_CB_PI_CREATE_OBJECT, 0, 0, &made, reinterpret_cast<void*>(&device));
	return manager.mPIList.GetCount() == 2 && answer == 0;
}

bool loadModules() {
	CqorDynamicModuleList list;
	for (const char* extension : {"so", "dll"}) list.AddByFolder(QOR_BAD_PLUGINS, extension, 0);
	list.AddByQORPlugInsFolder("dll", 0);
	return list.LoadAll() == 3;
}

} // namespace

TEST(RefusedMemory, EndsAsTheStatedFailure) {
	test_support::refuseEach("camera", useCamera);
	test_support::refuseEach("offers", offerDevices);
	test_support::refuseEach("modules", loadModules);
	made.reset();
}
