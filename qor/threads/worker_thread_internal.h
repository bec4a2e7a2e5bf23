#pragma once

#include "../platform/types.h"

#include <atomic>
#include <cstdint>

namespace threads {

/// How long a destructor waits for a thread that has been asked to end.
inline constexpr uint32_t kEndWaitMs = 5000;

/// A thread that serves an object of the host, and may outlive it.
///
/// The thread says where it is: inside (it touches the owner) or away (in a callback, a wait
/// or a sleep, with nothing of the owner in its hands). An owner that can wait no longer may
/// leave a thread that is away: on its way back the thread learns that and ends without
/// touching the owner. Inside the thread is never for long, so an owner can always go.
///
/// The record is owned by both and goes with the last of them.
class WorkerThread {
public:
	using Body = unsigned (*)(void* owner, WorkerThread& thread);

	/// Starts a thread on `body` and returns once it has called `entered` (or ended). The owner has
	/// the thread in `place` before the body begins, and is not touched any more behind that: its
	/// first callback may destroy it.
	/// @return false, with null in `place`, when the system refuses memory or the thread.
	static bool start(WorkerThread*& place, Body body, void* owner, int priority);

	/// Waits for the thread's end. @return false on time-out, or from the thread itself.
	bool waitForEnd(uint32_t timeoutMs) const;

	/// Whether this is the calling thread.
	bool isCurrent() const;

	/// The owner's last use of the thread: waits for its end and leaves it when the time is up, a thread
	/// that calls this itself at once. Null does nothing; `thread` is null afterwards.
	static void part(WorkerThread*& thread, uint32_t timeoutMs);

	// For the body:
	void entered() { mEntered.store(true, std::memory_order_release); }
	void away() { mPlace.store(kAway, std::memory_order_release); }
	/// @return false when the owner has left: the body must return at once.
	bool back();

private:
	static constexpr uint32_t kInside = 0;
	static constexpr uint32_t kAway = 1;
	static constexpr uint32_t kLeft = 2;

	WorkerThread(Body body, void* owner) : mBody(body), mOwner(owner) {}
	static unsigned entry(void* record);
	bool leave();
	void drop();

	Body mBody;
	void* mOwner;
	platform::WaitHandle mHandle = nullptr;
	std::atomic<int> mReferences{3}; // the owner's, the thread's and the starter's
	std::atomic<uint32_t> mThreadId{0};
	std::atomic<bool> mHasHandle{false};
	std::atomic<bool> mEntered{false};
	std::atomic<uint32_t> mPlace{kInside};
};

} // namespace threads
