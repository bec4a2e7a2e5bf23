// A queue instance beside what a host would write or pick instead: a bounded deque under a
// mutex with a condition variable, and a lock-free queue with a semaphore. All have the same
// number of workers and places; a producer that finds no place yields and tries again.
//
//   queue_bench [items per run] [repetitions]
//
// Repetitions are interleaved; a cell is the median with half the distance of its quartiles.
#include "condition_queue.h"

#include <qor/threads/queue_instance.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#if __has_include(<concurrentqueue/blockingconcurrentqueue.h>)
#include <concurrentqueue/blockingconcurrentqueue.h>
#define HAVE_CONCURRENTQUEUE 1
#endif

namespace {

using Clock = std::chrono::steady_clock;

struct Message {
	uint32_t word1, word2, word3;
	void* pointer1;
	void* pointer2;
};

/// What every consumer does with a message.
struct alignas(64) Sink {
	std::atomic<uint64_t> consumed{0};
	std::atomic<int64_t> latencyNs{-1};
	bool measureLatency = false;

	void take(const void* stamp) {
		if (measureLatency) {
			const auto sent = Clock::time_point(Clock::duration(reinterpret_cast<intptr_t>(stamp)));
			latencyNs.store(std::chrono::nanoseconds(Clock::now() - sent).count(), std::memory_order_release);
		}
		consumed.fetch_add(1, std::memory_order_release);
	}
};

class Contestant {
public:
	virtual ~Contestant() = default;
	virtual bool add(const Message& message) = 0;
};

class Instance : public Contestant {
public:
	Instance(int workers, int capacity, Sink& sink) {
		mInstance.mOwner = &sink;
		mInstance.Create(consume, workers, capacity, 0, 0, 1);
	}
	bool add(const Message& m) override {
		return mInstance.Add(m.word1, m.word2, m.word3, m.pointer1, m.pointer2) != nullptr;
	}

private:
	static int consume(Cqor_MQWorker* worker, eqor_QUEUE_ITEM* item, int code) {
		if (code == 0) static_cast<Sink*>(worker->mInstance->mOwner)->take(item->mPointer1);
		return 0;
	}
	Cqor_MQInstance mInstance;
};

class Condition : public Contestant {
public:
	Condition(int workers, int capacity, Sink& sink) : mQueue(workers, capacity, Take{&sink}) {}
	bool add(const Message& message) override { return mQueue.add(message); }

private:
	struct Take {
		Sink* sink;
		void operator()(const Message& message) const { sink->take(message.pointer1); }
	};
	ConditionQueue<Message, Take> mQueue;
};

#if defined(HAVE_CONCURRENTQUEUE)
/// Bounded by a count of its own: the queue's memory limit would starve a producer without a block.
class ConcurrentQueue : public Contestant {
public:
	ConcurrentQueue(int workers, int capacity, Sink& sink)
	    : mMessages(static_cast<size_t>(capacity)), mFree(capacity), mSink(sink) {
		for (int i = 0; i < workers; ++i) mWorkers.emplace_back([this] { serve(); });
	}
	~ConcurrentQueue() override {
		const Message end{0, 0, 0, this, nullptr};
		for (size_t i = 0; i < mWorkers.size(); ++i) mMessages.enqueue(end);
		for (auto& worker : mWorkers) worker.join();
	}
	bool add(const Message& message) override {
		int places = mFree.load(std::memory_order_relaxed);
		do {
			if (places == 0) return false;
		} while (!mFree.compare_exchange_weak(places, places - 1, std::memory_order_acq_rel));
		return mMessages.enqueue(message);
	}

private:
	void serve() {
		for (Message message;;) {
			mMessages.wait_dequeue(message);
			if (message.pointer1 == this) return;
			mFree.fetch_add(1, std::memory_order_acq_rel);
			mSink.take(message.pointer1);
		}
	}
	moodycamel::BlockingConcurrentQueue<Message> mMessages;
	alignas(64) std::atomic<int> mFree;
	Sink& mSink;
	std::vector<std::thread> mWorkers;
};
#endif

struct Entry {
	const char* name;
	std::function<std::unique_ptr<Contestant>(int workers, int capacity, Sink& sink)> make;
};

template <class Kind>
Entry entry(const char* name) {
	return {
	    name, [](int workers, int capacity, Sink& sink) { return std::make_unique<Kind>(workers, capacity, sink); }};
}

std::vector<Entry> contestants() {
	return {
		entry<Instance>("instance"), entry<Condition>("mutex+condition"),
#if defined(HAVE_CONCURRENTQUEUE)
		    entry<ConcurrentQueue>("lock-free"),
#endif
	};
}

double quantile(std::vector<double>& values, double q) {
	std::sort(values.begin(), values.end());
	return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1) + 0.5)];
}

