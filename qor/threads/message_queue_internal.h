#pragma once

#include "host_lock_internal.h"
#include "message_queue.h"

#include <new>

namespace threads {

/// What changes while a queue works. It stands in the reserved space of its queue, in lines of
/// the processor's cache by who writes them.
///
/// Items are counted on their way through the ring: `appended`, then `signals` (items announced to
/// workers), then `taken`, then `finished`, then `swept` (their places are free again). All are
/// written under the lock but for `taken` and `finished` of an instance with one worker: that one
/// takes and gives back without it. Differences count, so the numbers may pass zero again.
struct QueueMachinery {
	// The producers', under the lock.
	alignas(64) HostLock lock;
	int freeHint = 0;                      // no free item in a word of the map below this one
	std::atomic<int> claimed{0};           // items that are not in the map of free ones
	std::atomic<uint32_t> foreignFrees{0}; // foreign frees of the process that the map has taken in
	std::atomic<uint32_t> swept{0};
	uint32_t lastPlace = 0;    // of the ring: of the next item appended
	uint32_t sweptPlace = 0;   // of the next item swept
	uint32_t seenTaken = 0;    // `taken` as a producer last saw it
	int sleepers = 0;          // workers asleep and not yet chosen to be woken
	int lookers = 0;           // workers looking for work, woken ones included
	std::atomic<int> looks{1}; // how often the next looker looks
	// One bit an item, set while it can be claimed. It follows the state bytes, which stay the
	// truth (see adoptForeignFrees), and stands behind the ring in the same block.
	uint64_t* freeMap = nullptr;

	// What producers tell the takers.
	alignas(64) std::atomic<uint32_t> appended{0};
	std::atomic<uint32_t> signals{0};

	// The taker's.
	alignas(64) std::atomic<uint32_t> taken{0};
	std::atomic<uint32_t> finished{0};
	uint32_t firstPlace = 0;  // of the next item taken
	uint32_t seenSignals = 0; // `signals` as a lone taker last saw them

	static QueueMachinery& of(Cqor_MsgQueue& queue) {
		return *std::launder(reinterpret_cast<QueueMachinery*>(queue.mMachinery));
	}
	static const QueueMachinery& of(const Cqor_MsgQueue& queue) {
		return *std::launder(reinterpret_cast<const QueueMachinery*>(queue.mMachinery));
	}

	/// Items that nobody has taken yet; a moment's value without the lock.
	int pending() const {
		const uint32_t out = taken.load(std::memory_order_acquire);
		return static_cast<int>(appended.load(std::memory_order_acquire) - out);
	}
	/// Needs the lock, and that nobody takes or finishes meanwhile.
	void emptyList() {
		for (auto* count : {&appended, &signals, &taken, &finished, &swept}) count->store(0, std::memory_order_relaxed);
		lastPlace = sweptPlace = firstPlace = seenTaken = seenSignals = 0;
	}
	/// Everything but the lock as at first.
	void restart() {
		emptyList();
		freeHint = sleepers = lookers = 0;
		claimed.store(0, std::memory_order_relaxed);
		looks.store(1, std::memory_order_relaxed);
		freeMap = nullptr;
	}
};

} // namespace threads

/// A scope inside the queue's lock.
class Cqor_MsgQueue::Section {
public:
	explicit Section(Cqor_MsgQueue& queue) : mQueue(queue) {
		threads::QueueMachinery::of(queue).lock.enter(queue.mMutex);
	}
	~Section() { threads::QueueMachinery::of(mQueue).lock.leave(mQueue.mMutex); }
	Section(const Section&) = delete;
	Section& operator=(const Section&) = delete;

private:
	Cqor_MsgQueue& mQueue;
};
