#pragma once

#include "wait_slots_internal.h"

#include <cstdint>

/// Objects that processes share by name.
namespace platform::posix {

struct NamedRequest {
	Kind kind;
	const char* name;
	bool mustExist = false;
	bool owned = false;       // mutex
	int32_t count = 0;        // semaphore
	int32_t maximum = 0;      // semaphore
	bool manualReset = false; // event
	bool signalled = false;   // event
};

/// A handle to the object of that name. The last error tells an existing object (183)
/// from a new one (0). @return null, with the last error, on failure.
WaitHandle openNamed(NamedRequest request);

/// Gives a handle's share back.
void dropNamed(NamedObject& object);

/// A share in an object for one operation; empty when the handle was closed meanwhile.
class NamedShare {
public:
	explicit NamedShare(const Found& found);
	~NamedShare();
	NamedShare(const NamedShare&) = delete;
	NamedShare& operator=(const NamedShare&) = delete;

	explicit operator bool() const { return mObject != nullptr; }
	NamedObject& operator*() const { return *mObject; }

private:
	NamedObject* mObject = nullptr;
};

Kind kindOfNamed(const NamedObject& object);
bool manualResetOfNamed(const NamedObject& object);
uint32_t waitNamed(NamedObject& object, const Deadline& deadline);
/// `abandoned`: the next owner shall get it as abandoned once more.
bool releaseNamedMutex(NamedObject& object, bool abandoned);
/// `beyond` ignores the maximum: a permit goes back that was taken before.
bool releaseNamedSemaphore(NamedObject& object, int32_t count, int32_t* previous, bool beyond);
void setNamedEvent(NamedObject& object);
void resetNamedEvent(NamedObject& object);
void pulseNamedEvent(NamedObject& object);

/// Leaves every named mutex that the calling thread owns abandoned.
void abandonNamedMutexes();

/// Around a fork: the child shares the objects as a process of its own.
void lockNamedForFork();
void unlockNamedInParent();
void unlockNamedInChild();

} // namespace platform::posix
