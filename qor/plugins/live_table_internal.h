#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace plugins {

/// The library objects that exist, for callbacks which name one by its address alone.
///
/// A plug-in keeps the address of its object and cannot be told that the object is gone, so
/// the address is looked up here before it is used. Look-ups take no lock: a frame event
/// costs two atomic additions on the object's own slot.
///
///     callback:   calls += 1;  still this object?  run;  calls -= 1
///     destructor: object := leaving;  wait until calls == those of this thread
///
/// The table keeps its size. An object that finds it full exists as usual but receives no
/// callbacks, which its maker logs.
class LiveTable {
public:
	static constexpr size_t kSlots = 4096;

	bool enrol(const void* object);
	/// Callbacks of other threads have ended when it returns. Unknown objects are ignored.
	void retire(const void* object);

private:
	friend class LiveCall;
	struct Slot {
		std::atomic<uintptr_t> object{0}; // 0: never used, kRemoved: free again, kLeaving: being waited for
		std::atomic<int> calls{0};
	};
	static constexpr uintptr_t kRemoved = 1;
	static constexpr uintptr_t kLeaving = 2;

	Slot* find(uintptr_t object);

	Slot mSlots[kSlots];
};

/// Managers and device objects stand apart, so that one is never taken for the other.
LiveTable& liveManagers();
LiveTable& liveObjects();

/// Keeps an object alive for the length of one callback.
class LiveCall {
public:
	LiveCall(LiveTable& table, const void* object);
	~LiveCall();
	LiveCall(const LiveCall&) = delete;
	LiveCall& operator=(const LiveCall&) = delete;

	/// False: there is no such object.
	explicit operator bool() const { return mSlot != nullptr; }

	/// Calls of this thread in progress on that slot.
	static int ownCalls(const void* slot);

private:
	LiveTable::Slot* mSlot = nullptr;
	const LiveCall* mOuter = nullptr;
};

} // namespace plugins
