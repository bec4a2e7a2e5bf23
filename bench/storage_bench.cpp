// Recording through a storage beside what a program would write itself: a bare loop of
// aligned, unbuffered, write-through writes of the same piece size to the same file; and Feed
// beside a bare memcpy of the frame. Passes alternate, so that both meet the same machine.
//
//   QOR_BENCH_SECONDS  seconds for each frame size and measurement (10)
//   QOR_BENCH_MB       size of the data file (8192)
//   QOR_BENCH_FOLDER   where it stands: a real disk with unbuffered writes (/var/tmp/qor_storage_bench)

#include "bare_file.h"

#include "qor/core/runtime.h"
#include "qor/storage/storage.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr long long kMB = 1 << 20;
constexpr int kBuffers = 8;
constexpr long long kBufferBytes = 32 * kMB;
constexpr long long kPiece = kTransferChunk;

double now() { return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count(); }

std::string setting(const char* name, const char* fallback) {
	const char* value = std::getenv(name);
	return value && *value ? value : fallback;
}

struct Pages {
	explicit Pages(long long bytes)
	    : data(static_cast<unsigned char*>(::operator new(static_cast<size_t>(bytes), kPage))) {
		std::memset(data, 0x5A, static_cast<size_t>(bytes));
	}
	~Pages() { ::operator delete(data, kPage); }
	static constexpr std::align_val_t kPage{4096};
	unsigned char* data;
};

struct Middle {
	double median, low, high;
};

Middle middleOf(std::vector<double> values) {
	std::sort(values.begin(), values.end());
	return values.empty() ? Middle{0, 0, 0} : Middle{values[values.size() / 2], values.front(), values.back()};
}

struct Bench {
	std::string folder = setting("QOR_BENCH_FOLDER", "/var/tmp/qor_storage_bench");
	double seconds = std::atof(setting("QOR_BENCH_SECONDS", "10").c_str());
	int sizeMB = std::atoi(setting("QOR_BENCH_MB", "8192").c_str());
	CmsStorage storage;
	Pages source{256 * kMB};

	std::string path(const char* name) const { return folder + "/" + name; }
	const unsigned char* frame(long long size, long long number) const {
		return source.data + number * size % (256 * kMB);
	}

	/// A fresh session over the whole target. @return null when it cannot be made.
	CmsSession* begin(long long frameSize) {
		storage.ResetAll();
		emsSTORAGE_SESSION record;
		storage.CalculateSession(&record, static_cast<unsigned int>(frameSize));
		CmsSession* session = storage.GetSessionList().Add(&record);
		if (!session || session->AllocResources(kBuffers, static_cast<int>(kBufferBytes / frameSize)) != 0)
			return nullptr;
		session->SetRecording(true);
		session->PrepareToRecord();
		return session;
	}

	static bool hasRoom(const CmsSession& session) {
		for (int i = 0; i < kBuffers; ++i) {
			if (session.GetBuffer(i)->mState <= emsBUFFER_FILLING) return true;
		}
		return false;
	}

	/// As fast as the storage takes frames. @return bytes per second.
	double recordPass(long long frameSize) {
		CmsSession* session = begin(frameSize);
		const long long perBuffer = kBufferBytes / frameSize;
		const long long frames = session->mSession.mMaxFrameCount / perBuffer * perBuffer;
		const double start = now();
		for (long long i = 0; i < frames; ++i) {
			while (!hasRoom(*session)) std::this_thread::sleep_for(std::chrono::microseconds(50));
			if (session->Feed(frame(frameSize, i)) != 0) std::abort();
		}
		storage.WaitUntilWritten();
		return static_cast<double>(frames * frameSize) / (now() - start);
	}

	double barePass() const {
		BareFile file(path("data"));
		const long long end = sizeMB * kMB / kBufferBytes * kBufferBytes;
		const double start = now();
		for (long long position = kPiece; position < end; position += kPiece) {
			if (!file.write(source.data + position % (256 * kMB), kPiece, position)) std::abort();
		}
		return static_cast<double>(end - kPiece) / (now() - start);
	}

