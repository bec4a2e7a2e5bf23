#include "plugin_manager.h"

#include "../base/host_call_internal.h"
#include "../base/status.h"
#include "../core/line_parameters.h"
#include "../core/visible_text_internal.h"
#include "../platform/folder.h"
#include "../platform/format.h"
#include "../platform/letter_case_internal.h"
#include "../platform/machine.h"
#include "../platform/module.h"
#include "live_table_internal.h"
#include "time_capture.h"
#include "video_capture.h"

#include <cstring>
#include <exception>
#include <new>
#include <vector>

namespace {

constexpr size_t kMaximumPlugIns = 1024;
constexpr uint32_t kPathTooLong = 206; // the system's number for it
// Room behind the buffers that plug-ins fill, for one that does not keep to their size.
constexpr size_t kInformationGuard = 3584;

int callEntry(
    qorSIO_Func entry, void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	if (!entry) return -1;
	return base::callHost("plug-in entry function", [&] { return entry(context, code, a, b, p1, p2); });
}

void* pointerOf(uint64_t identity) { return reinterpret_cast<void*>(static_cast<uintptr_t>(identity)); }

} // namespace

CqorSIO_PI::CqorSIO_PI() = default;
CqorSIO_PI::~CqorSIO_PI() = default;

int CqorSIO_PI::piLoad(const char* path) {
	if (!path) path = "";
	const core::VisibleText shown(path);
	_mclog(1, "piLoad(%s)", shown.get());
	const auto length = std::strlen(path);
	if (length >= sizeof mPath) platform::setLastError(kPathTooLong);
	const auto loaded = length < sizeof mPath ? platform::loadModule(path) : nullptr;
	if (!loaded) {
		_mclog("piLoad(%s) - Cannot load (err=%d)", shown.get(), static_cast<int>(platform::lastError()));
		return kQorFailure;
	}
	mModule = loaded;
	std::memcpy(mPath, path, length + 1);
	mFunction = reinterpret_cast<qorSIO_Func>(platform::findExport(mModule, QOR_SIO_ENTRY_NAME));
	if (mFunction) {
		_mclog("[OK] piLoad(%s)", shown.get());
		return kQorSuccess;
	}
	// The library stays mapped: its start-up code may have left threads or hooks behind.
	mModule = nullptr;
	mPath[0] = 0;
	_mclog(3, "piLoad(%s) - eFunc not found", shown.get());
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
	return callEntry(mFunction, context, code, a, b, p1, p2);
}

const char* CqorSIO_PI::GetPath() const { return mPath; }
bool CqorSIO_PI::IsLoaded() const { return mFunction != nullptr; }

CqorSIO_PIList::CqorSIO_PIList() : mPlace(plugins::enrol(plugins::Live::list, this)) {}

CqorSIO_PIList::~CqorSIO_PIList() {
	plugins::retire(mPlace);
	mPlace = nullptr;
	Free();
}

int CqorSIO_PIList::LoadPlugInsFromFolder(const char* folder, int recursive) {
	const plugins::LiveWatch watch(mPlace);
	std::vector<platform::FoundFile> files;
	if (!platform::listFiles(folder, platform::kModuleExtension, recursive != 0, kMaximumPlugIns, &files))
		_mclog(3, "LoadPlugInsFromFolder(%s) - Cannot read (err=%d)", folder, static_cast<int>(platform::lastError()));
	for (const auto& file : files) {
		auto* plugIn = new (std::nothrow) CqorSIO_PI;
		if (!plugIn) {
			_mclog(3, "LoadPlugInsFromFolder - No memory (%s)", core::VisibleText(file.path.c_str()).get());
			break;
		}
		const bool loaded = plugIn->piLoad(file.path.c_str()) == kQorSuccess; // its start-up code has run
		if (watch.gone() || !loaded || !append(plugIn)) delete plugIn;
		if (watch.gone()) break;
	}
	return kQorSuccess;
}

bool CqorSIO_PIList::append(CqorSIO_PI* plugIn) {
	const plugins::PlaceLock lock(mPlace);
	plugIn->mIdentity = plugins::newIdentity(); // under the lock, so that they grow along the list
	return mPlace && plugIn->mIdentity && mItems.Add(plugIn);
}

void CqorSIO_PIList::Free() {
	for (;;) {
		CqorSIO_PI* last = nullptr;
		{
			const plugins::PlaceLock lock(mPlace);
			const int count = mItems.Count();
			if (count == 0) return;
			last = mItems[count - 1];
			mItems.Delete(count - 1);
		}
		last->piFree();
		delete last;
	}
}

