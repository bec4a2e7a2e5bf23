#include "class_manager.h"

#include "../base/host_call_internal.h"
#include "../base/wait_guard.h"
#include "../platform/memory.h"

#include <algorithm>
#include <cstring>

namespace {

void copyCut(char (&out)[64], const char* text) {
	const auto length = std::min(std::strlen(text), sizeof out - 1);
	std::memcpy(out, text, length);
	out[length] = '\0';
}

} // namespace

CqorMCManager::CqorMCManager()
    : mMutex(platform::createMutex(false)), mClasses(sizeof(CqorMCManagerClass*)), mRoot(new (std::nothrow) Cmc) {
	if (mRoot) mRoot->setname("mcRoot");
}

CqorMCManager::~CqorMCManager() {
	if (mRoot) {
		while (Cmc* child = mRoot->_mcGetChild(0)) {
			if (child->_mcGetParent() == mRoot) child->_mcSetParent(nullptr);
			mRoot->_mcDetach(child);
		}
		delete mRoot;
	}
	for (int i = 0; i < mClasses.laGetCount(); ++i)
		platform::release(*static_cast<CqorMCManagerClass**>(mClasses.laGetAddress(i)));
	mClasses.laDelete(0, mClasses.laGetCount());
	platform::closeHandle(mMutex);
}

CqorMCManagerClass* CqorMCManager::classAdd(const char* type, qorMCClassFunc function, const char* baseClass) {
	if (!type || !function || std::strlen(type) >= sizeof CqorMCManagerClass::mType) return nullptr;
	const base::MutexGuard guard(mMutex);
	if (!guard.owns()) return nullptr;
	if (auto* known = find(type)) return known;
	auto* record = static_cast<CqorMCManagerClass*>(platform::allocateZeroed(sizeof(CqorMCManagerClass)));
	auto* place = record ? static_cast<CqorMCManagerClass**>(mClasses.laAdd(1)) : nullptr;
	if (!place) {
		platform::release(record);
		return nullptr;
	}
	record->mFunction = function;
	copyCut(record->mType, type);
	copyCut(record->mBaseClass, baseClass ? baseClass : type);
	return *place = record;
}

CqorMCManagerClass* CqorMCManager::find(const char* type) {
	for (int i = 0; i < mClasses.laGetCount(); ++i) {
		auto* record = *static_cast<CqorMCManagerClass**>(mClasses.laGetAddress(i));
		if (std::strcmp(record->mType, type) == 0) return record;
	}
	return nullptr;
}

CqorMCManagerClass* CqorMCManager::classFindByType(const char* type) {
	const base::MutexGuard guard(mMutex);
	return type && guard.owns() ? find(type) : nullptr;
}

CqorMCManagerClass* CqorMCManager::classGetByIndex(int index) {
	const base::MutexGuard guard(mMutex);
	const auto* place = guard.owns() ? mClasses.laGetAddress(index) : nullptr;
	return place ? *static_cast<CqorMCManagerClass* const*>(place) : nullptr;
}

int CqorMCManager::classGetCount() {
	const base::MutexGuard guard(mMutex);
	return guard.owns() ? mClasses.laGetCount() : 0;
}

Cmc* CqorMCManager::classNew(const char* type) {
	const auto* record = classFindByType(type);
	Cmc* object = nullptr;
	if (!record) return nullptr;
	const int made = base::callHost(
	    "class function", [&] { return record->mFunction(Cmc::kClassCommandNew, 0, 0, &object, nullptr); });
	return made == kQorSuccess ? object : nullptr;
}

int CqorMCManager::Lock() {
	const auto result = platform::wait(mMutex, platform::kInfinite);
	return result == platform::kWaitAcquired || result == platform::kWaitAbandoned ? kQorSuccess : kQorFailure;
}

int CqorMCManager::Unlock() { return platform::releaseMutex(mMutex) ? kQorSuccess : kQorFailure; }

CqorMCManager* qorMCGetManager() {
	// Never destroyed: classes and objects of hosts may still ask for it while the process ends.
	static CqorMCManager* const manager = new (std::nothrow) CqorMCManager;
	return manager;
}
