#pragma once

#include "../threads/light_lock_internal.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

/// Who may still be called, and with what.
///
/// A plug-in keeps what it was given of an object and cannot be told that the object is gone.
/// So it is given an identity instead of an address: a number that names one object of the
/// process, was never another's and never will be. It is odd, so that no address is taken for
/// one; hosts may use the address of an object of theirs in its place while it lives.
///
/// Every object has a place. The place holds what must outlive the object for the calls that
/// are on their way, and is used again when the last of them has ended; it is never freed.
///
///     event:       pins += 1;  still this identity?  run;  pins -= 1
///     destructor:  identity := none;  wait until pins are those of this thread alone
///
/// An event takes no lock to find its object. The callback of a host and its context are read
/// together under the place's word (light_lock_internal.h), which is not held over the call.
namespace plugins {

enum class Live : uint32_t { manager, list, object };

/// Bits of a capture device's state.
inline constexpr int kStateBits = 8;

struct alignas(64) LivePlace {
	std::atomic<uint64_t> identity{0}; // 0: nobody's
	std::atomic<void*> object{nullptr};
	std::atomic<int> pins{0}; // calls in progress, and for moments calls that came too late
	Live kind{};
	uint32_t index = 0;
	bool left = false; // retired from within a call of the same thread, whose end frees the place
	LivePlace* nextFree = nullptr;

	std::atomic<uint32_t> lock{0}; // over what follows, and over the pair that the object holds
	uint32_t generation = 0;       // of the pair
	int current = 0;               // calls in progress with the present pair
	std::atomic<int> former{0};    // and with earlier ones
	uint64_t tickets = 0;          // operations sent so far
	uint64_t changedBy[kStateBits] = {};
};

/// A scope under the lock of a place; without a place (an object made without memory) nothing
/// is locked, and nothing calls it either.
class PlaceLock {
public:
	explicit PlaceLock(LivePlace* place) : mPlace(place) {
		if (mPlace) threads::lockWord(mPlace->lock);
	}
	~PlaceLock() {
		if (mPlace) threads::unlockWord(mPlace->lock);
	}
	PlaceLock(const PlaceLock&) = delete;
	PlaceLock& operator=(const PlaceLock&) = delete;

private:
	LivePlace* mPlace;
};

/// Gives an object a place. @return null without memory.
LivePlace* enrol(Live kind, void* object);
/// Takes the place away: calls of other threads have ended when it returns. Null is ignored.
void retire(LivePlace* place);
/// What plug-ins are given; null for null.
void* identityOf(const LivePlace* place);
/// A number of the same kind for what is found without a place.
uint64_t newIdentity();

/// Keeps a place for the length of one call on this thread.
class Pin {
public:
	Pin(const Pin&) = delete;
	Pin& operator=(const Pin&) = delete;

	/// Pins of this thread on that place.
	static int own(const LivePlace* place);
	static bool isInsideCall();

protected:
	friend class HostCall;
	Pin() = default;
	~Pin();
	/// Enters the place with one count already taken, or without one when it is pinned by the
	/// call around this one.
	void enter(LivePlace* place, bool counted);

	LivePlace* mPlace = nullptr;
	bool mIsHostCall = false;
	const Pin* mOuter = nullptr;

private:
	bool mCounted = false;
};

/// An event on its way to its object.
class LiveCall : public Pin {
public:
	/// @param handle an identity, or the address of a living object
	LiveCall(Live kind, const void* handle);
	/// Null: there is no such object any more.
	void* object() const { return mObject; }

private:
	void* mObject = nullptr;
};

/// One call of a host's callback. `read` copies callback and context and answers the context.
class HostCall : public Pin {
public:
	template <class Read>
	HostCall(LivePlace* place, Read read) {
		if (place) enter(place, false);
		const PlaceLock lock(place);
		mContext = read();
		if (!place) return;
		mIsHostCall = true;
		mGeneration = place->generation;
		++place->current;
	}
	~HostCall() {
		if (!mPlace) return;
		const PlaceLock lock(mPlace);
		if (mGeneration == mPlace->generation)
			--mPlace->current;
		else
			mPlace->former.fetch_sub(1, std::memory_order_release);
	}
	void* context() const { return mContext; }
	/// The call of that place's callback that this thread is in; null when it is in none.
	static const HostCall* innermost(const LivePlace* place);

private:
	uint32_t mGeneration = 0;
	void* mContext = nullptr;
};

/// Waits until no call of an earlier pair runs any more. Inside an event or a callback of any
/// device or manager nothing is waited for: two callbacks could wait for each other.
void waitForFormerCalls(LivePlace* place);

/// Changes callback and context, by `write`, in one step.
template <class Write>
void changePair(LivePlace* place, Write write) {
	{
		const PlaceLock lock(place);
		write();
		if (!place) return;
		++place->generation;
		place->former.fetch_add(place->current, std::memory_order_relaxed);
		place->current = 0;
	}
	waitForFormerCalls(place);
}

/// Tells after a call of foreign code whether that code destroyed the object meanwhile.
class LiveWatch {
public:
	explicit LiveWatch(const LivePlace* place) : mPlace(place), mIdentity(place ? place->identity.load() : 0) {}
	bool gone() const { return mPlace && mPlace->identity.load(std::memory_order_acquire) != mIdentity; }

private:
	const LivePlace* mPlace;
	uint64_t mIdentity;
};

} // namespace plugins
