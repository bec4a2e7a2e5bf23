#pragma once

#include "../base/linear_array.h"
#include "../platform/export.h"
#include "../platform/types.h"
#include "managed_object.h"

/// A registered class. The record stays where it is until the manager is destroyed.
struct CqorMCManagerClass {
	qorMCClassFunc mFunction;
	char mType[64];
	char mBaseClass[64]; ///< the type when the class was registered without a base
};

/// Maps type names to class functions, and owns the root object of the model, "mcRoot".
///
/// Any thread may call any operation. `Lock` and `Unlock` hold the manager's (recursive) mutex
/// around a sequence of calls, so that an index stays what it was.
class QOR_API CqorMCManager {
public:
	CqorMCManager();
	/// Deletes the root object; objects still below it become roots themselves.
	~CqorMCManager();
	CqorMCManager(const CqorMCManager&) = delete;
	CqorMCManager& operator=(const CqorMCManager&) = delete;

	/// Registers a class. The first registration of a type wins: another one changes nothing and
	/// answers with the first record.
	///
	/// A type of more than 63 characters is refused, since its shortened form would answer for
	/// another type; a longer base class, which nothing is looked up by, is shortened.
	/// @return the record; null without type or function, for too long a type, or without memory.
	CqorMCManagerClass* classAdd(const char* type, qorMCClassFunc function, const char* baseClass);
	/// Null when there is no class of exactly that type.
	CqorMCManagerClass* classFindByType(const char* type);
	/// In the order of registration; null outside 0 to count - 1.
	CqorMCManagerClass* classGetByIndex(int index);
	int classGetCount();
	/// A new object without a parent, owned by the caller. The class function runs without the
	/// manager's mutex. @return null for an unknown type or when the class function fails.
	Cmc* classNew(const char* type);

	/// @return 0; 0x10000000 when the mutex cannot be had, or is not held.
	int Lock();
	int Unlock();

	/// "mcRoot"; null only when there was no memory for it.
	Cmc* GetRoot() const { return mRoot; }

private:
	CqorMCManagerClass* find(const char* type);

	platform::WaitHandle mMutex = nullptr;
	CstmLinearArray mClasses; // CqorMCManagerClass*, under mMutex
	Cmc* mRoot = nullptr;
};

/// The manager of the process, made by the first call (from any thread, also while static objects
/// are being made) and never destroyed. @return null only when there was no memory for it.
QOR_API CqorMCManager* qorMCGetManager();