	/// Feeds at a steady rate. @return frames refused; `fed` counts all.
	long long pacedPass(long long frameSize, double rate, long long* fed, std::vector<double>* feedTimes,
	    std::vector<double>* copyTimes, Pages* copies) {
		CmsSession* session = begin(frameSize);
		const long long frames = session->mSession.mMaxFrameCount;
		long long lost = 0;
		const double start = now();
		for (long long i = 0; i < frames; ++i) {
			const double due = start + static_cast<double>(i * frameSize) / rate;
			if (const double early = due - now(); early > 0)
				std::this_thread::sleep_for(std::chrono::duration<double>(early));
			const auto copy = [&] {
				const double before = now();
				std::memcpy(copies->data + i * frameSize % (kBuffers * kBufferBytes),
				    frame(frameSize, i + 128 * kMB / frameSize),
				    static_cast<size_t>(frameSize)); // not one the cache has
				copyTimes->push_back(now() - before);
			};
			if (copies && i % 2) copy(); // in turns: the first after the pause is slower
			const double before = now();
			lost += session->Feed(frame(frameSize, i)) != 0;
			if (feedTimes) feedTimes->push_back(now() - before);
			if (copies && i % 2 == 0) copy();
		}
		session->StopRecord();
		*fed += frames;
		return lost;
	}

	void measure(long long frameSize) {
		std::vector<double> recorded, bare, ratios;
		for (double spent = 0; spent < 2 * seconds || ratios.size() < 3;) {
			const double start = now();
			bare.push_back(barePass());
			recorded.push_back(recordPass(frameSize));
			ratios.push_back(recorded.back() / bare.back());
			spent += now() - start;
		}
		const double bareRate = middleOf(bare).median;
		const Middle ratio = middleOf(ratios);
		std::printf(
		    "%3lld MB/frame  throughput: storage %7.0f MB/s  bare %7.0f MB/s  ratio %.3f (%.3f to %.3f, %d pairs)\n",
		    frameSize / kMB, middleOf(recorded).median / kMB, bareRate / kMB, ratio.median, ratio.low, ratio.high,
		    static_cast<int>(ratios.size()));

		long long fed = 0;
		long long lost = 0;
		for (const double end = now() + seconds; now() < end;) {
			lost += pacedPass(frameSize, 0.9 * bareRate, &fed, nullptr, nullptr, nullptr);
		}
		std::printf(
		    "%3lld MB/frame  fed at 0.9 of the bare rate: %lld of %lld frames lost\n", frameSize / kMB, lost, fed);

		std::vector<double> feedTimes, copyTimes;
		Pages copies(kBuffers * kBufferBytes);
		for (const double end = now() + seconds; now() < end;) {
			lost += pacedPass(frameSize, 0.3 * bareRate, &fed, &feedTimes, &copyTimes, &copies);
		}
		const Middle feed = middleOf(feedTimes);
		const Middle copy = middleOf(copyTimes);
		std::printf("%3lld MB/frame  producer: Feed %8.1f us  memcpy %8.1f us  ratio %.3f (medians of %d)\n",
		    frameSize / kMB, feed.median * 1e6, copy.median * 1e6, feed.median / copy.median,
		    static_cast<int>(feedTimes.size()));
		std::fflush(stdout);
	}
};

} // namespace

int main() {
	Bench bench;
	std::filesystem::create_directories(bench.folder);
	appRawInit(bench.path("log").c_str(), 0);
	bench.storage.Create(
	    bench.path("list").c_str(), bench.path("index").c_str(), bench.path("data").c_str(), bench.sizeMB);
	if (!bench.storage.IsReady()) {
		std::printf("no data file in %s\n", bench.folder.c_str());
		return 1;
	}
	for (const long long size : {1, 4, 16}) bench.measure(size * kMB);
	bench.storage.Destroy();
	appUinit();
	std::filesystem::remove_all(bench.folder);
	return 0;
}
