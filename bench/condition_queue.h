#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

/// What a user would write instead of a queue instance: a bounded deque under a mutex, and
/// workers that a condition variable wakes.
template <class Message, class Consume>
class ConditionQueue {
public:
	ConditionQueue(int workers, int capacity, Consume consume)
	    : mCapacity(static_cast<size_t>(capacity)), mConsume(std::move(consume)) {
		for (int i = 0; i < workers; ++i) mWorkers.emplace_back([this] { serve(); });
	}
	~ConditionQueue() {
		{
			const std::lock_guard lock(mMutex);
			mEnd = true;
		}
		mFilled.notify_all();
		for (auto& worker : mWorkers) worker.join();
	}
	bool add(const Message& message) {
		{
			const std::lock_guard lock(mMutex);
			if (mMessages.size() >= mCapacity) return false;
			mMessages.push_back(message);
		}
		mFilled.notify_one();
		return true;
	}

private:
	void serve() {
		for (;;) {
			std::unique_lock lock(mMutex);
			mFilled.wait(lock, [this] { return mEnd || !mMessages.empty(); });
			if (mMessages.empty()) return;
			const Message message = mMessages.front();
			mMessages.pop_front();
			lock.unlock();
			mConsume(message);
		}
	}
	std::mutex mMutex;
	std::condition_variable mFilled;
	std::deque<Message> mMessages;
	size_t mCapacity;
	bool mEnd = false;
	Consume mConsume;
	std::vector<std::thread> mWorkers;
};
