#include "plugin_manager.h"

#include "../base/status.h"
#include "../base/wait_guard.h"
#include "../core/line_parameters.h"
#include "../platform/folder.h"
#include "../platform/format.h"
#include "../platform/letter_case_internal.h"
#include "../platform/machine.h"
#include "../platform/module.h"
#include "live_table_internal.h"
#include "time_capture.h"
#include "video_capture.h"

#include <cstring>
#include <new>

namespace {

constexpr size_t kMaximumPlugIns = 1024;
constexpr uint32_t kPathTooLong = 206; // the system's number for it
// Room behind the buffers that plug-ins fill, for one that does not keep to their size.
constexpr size_t kInformationGuard = 3584;

} // namespace

int CqorSIO_PI::piLoad(const char* path) {
	if (!path) path = "";
	_mclog(1, "piLoad(%s)", path);
	const auto length = std::strlen(path);
	if (length >= sizeof mPath) platform::setLastError(kPathTooLong);
	const auto loaded = length < sizeof mPath ? platform::loadModule(path) : nullptr;
	if (!loaded) {
		_mclog("piLoad(%s) - Cannot load (err=%d)", path, static_cast<int>(platform::lastError()));
		return kQorFailure;
	}
	mModule = loaded;
	std::memcpy(mPath, path, length + 1);
	mFunction = reinterpret_cast<qorSIO_Func>(platform::findExport(mModule, QOR_SIO_ENTRY_NAME));
	if (mFunction) {
		_mclog("[OK] piLoad(%s)", path);
		return kQorSuccess;
	}
	// The library stays mapped: its start-up code may have left threads or hooks behind.
	mModule = nullptr;
	mPath[0] = 0;
	_mclog(3, "piLoad(%s) - eFunc not found", path);
	return kQorFailure;
}

void CqorSIO_PI::piFree() {
	mModule = nullptr;
	mPath[0] = 0;
	mFunction = nullptr;
}

void* CqorSIO_PI::piGetFunc(const char* name) {
	return mModule && name ? platform::findExport(mModule, name) : nullptr;
}

int CqorSIO_PI::piFunc(void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	return mFunction ? mFunction(context, code, a, b, p1, p2) : -1;
}

CqorSIO_PIList::CqorSIO_PIList() : mMutex(platform::createMutex(false)) {}

CqorSIO_PIList::~CqorSIO_PIList() {
	Free();
	platform::closeHandle(mMutex);
}

int CqorSIO_PIList::LoadPlugInsFromFolder(const char* folder, int recursive) {
	std::vector<platform::FoundFile> files;
	if (!platform::listFiles(folder, platform::kModuleExtension, recursive != 0, kMaximumPlugIns, &files))
		_mclog(3, "LoadPlugInsFromFolder(%s) - Cannot read (err=%d)", folder, static_cast<int>(platform::lastError()));
	for (const auto& file : files) {
		auto* plugIn = new (std::nothrow) CqorSIO_PI;
		if (!plugIn) break;
		if (plugIn->piLoad(file.path.c_str()) != kQorSuccess || !append(plugIn)) delete plugIn;
	}
	return kQorSuccess;
}

bool CqorSIO_PIList::append(CqorSIO_PI* plugIn) {
	const base::MutexGuard guard(mMutex);
	return mItems.Add(plugIn);
}

void CqorSIO_PIList::Free() {
	const base::MutexGuard guard(mMutex);
	for (auto* plugIn : mItems) {
		plugIn->piFree();
		delete plugIn;
	}
	mItems.Delete(0, mItems.Count());
}

int CqorSIO_PIList::MsgToAll(void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	for (int i = 0; auto* plugIn = Get(i); ++i) plugIn->piFunc(context, code, a, b, p1, p2);
	return kQorSuccess;
}

CqorSIO_PI* CqorSIO_PIList::FindByPIContext(void* context) {
	const base::MutexGuard guard(mMutex);
	for (auto* plugIn : mItems)
		if (plugIn == context) return plugIn;
	return nullptr;
}

bool CqorSIO_PIList::CopyPathOf(void* context, char* path) {
	const base::MutexGuard guard(mMutex);
	const auto* plugIn = FindByPIContext(context);
	platform::formatText(path, kQorSioPathSize, "%s", plugIn ? plugIn->GetPath() : "");
	return plugIn != nullptr;
}

int CqorSIO_PIList::GetCount() {
	const base::MutexGuard guard(mMutex);
	return mItems.Count();
}

CqorSIO_PI* CqorSIO_PIList::Get(int index) {
	const base::MutexGuard guard(mMutex);
	auto** item = mItems.Get(index);
	return item ? *item : nullptr;
}

CqorSIO_PIManager::CqorSIO_PIManager() {
	if (!plugins::liveManagers().enrol(this)) _mclog(3, "Too many managers: plug-ins cannot call this one");
}

CqorSIO_PIManager::~CqorSIO_PIManager() { plugins::liveManagers().retire(this); }

