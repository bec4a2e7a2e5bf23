#pragma once

#include "../platform/memory.h"
#include "../platform/wait.h"
#include "message_queue.h"

#include <atomic>

namespace threads {

/// What an instance shares with the threads of its workers, so that one of them may outlive it.
/// Goes with the last of them.
struct QueueSignal {
	explicit QueueSignal(platform::WaitHandle handle) : semaphore(handle) {}

	void drop() {
		if (references.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
		platform::closeHandle(semaphore);
		platform::release(keptItems);
		delete this;
	}

	std::atomic<int> references{1};
	std::atomic<bool> closed{false};      // every wait fails from now on
	platform::WaitHandle semaphore;       // one permit for each worker to be woken
	bool draining = false;                // every pending item is signalled; under the queue's lock
	bool abandoned = false;               // the instance's: a thread was left inside a callback
	eqor_QUEUE_ITEM* keptItems = nullptr; // the pool, while an abandoned thread may have an item of it
};

} // namespace threads
