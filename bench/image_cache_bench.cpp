// Borrowing and giving back a page of an image cache, beside what a program would pick instead:
// a pool in a std::multimap under a mutex for the bookkeeping, malloc and free for the memory.
//
//   image_cache_bench [repetitions]
//
// Repetitions are interleaved; a cell is the median of nanoseconds for a borrow and its release.
#include <qor/storage/image_cache.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// Sizes of the pages, all different, 64 to 576 KB. Requests are drawn from the same range.
std::vector<size_t> mixedSizes(size_t count, unsigned seed) {
	std::mt19937 random(seed);
	std::vector<size_t> sizes(count);
	for (size_t& size : sizes) size = (64 << 10) + random() % (512 << 10);
	return sizes;
}

class Contestant {
public:
	virtual ~Contestant() = default;
	virtual void fill(const std::vector<size_t>& sizes) = 0;
	virtual void* borrow(size_t size, void** memory) = 0;
	virtual void giveBack(void* page) = 0;
};

class Cache : public Contestant {
public:
	void fill(const std::vector<size_t>& sizes) override {
		mManager.Create(0);
		for (const size_t size : sizes) mManager.Add(size);
	}
	void* borrow(size_t size, void** memory) override {
		CqorICachePage* page = mManager.BorrowPage(1, size, 0);
		*memory = page ? page->GetMemory() : nullptr;
		return page;
	}
	void giveBack(void* page) override { mManager.ReleasePage(static_cast<CqorICachePage*>(page)); }

private:
	CqorICachePageMan mManager;
};

class MapPool : public Contestant {
public:
	~MapPool() override {
		for (auto& page : mPages) std::free(page->memory);
	}
	void fill(const std::vector<size_t>& sizes) override {
		for (const size_t size : sizes) {
			mPages.push_back(std::make_unique<Page>(Page{size, std::malloc(size)}));
			mFree.emplace(size, mPages.back().get());
		}
	}
	void* borrow(size_t size, void** memory) override {
		const std::lock_guard lock(mMutex);
		const auto found = mFree.lower_bound(size);
		if (found == mFree.end()) return nullptr;
		Page* page = found->second;
		mFree.erase(found);
		*memory = page->memory;
		return page;
	}
	void giveBack(void* page) override {
		auto* given = static_cast<Page*>(page);
		const std::lock_guard lock(mMutex);
		mFree.emplace(given->size, given);
	}

private:
	struct Page {
		size_t size;
		void* memory;
	};
	std::mutex mMutex;
	std::multimap<size_t, Page*> mFree;
	std::vector<std::unique_ptr<Page>> mPages;
};

class Heap : public Contestant {
public:
	void fill(const std::vector<size_t>&) override {}
	void* borrow(size_t size, void** memory) override { return *memory = std::malloc(size); }
	void giveBack(void* page) override { std::free(page); }
};

void touch(void* memory, size_t size) {
	auto* bytes = static_cast<volatile char*>(memory);
	for (size_t i = 0; i < size; i += 4096) bytes[i] = 1;
}

/// Nanoseconds for each borrow with its release, seen by a thread.
double timed(Contestant& contestant, const std::vector<size_t>& requests, int threads, int loans, bool touched) {
	std::atomic<bool> go{false};
	std::vector<std::thread> borrowers;
	for (int t = 0; t < threads; ++t)
		borrowers.emplace_back([&, t] {
			while (!go.load(std::memory_order_acquire)) std::this_thread::yield();
			size_t next = static_cast<size_t>(t) * 37;
			for (int i = 0; i < loans; ++i) {
				const size_t size = requests[next++ % requests.size()];
				void* memory = nullptr;
				void* page = contestant.borrow(size, &memory);
				if (!page) continue;
				if (touched) touch(memory, size);
				contestant.giveBack(page);
			}
		});
	const auto start = Clock::now();
	go.store(true, std::memory_order_release);
	for (auto& borrower : borrowers) borrower.join();
	return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / loans / threads;
}