int CqorSIO_PIManager::Create(const char* folder, int recursive) {
	mPIList.LoadPlugInsFromFolder(folder, recursive);
	for (int i = 0; auto* plugIn = mPIList.Get(i); ++i) {
		if (plugIn->piFunc(this, qorSIO_PI_INITIALISE, 0, 0, nullptr, nullptr) != 0) continue;
		plugIn->piFunc(this, qorSIO_PI_CALLBACK, 0, 0, plugIn, reinterpret_cast<void*>(&_manCB));
	}
	return kQorSuccess;
}

void CqorSIO_PIManager::Destroy() {}

void CqorSIO_PIManager::SetUserCallBack(qorSIO_Func callback, void* userContext) {
	mUserContext = userContext;
	mUserCallback = callback;
}

int CqorSIO_PIManager::_manCB(
    void* manager, void* pi, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	const plugins::LiveCall call(plugins::liveManagers(), manager);
	if (!call) return kQorFailure;
	return static_cast<CqorSIO_PIManager*>(manager)->manCB(pi, code, a, b, p1, p2);
}

int CqorSIO_PIManager::userCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	return mUserCallback ? mUserCallback(this, code, a, b, p1, p2) : kQorFailure;
}

int CqorSIO_PIManager::manCB(void* pi, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
	char path[kQorSioPathSize];
	if (!mPIList.CopyPathOf(pi, path)) return kQorFailure;
	_mclog("CB(%d) from %s", static_cast<int>(code), path);
	if (code != qorSIO_CB_PI_CREATE_OBJECT) return kQorFailure;
	_mclog("qorSIO_CB_PI_CREATE_OBJECT (context=%p,func=%p)", p1, p2);
	if (!p1 || !p2) {
		_mclog(3, "qorSIO_CB_PI_CREATE_OBJECT - Invalid parameters");
		return kQorFailure;
	}
	return createObject(path, p1, reinterpret_cast<qorSIO_Func>(p2));
}

int CqorSIO_PIManager::createObject(const char* path, void* objectContext, qorSIO_Func function) {
	char info[QOR_SIO_INFORMATION_SIZE + kInformationGuard] = {};
	// A plug-in that cannot describe its object is ignored silently: its 0 tells it that all went well.
	if (function(objectContext, qorSIO_OBJ_INFORMATION, 0, 0, info, nullptr) != 0) return kQorSuccess;
	if (info[QOR_SIO_INFORMATION_SIZE]) _mclog(4, "Info is longer than %d characters", QOR_SIO_INFORMATION_SIZE);
	info[QOR_SIO_INFORMATION_SIZE] = 0;
	_mclog("[OK] Info (%s)", info);

	auto* object = makeObject(path, objectContext, function, info);
	if (!object) return kQorFailure;
	if (object->piAccept(objectContext, function) != kQorSuccess) {
		// The object is not deleted: the plug-in may have kept it before it refused.
		_mclog(3, "pi does not accept");
		return kQorFailure;
	}
	return kQorSuccess;
}

namespace {

template <class Record>
CqorSIO_Object* askHost(CqorSIO_PIManager& manager, const char* path, void* objectContext, qorSIO_Func function,
    const char* info, const char* type) {
	Record record = {};
	record.mObjectContext = objectContext;
	record.mObjectFunction = function;
	platform::formatText(record.mInfo, sizeof record.mInfo, "%s", info);
	platform::formatText(record.mTypeName, sizeof record.mTypeName, "%s", type);
	platform::formatText(record.mFileName, sizeof record.mFileName, "%s", platform::fileNamePart(path));
	if (manager.userCB(QOR_SIO_HOST_CREATE, 0, 0, &record, nullptr) != 0) return nullptr;
	return record.mObject;
}

} // namespace

CqorSIO_Object* CqorSIO_PIManager::makeObject(
    const char* path, void* objectContext, qorSIO_Func function, const char* info) {
	const CmcLineParSet items(',', info, 1);
	const char* type = items.par("!siotype", 0);
	_mclog("  Type=[%s]", type);

	CqorSIO_Object* object = nullptr;
	if (platform::equalWithoutCase(type, "CqorSIO_Object")) {
		object = new (std::nothrow) CqorSIO_Object;
		return object;
	}
	if (platform::equalWithoutCase(type, "CqorSIO_VideoCap"))
		object = askHost<eqorSIO_CREATE_VIDEOCAP>(*this, path, objectContext, function, info, type);
	else if (platform::equalWithoutCase(type, "CqorSIO_TimeCap"))
		object = askHost<eqorSIO_CREATE_TIMECAP>(*this, path, objectContext, function, info, type);
	else
		_mclog(3, "Unknown piType");
	if (!object) _mclog(3, "No interpreter for the class (%s)", type);
	return object;
}

const char* CqorSIO_PI::gettype() const { return "CqorSIO_PI"; }
const char* CqorSIO_PIList::gettype() const { return "CqorSIO_PIList"; }
const char* CqorSIO_PIManager::gettype() const { return "CqorSIO_PIManager"; }

int CqorSIO_PI::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_PI>("CqorSIO_PI", command, out);
}

int CqorSIO_PIList::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_PIList>("CqorSIO_PIList", command, out);
}

int CqorSIO_PIManager::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_PIManager>("CqorSIO_PIManager", command, out);
}