/// @return million messages per second, from the first add to the last message consumed.
double throughput(const Entry& contestant, int producers, int workers, int capacity, uint64_t items) {
	Sink sink;
	const auto queue = contestant.make(workers, capacity, sink);
	std::atomic<bool> go{false};
	std::vector<std::thread> threads;
	const uint64_t share = items / static_cast<uint64_t>(producers);
	for (int p = 0; p < producers; ++p)
		threads.emplace_back([&] {
			while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
			for (uint64_t i = 0; i < share; ++i) {
				const Message message{1, static_cast<uint32_t>(i), 3, nullptr, nullptr};
				while (!queue->add(message)) std::this_thread::yield();
			}
		});
	const auto start = Clock::now();
	go.store(true, std::memory_order_release);
	for (auto& thread : threads) thread.join();
	while (sink.consumed.load(std::memory_order_acquire) < share * static_cast<uint64_t>(producers))
		std::this_thread::yield();
	const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
	return static_cast<double>(share * static_cast<uint64_t>(producers)) / seconds * 1e-6;
}

/// Microseconds from an add to a sleeping worker to its callback, `count` times.
void wakeUps(const Entry& contestant, int count, std::vector<double>& microseconds) {
	Sink sink;
	sink.measureLatency = true;
	const auto queue = contestant.make(1, 16, sink);
	for (int i = 0; i < count; ++i) {
		std::this_thread::sleep_for(std::chrono::microseconds(500)); // long enough for the worker to sleep
		sink.latencyNs.store(-1, std::memory_order_relaxed);
		const intptr_t stamp = Clock::now().time_since_epoch().count();
		queue->add({1, 2, 3, reinterpret_cast<void*>(stamp), nullptr});
		while (sink.latencyNs.load(std::memory_order_acquire) < 0)
			std::this_thread::sleep_for(std::chrono::microseconds(50));
		microseconds.push_back(static_cast<double>(sink.latencyNs.load(std::memory_order_acquire)) * 1e-3);
	}
}

void printThroughput(const std::vector<Entry>& entries, uint64_t items, int repetitions) {
	std::printf("million messages a second (%llu a run, %d interleaved runs)\n%-9s %-7s %-5s",
	    static_cast<unsigned long long>(items), repetitions, "producers", "workers", "pool");
	for (const Entry& e : entries) std::printf(" %18s", e.name);
	for (size_t i = 1; i < entries.size(); ++i) std::printf("  x %-15s", entries[i].name);
	std::printf("\n");
	for (const int producers : {1, 4})
		for (const int workers : {1, 4})
			for (const int capacity : {16, 1000}) {
				std::vector<std::vector<double>> rates(entries.size());
				for (int r = 0; r < repetitions; ++r)
					for (size_t i = 0; i < entries.size(); ++i)
						rates[i].push_back(throughput(entries[i], producers, workers, capacity, items));
				std::printf("%-9d %-7d %-5d", producers, workers, capacity);
				for (auto& rate : rates)
					std::printf("    %7.3f +- %4.0f%%", quantile(rate, 0.5),
					    (quantile(rate, 0.75) - quantile(rate, 0.25)) / quantile(rate, 0.5) * 50.0);
				for (size_t i = 1; i < rates.size(); ++i)
					std::printf("  %-17.2f", quantile(rates[0], 0.5) / quantile(rates[i], 0.5));
				std::printf("\n");
				std::fflush(stdout);
			}
}

void printWakeUps(const std::vector<Entry>& entries, int repetitions) {
	std::vector<std::vector<double>> times(entries.size());
	for (int r = 0; r < repetitions; ++r)
		for (size_t i = 0; i < entries.size(); ++i) wakeUps(entries[i], 500, times[i]);
	std::printf("\nwake-up of a sleeping worker, microseconds (%zu each)\n%-18s %8s %8s %8s\n", times[0].size(), "",
	    "median", "99%", "99.9%");
	for (size_t i = 0; i < entries.size(); ++i)
		std::printf("%-18s %8.1f %8.1f %8.1f\n", entries[i].name, quantile(times[i], 0.5), quantile(times[i], 0.99),
		    quantile(times[i], 0.999));
}

} // namespace

int main(int argc, char** argv) {
	const uint64_t items = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 200000;
	const int repetitions = argc > 2 ? std::atoi(argv[2]) : 11;
	if (items < 4 || repetitions < 1) {
		std::fprintf(stderr, "queue_bench [items per run, at least 4] [repetitions]\n");
		return 2;
	}
	const auto entries = contestants();
	printThroughput(entries, items, repetitions);
	printWakeUps(entries, repetitions);
	return 0;
}
