#pragma once

#include "../base/linear_array.h"
#include "../core/managed_object.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "sio_plugin.h"

#include <atomic>
#include <cstdint>

class CqorSIO_Object;
class CqorSIO_VideoCap;
class CqorSIO_TimeCap;
namespace plugins {
struct LivePlace;
}

/// Characters of a plug-in's path, terminator included; longer paths are refused.
inline constexpr int kQorSioPathSize = 264;

/// What the host's user callback receives as p1 of code 1 when a plug-in offers a device.
/// The manager fills everything but `mObject`; the host makes the object and stores it
/// there. Which of the two records it is, `mTypeName` tells (compared without regard to case with
/// `QOR_SIO_TYPE_CAMERA` and `QOR_SIO_TYPE_TIMING_DEVICE`). The texts are terminated copies that live until the
/// callback returns. The record is the manager's and may grow at its end.
template <class Object>
struct eqorSIO_CREATE {
	void* mObjectContext; // the plug-in's; the manager binds it to the object afterwards
	qorSIO_Func mObjectFunction;
	char mInfo[520];                 // the information line, at most 512 characters
	char mTypeName[128];             // as the plug-in wrote it
	char mFileName[kQorSioPathSize]; // the plug-in's file name without folders
	Object* mObject;                 // set by the host; null refuses
};
using eqorSIO_CREATE_VIDEOCAP = eqorSIO_CREATE<CqorSIO_VideoCap>;
using eqorSIO_CREATE_TIMECAP = eqorSIO_CREATE<CqorSIO_TimeCap>;

/// One plug-in library. A loaded library stays mapped for the life of the process. The object
/// belongs to one thread at a time.
class QOR_API CqorSIO_PI : public Cmc {
public:
	CqorSIO_PI();
	~CqorSIO_PI() override;

	/// Loads the library and looks up its entry function.
	/// @return 0; 0x10000000, logged, when it cannot be loaded or has no entry function.
	int piLoad(const char* path);
	/// Forgets library, path and entry function. The library is not unloaded.
	void piFree();
	/// @return the named export; null when nothing is loaded or `name` is null.
	void* piGetFunc(const char* name);
	/// Calls the entry function. @return its answer; -1 when there is none.
	int piFunc(void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

	/// The path given to `piLoad`; empty when not loaded.
	const char* GetPath() const;
	bool IsLoaded() const;

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

private:
	friend class CqorSIO_PIList;

	platform::ModuleHandle mModule = nullptr;
	char mPath[kQorSioPathSize] = {};
	qorSIO_Func mFunction = nullptr;
	uint64_t mIdentity = 0; // what the plug-in knows of this item; given by the list
};

/// The plug-ins in load order. Look-ups may run on any thread beside a load; an item
/// stays valid until `Free`. While a plug-in is called the list may change and be destroyed:
/// who is listed before and after is called once.
class QOR_API CqorSIO_PIList : public Cmc {
public:
	CqorSIO_PIList();
	~CqorSIO_PIList() override;
	CqorSIO_PIList(const CqorSIO_PIList&) = delete;
	CqorSIO_PIList& operator=(const CqorSIO_PIList&) = delete;

	/// Loads the folder's libraries (extension "DLL", "so" on Linux; at most 1,024), in the
	/// order of their names. What cannot be loaded, or a folder that cannot be read, is logged and skipped.
	/// @return always 0.
	int LoadPlugInsFromFolder(const char* folder, int recursive);
	/// Deletes the items and empties the list; the libraries stay mapped.
	void Free();
	/// Calls every plug-in's entry function, ignoring the answers. @return always 0.
	int MsgToAll(void* context, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);
	/// @return the item that a plug-in means with its `pi`, or the one at that address; null when
	/// there is none. `context` is only compared.
	CqorSIO_PI* FindByPIContext(void* context);
	int GetCount();
	/// @return null outside the list.
	CqorSIO_PI* Get(int index);
	CqorSIO_PI* operator()(int index) { return Get(index); }

	/// Copies the path of that item into `path` (`kQorSioPathSize` characters).
	/// @return false, `path` empty, when there is none.
	bool CopyPathOf(void* context, char* path);

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

private:
	friend class CqorSIO_PIManager;

	bool append(CqorSIO_PI* plugIn);
	CqorSIO_PI* find(const void* context) const;
	uint64_t newest() const;
	bool next(uint64_t newest, uint64_t* identity, qorSIO_Func* entry) const;

	CstmArray<CqorSIO_PI*> mItems; // under the lock of mPlace, which is never held while a plug-in runs
	plugins::LivePlace* mPlace;    // null without memory: nothing is listed then
};

/// Loads plug-ins, introduces itself to them and makes library objects for the devices
/// they offer.
///
/// Plug-ins call back on any thread; the manager holds no lock meanwhile, so the user
/// callback must be safe to run there; it may delete the manager. Plug-ins know a manager by an
/// identity that none after it gets: a call that arrives after it was destroyed is answered with
/// 0x10000000. The destructor waits for calls in progress on other threads.
class QOR_API CqorSIO_PIManager : public Cmc {
public:
	CqorSIO_PIManager();
	~CqorSIO_PIManager() override;
	CqorSIO_PIManager(const CqorSIO_PIManager&) = delete;
	CqorSIO_PIManager& operator=(const CqorSIO_PIManager&) = delete;

	/// Loads the folder's plug-ins and introduces the manager to each listed one.
	/// @return always 0.
	int Create(const char* folder, int recursive);
	/// Does nothing: plug-ins stay loaded for the life of the process.
	void Destroy();

	/// Handles a plug-in's request. @return 0 or 0x10000000; 0 without an object also when
	/// the plug-in refuses to describe its object.
	int manCB(void* pi, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);
	/// The callback handed to plug-ins. `manager` is the manager's identity; hosts may give the
	/// address of one that exists. @return `manCB`'s answer; 0x10000000 for a null or destroyed manager.
	static int _manCB(
	    void* manager, void* pi, unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);
	/// Calls the user callback with this manager as context. @return its answer; 0x10000000 without one.
	int userCB(unsigned long code, unsigned long a, unsigned long b, void* p1, void* p2);

	/// Changes callback and user context in one step, at any time. When this returns no call with
	/// the former two runs any more, so hold nothing here that the callback waits for; a device
	/// offered while such a call is waited for is refused. From within an event or callback of any
	/// device or manager it returns at once: calls on other threads may still be running.
	void SetUserCallBack(qorSIO_Func callback, void* userContext);
	/// In the user callback: the context that was set together with it, also when another thread
	/// has changed the two since. Elsewhere: the present one.
	void* GetUserContext() const;

	const char* gettype() const override;
	qorMCClassFunc getclassfunc() const override;
	static int qorMC__CLASSFUNC(unsigned long command, unsigned long a, unsigned long b, void* out, void* p);

	CqorSIO_PIList mPIList;
	/// The host's. Set both before `Create`, or later through `SetUserCallBack`.
	void* mUserContext = nullptr;
	/// Receives code 1 (`QOR_SIO_HOST_CREATE`) with a creation record as p1 and answers 0 when it
	/// made the object. Its context argument is the manager.
	qorSIO_Func mUserCallback = nullptr;

private:
	int createObject(const char* path, void* objectContext, qorSIO_Func function);
	CqorSIO_Object* makeObject(const char* path, void* objectContext, qorSIO_Func function, const char* info);

	plugins::LivePlace* mPlace; // identity and machinery; null without memory
};
