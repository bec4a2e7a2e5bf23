#include "../base/status.h"
#include "../core/class_manager.h"
#include "plugin_manager.h"
#include "time_capture.h"
#include "video_capture.h"

namespace {

template <class Device>
int addTo(CstmArray<Device*>& items, Device* device) {
	return device && items.Add(device) ? kQorSuccess : kQorFailure;
}

template <class Device>
int removeFrom(CstmArray<Device*>& items, const Device* device) {
	for (int i = 0; i < items.Count(); ++i) {
		if (items[i] != device) continue;
		items.Delete(i);
		return kQorSuccess;
	}
	return kQorFailure;
}

template <class Device>
Device* itemOf(const CstmArray<Device*>& items, int index) {
	Device* const* item = items.Get(index);
	return item ? *item : nullptr;
}

// Every class of this folder can be made by its name.
[[maybe_unused]] const bool kRegistered = [] {
	auto* manager = qorMCGetManager();
	if (!manager) return false;
	manager->classAdd("CqorSIO_PI", CqorSIO_PI::qorMC__CLASSFUNC, "Cmc");
	manager->classAdd("CqorSIO_PIList", CqorSIO_PIList::qorMC__CLASSFUNC, "Cmc");
	manager->classAdd("CqorSIO_PIManager", CqorSIO_PIManager::qorMC__CLASSFUNC, "Cmc");
	manager->classAdd("CqorSIO_Object", CqorSIO_Object::qorMC__CLASSFUNC, "Cmc");
	manager->classAdd("CqorSIO_VideoCap", CqorSIO_VideoCap::qorMC__CLASSFUNC, "CqorSIO_Object");
	manager->classAdd("CqorSIO_VideoCapList", CqorSIO_VideoCapList::qorMC__CLASSFUNC, "Cmc");
	manager->classAdd("CqorSIO_TimeCap", CqorSIO_TimeCap::qorMC__CLASSFUNC, "CqorSIO_Object");
	manager->classAdd("CqorSIO_TimeCapList", CqorSIO_TimeCapList::qorMC__CLASSFUNC, "Cmc");
	return true;
}();

} // namespace

CqorSIO_VideoCapList::CqorSIO_VideoCapList() = default;
CqorSIO_VideoCapList::~CqorSIO_VideoCapList() = default;
int CqorSIO_VideoCapList::Add(CqorSIO_VideoCap* camera) { return addTo(mItems, camera); }
int CqorSIO_VideoCapList::Remove(CqorSIO_VideoCap* camera) { return removeFrom(mItems, camera); }
void CqorSIO_VideoCapList::Clear() { mItems.Delete(0, mItems.Count()); }
int CqorSIO_VideoCapList::GetCount() { return mItems.Count(); }
CqorSIO_VideoCap* CqorSIO_VideoCapList::Get(int index) { return itemOf(mItems, index); }
const char* CqorSIO_VideoCapList::gettype() const { return "CqorSIO_VideoCapList"; }
qorMCClassFunc CqorSIO_VideoCapList::getclassfunc() const { return qorMC__CLASSFUNC; }

int CqorSIO_VideoCapList::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_VideoCapList>("CqorSIO_VideoCapList", command, out);
}

CqorSIO_TimeCapList::CqorSIO_TimeCapList() = default;
CqorSIO_TimeCapList::~CqorSIO_TimeCapList() = default;
int CqorSIO_TimeCapList::Add(CqorSIO_TimeCap* device) { return addTo(mItems, device); }
int CqorSIO_TimeCapList::Remove(CqorSIO_TimeCap* device) { return removeFrom(mItems, device); }
void CqorSIO_TimeCapList::Clear() { mItems.Delete(0, mItems.Count()); }
int CqorSIO_TimeCapList::GetCount() { return mItems.Count(); }
CqorSIO_TimeCap* CqorSIO_TimeCapList::Get(int index) { return itemOf(mItems, index); }
const char* CqorSIO_TimeCapList::gettype() const { return "CqorSIO_TimeCapList"; }
qorMCClassFunc CqorSIO_TimeCapList::getclassfunc() const { return qorMC__CLASSFUNC; }

int CqorSIO_TimeCapList::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_TimeCapList>("CqorSIO_TimeCapList", command, out);
}