/// Who was listed last; under no lock of the caller's.
uint64_t CqorSIO_PIList::newest() const {
	const plugins::PlaceLock lock(mPlace);
	return mItems.Count() ? mItems[mItems.Count() - 1]->mIdentity : 0;
}

/// Steps to the item behind `*identity` (0: the first) that is not newer than `newest`, so that a
/// walk neither misses who is there all the time nor meets who comes meanwhile.
bool CqorSIO_PIList::next(uint64_t newest, uint64_t* identity, qorSIO_Func* entry) const {
	const plugins::PlaceLock lock(mPlace);
	for (const auto* plugIn : mItems) {
		if (plugIn->mIdentity <= *identity || plugIn->mIdentity > newest) continue;
		*identity = plugIn->mIdentity;
		*entry = plugIn->mFunction;
		return true;
	}
	return false;
}

int CqorSIO_PIList::MsgToAll(void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	const plugins::LiveWatch watch(mPlace);
	const uint64_t last = newest();
	qorSIO_Func entry = nullptr;
	for (uint64_t identity = 0; !watch.gone() && next(last, &identity, &entry);)
		callEntry(entry, context, code, a, b, p1, p2);
	return kQorSuccess;
}

/// To be called under the lock.
CqorSIO_PI* CqorSIO_PIList::find(const void* context) const {
	for (auto* plugIn : mItems)
		if (plugIn == context || pointerOf(plugIn->mIdentity) == context) return plugIn;
	return nullptr;
}

CqorSIO_PI* CqorSIO_PIList::FindByPIContext(void* context) {
	const plugins::PlaceLock lock(mPlace);
	return find(context);
}

bool CqorSIO_PIList::CopyPathOf(void* context, char* path) {
	const plugins::PlaceLock lock(mPlace);
	const auto* plugIn = find(context);
	platform::formatText(path, kQorSioPathSize, "%s", plugIn ? plugIn->GetPath() : "");
	return plugIn != nullptr;
}

int CqorSIO_PIList::GetCount() {
	const plugins::PlaceLock lock(mPlace);
	return mItems.Count();
}

CqorSIO_PI* CqorSIO_PIList::Get(int index) {
	const plugins::PlaceLock lock(mPlace);
	auto** item = mItems.Get(index);
	return item ? *item : nullptr;
}

CqorSIO_PIManager::CqorSIO_PIManager() : mPlace(plugins::enrol(plugins::Live::manager, this)) {}

CqorSIO_PIManager::~CqorSIO_PIManager() { plugins::retire(mPlace); }

int CqorSIO_PIManager::Create(const char* folder, int recursive) {
	const plugins::LiveWatch watch(mPlace);
	mPIList.LoadPlugInsFromFolder(folder, recursive);
	if (watch.gone()) return kQorSuccess;
	if (!mPlace) _mclog(3, "No memory for the calls of plug-ins");
	void* const self = plugins::identityOf(mPlace);
	const uint64_t last = self ? mPIList.newest() : 0;
	qorSIO_Func entry = nullptr;
	for (uint64_t identity = 0; !watch.gone() && mPIList.next(last, &identity, &entry);) {
		if (callEntry(entry, self, qorSIO_PI_INITIALISE, 0, 0, nullptr, nullptr) != 0 || watch.gone()) continue;
		callEntry(entry, self, qorSIO_PI_CALLBACK, 0, 0, pointerOf(identity), reinterpret_cast<void*>(&_manCB));
	}
	return kQorSuccess;
}

void CqorSIO_PIManager::Destroy() {}

void CqorSIO_PIManager::SetUserCallBack(qorSIO_Func callback, void* userContext) {
	// Callbacks read the context from the manager. So while one runs, and can be waited for, there is
	// none for a moment.
	const bool waits = !plugins::Pin::isInsideCall();
	bool inTwoSteps = false;
	const auto setBoth = [&] {
		mUserContext = userContext;
		mUserCallback = callback;
	};
	plugins::changePair(mPlace, [&] {
		inTwoSteps = waits && mPlace && mPlace->current + mPlace->former.load() > 0;
		inTwoSteps ? void(mUserCallback = nullptr) : setBoth();
	});
	if (inTwoSteps) plugins::changePair(mPlace, setBoth);
}

void* CqorSIO_PIManager::GetUserContext() const {
	if (const auto* call = plugins::HostCall::innermost(mPlace)) return call->context();
	const plugins::PlaceLock lock(mPlace);
	return mUserContext;
}

int CqorSIO_PIManager::_manCB(
    void* manager, void* pi, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	const plugins::LiveCall call(plugins::Live::manager, manager);
	if (!call.object()) return kQorFailure;
	return static_cast<CqorSIO_PIManager*>(call.object())->manCB(pi, code, a, b, p1, p2);
}