double median(std::vector<double>& values) {
	std::sort(values.begin(), values.end());
	return values[values.size() / 2];
}

struct Pair {
	double ours, other;
};

template <class Other>
Pair compare(const std::vector<size_t>& pages, const std::vector<size_t>& requests, int threads, int loans,
    bool touched, int repetitions) {
	Cache cache;
	Other other;
	cache.fill(pages);
	other.fill(pages);
	std::vector<double> ours, others;
	for (int r = 0; r <= repetitions; ++r) {
		const double a = timed(cache, requests, threads, loans, touched);
		const double b = timed(other, requests, threads, loans, touched);
		if (r == 0) continue; // warms up
		ours.push_back(a);
		others.push_back(b);
	}
	return {median(ours), median(others)};
}

void printBookkeeping(int repetitions) {
	std::printf("borrow and release, memory untouched (ns)\n%-7s %-7s %9s %15s %7s %16s\n", "threads", "pages", "cache",
	    "mutex+multimap", "x", "growth to 10000");
	for (const int threads : {1, 4}) {
		double few = 0;
		for (const size_t count : {10, 1000, 10000}) {
			const auto p = compare<MapPool>(
			    mixedSizes(count, 1), mixedSizes(1009, 2), threads, 100000 / threads, false, repetitions);
			if (count == 10) few = p.ours;
			std::printf("%-7d %-7zu %9.1f %15.1f %7.2f", threads, count, p.ours, p.other, p.other / p.ours);
			if (count == 10000) std::printf(" %16.2f", p.ours / few);
			std::printf("\n");
		}
	}
}

void printImages(int repetitions) {
	std::printf("\nborrow, touch every 4 KB and release, ten pages (us)\n%-7s %-9s %9s %15s %7s\n", "threads", "KB",
	    "cache", "malloc+free", "x");
	for (const int threads : {1, 4})
		for (const size_t size : {size_t{256} << 10, size_t{4} << 20, size_t{40} << 20}) {
			const auto loans = static_cast<int>((size_t{1} << 30) / size) / threads;
			const auto p = compare<Heap>(std::vector<size_t>(10, size), {size}, threads, loans, true, repetitions);
			std::printf("%-7d %-9zu %9.2f %15.2f %7.1f\n", threads, size >> 10, p.ours * 1e-3, p.other * 1e-3,
			    p.other / p.ours);
		}
}

void printChanges(int repetitions) {
	std::printf("\na page added, deleted; first free page found by growing it a little (us)\n%-7s %9s %9s %9s\n",
	    "pages", "Add", "Delete", "grow");
	for (const size_t count : {10, 1000, 10000}) {
		std::vector<double> add, remove, grow;
		for (int r = 0; r < repetitions; ++r) {
			CqorICachePageMan manager;
			manager.Create(0);
			auto start = Clock::now();
			const auto lap = [&start](std::vector<double>& times, size_t steps) {
				const auto now = Clock::now();
				times.push_back(
				    std::chrono::duration<double, std::micro>(now - start).count() / static_cast<double>(steps));
				start = now;
			};
			for (const size_t size : mixedSizes(count, 1)) manager.Add(size);
			lap(add, count);
			size_t size = size_t{1} << 20;
			for (int i = 0; i < 100; ++i)
				manager.ReleasePage(manager.BorrowPage(1, size += 64, CqorICachePageMan::kGrowPages));
			lap(grow, 100);
			while (CqorICachePage* page = manager.Get(0)) manager.DeletePage(page);
			lap(remove, count);
		}
		std::printf("%-7zu %9.2f %9.2f %9.2f\n", count, median(add), median(remove), median(grow));
	}
}

} // namespace

int main(int argc, char** argv) {
	const int repetitions = argc > 1 ? std::atoi(argv[1]) : 9;
	if (repetitions < 1) {
		std::fprintf(stderr, "image_cache_bench [repetitions]\n");
		return 2;
	}
	printBookkeeping(repetitions);
	printImages(repetitions);
	printChanges(repetitions);
	return 0;
}
