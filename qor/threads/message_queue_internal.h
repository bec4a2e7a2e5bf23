#pragma once

#include "light_lock_internal.h"
#include "message_queue.h"

/// A scope inside the queue's light lock, for everyone but the thread between `Lock` and
/// `Unlock` behind the queue mutex as well.
class Cqor_MsgQueue::Section {
public:
	explicit Section(Cqor_MsgQueue& queue) : mQueue(queue) { queue.enter(); }
	~Section() { mQueue.leave(); }
	Section(const Section&) = delete;
	Section& operator=(const Section&) = delete;

private:
	Cqor_MsgQueue& mQueue;
};
