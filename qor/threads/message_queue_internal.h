#pragma once

#include "message_queue.h"

/// A scope inside the queue's lock.
class Cqor_MsgQueue::Section {
public:
	explicit Section(Cqor_MsgQueue& queue) : mQueue(queue) { queue.mLock.enter(queue.mMutex); }
	~Section() { mQueue.mLock.leave(mQueue.mMutex); }
	Section(const Section&) = delete;
	Section& operator=(const Section&) = delete;

private:
	Cqor_MsgQueue& mQueue;
};
