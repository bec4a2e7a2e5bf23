#include "object_watch_internal.h"

#include <mutex>
#include <new>

namespace base {
namespace {

/// Guards the lists of all objects. Held for a few instructions around a callback.
std::mutex& listsLock() {
	// Never destroyed: hosts call back until the process has ended. Never allocated: nothing here may fail.
	alignas(std::mutex) static unsigned char room[sizeof(std::mutex)];
	static std::mutex& lock = *new (room) std::mutex;
	return lock;
}

} // namespace

ObjectWatch::ObjectWatch(ObjectWatch*& list) : mList(&list) {
	const std::lock_guard lock(listsLock());
	mNext = list;
	list = this;
}

ObjectWatch::~ObjectWatch() {
	const std::lock_guard lock(listsLock());
	if (!mList) return;
	ObjectWatch** place = mList;
	while (*place != this) place = &(*place)->mNext;
	*place = mNext;
}

void ObjectWatch::objectGone(ObjectWatch*& list) {
	const std::lock_guard lock(listsLock());
	for (ObjectWatch* watch = list; watch; watch = watch->mNext) watch->mList = nullptr;
	list = nullptr;
}

} // namespace base
