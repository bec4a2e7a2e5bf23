// What a frame costs on its way from a plug-in's thread to the host's callback, beside what a
// host would write instead: a map from numbers to shared objects under a shared mutex, with a
// std::function as callback. Both find the object by what the plug-in was given, keep it alive
// over the call, and refuse one that has gone.
//
//   device_events_bench [events per run] [repetitions]
//
// Repetitions are interleaved; a cell is the median.
#include <qor/plugins/video_capture.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Device {
	void* object = nullptr;
	qorSIO_Func callback = nullptr;
	static int function(void* context, unsigned long code, unsigned long, unsigned long, void* p1, void* p2) {
		if (code != qorSIO_OBJ_ATTACH) return QOR_SIO_FAILURE;
		*static_cast<Device*>(context) = {p1, reinterpret_cast<qorSIO_Func>(p2)};
		return QOR_SIO_OK;
	}
};

int arrived(void* context, CqorSIO_VideoCap*, unsigned long, unsigned long a, unsigned long, void*, void*) {
	*static_cast<unsigned long*>(context) += a;
	return 0;
}

/// The same with what the language's library has.
struct PlainCamera {
	std::function<void(unsigned long)> callback;
	std::atomic<long long> frames{0}, armed{0};
	std::atomic<double> last{0};
};

struct Registry {
	std::shared_mutex mutex;
	std::unordered_map<uintptr_t, std::shared_ptr<PlainCamera>> cameras;

	int event(uintptr_t identity, void* information) {
		std::shared_ptr<PlainCamera> camera;
		{
			const std::shared_lock lock(mutex);
			const auto found = cameras.find(identity);
			if (found == cameras.end()) return QOR_SIO_FAILURE;
			camera = found->second;
		}
		camera->last = std::chrono::duration<double>(Clock::now().time_since_epoch()).count();
		uint32_t words[2];
		std::memcpy(words, information, sizeof words);
		camera->callback(words[1]);
		++camera->frames;
		++camera->armed;
		return 0;
	}
};

/// Nanoseconds an event, every thread with a camera of its own.
template <class Event>
double measure(int threads, int events, Event event) {
	std::vector<std::thread> running;
	std::atomic<int> ready{0};
	std::vector<double> taken(static_cast<size_t>(threads));
	for (int t = 0; t < threads; ++t)
		running.emplace_back([&, t] {
			qorSIO_VCAP_FRAME_INFO info = {};
			++ready;
			while (ready < threads) std::this_thread::yield();
			const auto begin = Clock::now();
			for (int i = 0; i < events; ++i) event(t, &info);
			taken[static_cast<size_t>(t)] = std::chrono::duration<double, std::nano>(Clock::now() - begin).count();
		});
	for (auto& thread : running) thread.join();
	return *std::max_element(taken.begin(), taken.end()) / events;
}

double median(std::vector<double> values) {
	std::sort(values.begin(), values.end());
	return values[values.size() / 2];
}

} // namespace

int main(int count, char** arguments) {
	const int events = count > 1 ? std::atoi(arguments[1]) : 2000000;
	const int repetitions = count > 2 ? std::atoi(arguments[2]) : 9;
	std::printf("%8s %14s %14s %8s\n", "threads", "qor ns/frame", "plain ns/frame", "ratio");
	for (const int threads : {1, 2}) {
		std::vector<std::unique_ptr<CqorSIO_VideoCap>> cameras;
		std::vector<Device> devices(static_cast<size_t>(threads));
		std::vector<unsigned long> sums(static_cast<size_t>(threads) * 16); // a cache line each
		Registry registry;
		for (size_t t = 0; t < devices.size(); ++t) {
			cameras.push_back(std::make_unique<CqorSIO_VideoCap>());
			cameras[t]->SetUserCallBack(arrived, &sums[t * 16]);
			cameras[t]->piAccept(&devices[t], &Device::function);
			registry.cameras[t] = std::make_shared<PlainCamera>();
			registry.cameras[t]->callback = [sum = &sums[t * 16]](unsigned long a) { *sum += a; };
		}
		std::vector<double> ours, plain;
		for (int n = 0; n < repetitions; ++n) {
			ours.push_back(measure(threads, events, [&](int t, void* info) {
				const auto& device = devices[static_cast<size_t>(t)];
				device.callback(device.object, qorSIO_EVENT_DATA, 0, 0, info, nullptr);
			}));
			plain.push_back(
			    measure(threads, events, [&](int t, void* info) { registry.event(static_cast<uintptr_t>(t), info); }));
		}
		std::printf("%8d %14.1f %14.1f %8.2f\n", threads, median(ours), median(plain), median(plain) / median(ours));
	}
}
