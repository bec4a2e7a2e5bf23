// A multi-queue beside one queue instance with as many workers in all, and beside what a host
// would write instead: a set of bounded deques, each under a mutex with a condition variable,
// with the items dealt out in turn. Four producers; one that finds no place yields and tries
// again. The first block scales the number of instances, the second compares at each of them.
//
//   multi_queue_bench [items per run] [repetitions]
//
// Repetitions are interleaved; a cell is the median with half the distance of its quartiles.
#include "condition_queue.h"

#include <qor/threads/multi_queue_instance.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kProducers = 4;
constexpr int kWorkers = 4; // in all

/// What every consumer does with a message; a line of its own for each worker.
struct alignas(64) Counter {
	std::atomic<uint64_t> consumed{0};
};
Counter counters[64];
std::atomic<unsigned> nextCounter{0};

void consume() {
	thread_local Counter& counter = counters[nextCounter.fetch_add(1) % std::size(counters)];
	counter.consumed.fetch_add(1, std::memory_order_release);
}

uint64_t consumed() {
	uint64_t sum = 0;
	for (const Counter& counter : counters) sum += counter.consumed.load(std::memory_order_acquire);
	return sum;
}

class Contestant {
public:
	virtual ~Contestant() = default;
	virtual bool add(unsigned word) = 0;
};

class Single : public Contestant {
public:
	Single(int, int capacity) { mInstance.Create(callBack, kWorkers, capacity, 0, 0, 1); }
	bool add(unsigned word) override { return mInstance.Add(1, word, 3, nullptr, nullptr) != nullptr; }

private:
	static int callBack(Cqor_MQWorker*, eqor_QUEUE_ITEM*, int code) {
		if (code == 0) consume();
		return 0;
	}
	Cqor_MQInstance mInstance;
};

class Multi : public Contestant {
public:
	Multi(int instances, int capacity) {
		mMulti.Create(callBack, instances, kWorkers / instances, capacity / instances, 0, 0);
	}
	bool add(unsigned word) override { return mMulti.Add(1, word, 3, nullptr, nullptr) != nullptr; }

private:
	static int callBack(Cqor_MultiMQInstance*, Cqor_MQWorker*, eqor_QUEUE_ITEM*, int code) {
		if (code == 0) consume();
		return 0;
	}
	Cqor_MultiMQInstance mMulti;
};

struct Message {
	unsigned word1, word2, word3;
	void* pointer1;
	void* pointer2;
};

/// Dealt out by an atomic counter: less than the multi-queue promises, which never skips a turn.
class ConditionSet : public Contestant {
public:
	ConditionSet(int queues, int capacity) {
		for (int i = 0; i < queues; ++i)
			mQueues.push_back(std::make_unique<Queue>(kWorkers / queues, capacity / queues, Consume()));
	}
	bool add(unsigned word) override {
		const size_t start = mNext.fetch_add(1, std::memory_order_relaxed);
		for (size_t t = 0; t < mQueues.size(); ++t)
			if (mQueues[(start + t) % mQueues.size()]->add({1, word, 3, nullptr, nullptr})) return true;
		return false;
	}

private:
	struct Consume {
		void operator()(const Message&) const { consume(); }
	};
	using Queue = ConditionQueue<Message, Consume>;
	std::vector<std::unique_ptr<Queue>> mQueues;
	std::atomic<size_t> mNext{0};
};

struct Entry {
	const char* name;
	std::function<std::unique_ptr<Contestant>(int instances, int capacity)> make;
};

template <class Kind>
Entry entry(const char* name) {
	return {name, [](int instances, int capacity) { return std::make_unique<Kind>(instances, capacity); }};
}

/// @return million messages a second, from the first add to the last message consumed.
double throughput(const Entry& contestant, int instances, int capacity, uint64_t items) {
	const auto queue = contestant.make(instances, capacity);
	const uint64_t share = items / kProducers, before = consumed();
	std::atomic<bool> go{false};
	std::vector<std::thread> threads;
	for (int p = 0; p < kProducers; ++p)
		threads.emplace_back([&] {
			while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
			for (uint64_t i = 0; i < share; ++i)
				while (!queue->add(static_cast<unsigned>(i))) std::this_thread::yield();
		});
	const auto start = Clock::now();
	go.store(true, std::memory_order_release);
	for (auto& thread : threads) thread.join();
	while (consumed() - before < share * kProducers) std::this_thread::yield();
	const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
	return static_cast<double>(share * kProducers) / seconds * 1e-6;
}

double quantile(std::vector<double>& values, double q) {
	std::sort(values.begin(), values.end());
	return values[static_cast<size_t>(q * static_cast<double>(values.size() - 1) + 0.5)];
}

} // namespace

int main(int argc, char** argv) {
	const uint64_t items = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 200000;
	const int repetitions = argc > 2 ? std::atoi(argv[2]) : 5;
	if (items < kProducers || repetitions < 1) {
		std::fprintf(stderr, "multi_queue_bench [items per run, at least %d] [repetitions]\n", kProducers);
		return 2;
	}
	const Entry entries[] = {
	    entry<Multi>("multi-queue"), entry<Single>("one instance"), entry<ConditionSet>("mutex+condition")};
	std::printf("million messages a second, %d producers, %d workers in all (%llu a run, %d interleaved runs)\n"
	            "%-6s %-9s",
	    kProducers, kWorkers, static_cast<unsigned long long>(items), repetitions, "places", "instances");
	for (const Entry& e : entries) std::printf(" %18s", e.name);
	std::printf("   x one inst.  x mutex+cond.  x 1 instance\n");
	for (const int capacity : {16, 1000}) {
		double withOne = 0;
		for (const int instances : {1, 2, 4}) {
			std::vector<double> rates[std::size(entries)];
			for (int r = 0; r < repetitions; ++r)
				for (size_t i = 0; i < std::size(entries); ++i)
					rates[i].push_back(throughput(entries[i], instances, capacity, items));
			std::printf("%-6d %-9d", capacity, instances);
			for (auto& rate : rates)
				std::printf("    %7.3f +- %4.0f%%", quantile(rate, 0.5),
				    (quantile(rate, 0.75) - quantile(rate, 0.25)) / quantile(rate, 0.5) * 50.0);
			const double ours = quantile(rates[0], 0.5);
			if (instances == 1) withOne = ours;
			std::printf("  %11.2f  %13.2f  %12.2f\n", ours / quantile(rates[1], 0.5), ours / quantile(rates[2], 0.5),
			    ours / withOne);
			std::fflush(stdout);
		}
	}
	return 0;
}