int CqorSIO_PIManager::userCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2) {
	qorSIO_Func callback = nullptr;
	const plugins::HostCall call(mPlace, [&] {
		callback = mUserCallback;
		return mUserContext;
	});
	if (!callback) return kQorFailure;
	return base::callHost("CqorSIO_PIManager callback", [&] { return callback(this, code, a, b, p1, p2); });
}

int CqorSIO_PIManager::manCB(void* pi, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
	char path[kQorSioPathSize];
	if (!mPIList.CopyPathOf(pi, path)) return kQorFailure;
	_mclog("CB(%d) from %s", static_cast<int>(code), core::VisibleText(path).get());
	if (code != qorSIO_CB_PI_CREATE_OBJECT) return kQorFailure;
	_mclog("qorSIO_CB_PI_CREATE_OBJECT (context=%p,func=%p)", p1, p2);
	if (!p1 || !p2) {
		_mclog(3, "qorSIO_CB_PI_CREATE_OBJECT - Invalid parameters");
		return kQorFailure;
	}
	return createObject(path, p1, reinterpret_cast<qorSIO_Func>(p2));
}

// Every call of foreign code below may destroy the manager: the host does so in a callback of its own.

int CqorSIO_PIManager::createObject(const char* path, void* objectContext, qorSIO_Func function) {
	const plugins::LiveWatch watch(mPlace);
	char info[QOR_SIO_INFORMATION_SIZE + kInformationGuard] = {};
	// A plug-in that cannot describe its object is ignored silently: its 0 tells it that all went well.
	if (base::callHost("plug-in object function",
	        [&] { return function(objectContext, qorSIO_OBJ_INFORMATION, 0, 0, info, nullptr); }) != 0)
		return kQorSuccess;
	if (watch.gone()) return kQorFailure;
	if (info[QOR_SIO_INFORMATION_SIZE]) _mclog(4, "Info is longer than %d characters", QOR_SIO_INFORMATION_SIZE);
	info[QOR_SIO_INFORMATION_SIZE] = 0;
	_mclog("[OK] Info (%s)", core::VisibleText(info).get());

	auto* object = makeObject(path, objectContext, function, info);
	if (!object) return kQorFailure;
	if (object->piAccept(objectContext, function) == kQorSuccess) return kQorSuccess;
	// The object is not deleted: the plug-in may have kept it before it refused.
	if (!watch.gone()) _mclog(3, "pi does not accept");
	return kQorFailure;
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
	const plugins::LiveWatch watch(mPlace);
	const CmcLineParSet items(',', info, 1);
	const char* type = items.par(QOR_SIO_KEY_TYPE, 0);
	const core::VisibleText shown(type);
	_mclog("  Type=[%s]", shown.get());

	CqorSIO_Object* object = nullptr;
	if (platform::equalWithoutCase(type, QOR_SIO_TYPE_OBJECT)) {
		object = new (std::nothrow) CqorSIO_Object;
		if (!object) _mclog(3, "No memory for an object");
		return object;
	}
	if (platform::equalWithoutCase(type, QOR_SIO_TYPE_CAMERA))
		object = askHost<eqorSIO_CREATE_VIDEOCAP>(*this, path, objectContext, function, info, type);
	else if (platform::equalWithoutCase(type, QOR_SIO_TYPE_TIMING_DEVICE))
		object = askHost<eqorSIO_CREATE_TIMECAP>(*this, path, objectContext, function, info, type);
	else
		_mclog(3, "Unknown piType");
	if (!object && !watch.gone()) _mclog(3, "No interpreter for the class (%s)", shown.get());
	return object;
}

const char* CqorSIO_PI::gettype() const { return "CqorSIO_PI"; }
qorMCClassFunc CqorSIO_PI::getclassfunc() const { return qorMC__CLASSFUNC; }
const char* CqorSIO_PIList::gettype() const { return "CqorSIO_PIList"; }
qorMCClassFunc CqorSIO_PIList::getclassfunc() const { return qorMC__CLASSFUNC; }
const char* CqorSIO_PIManager::gettype() const { return "CqorSIO_PIManager"; }
qorMCClassFunc CqorSIO_PIManager::getclassfunc() const { return qorMC__CLASSFUNC; }

int CqorSIO_PI::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_PI>("CqorSIO_PI", command, out);
}

int CqorSIO_PIList::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_PIList>("CqorSIO_PIList", command, out);
}

int CqorSIO_PIManager::qorMC__CLASSFUNC(unsigned long command, unsigned long, unsigned long, void* out, void*) {
	return managed::classFunction<CqorSIO_PIManager>("CqorSIO_PIManager", command, out);
}
