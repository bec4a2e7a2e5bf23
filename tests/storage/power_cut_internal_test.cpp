// Power cuts: what a recording leaves on a disk with a volatile cache, whenever the power goes,
// opens again, plays every frame that was promised, and can be recorded on.

#include "power_cut_disk.h"
#include "storage_fixture.h"

#include <atomic>
#include <chrono>
#include <thread>

using namespace storage_test;

namespace {

constexpr int kDataMB = 5;
constexpr unsigned kFrameSize = 5000;

/// From `after` operations on and until `until`, session `seed` has `frames` frames.
struct Promise {
	size_t after, until;
	unsigned seed, frames;
};

/// Records onto a power-cut disk and keeps what it was promised. A session carries its seed.
class Recorder {
public:
	explicit Recorder(PowerCutDisk& disk, std::vector<Promise> promises = {})
	    : mPromises(std::move(promises)), mDisk(disk) {
		mSeed += static_cast<unsigned>(mPromises.size());
		createIn(mStorage, "", kDataMB);
	}
	CmsSession* start(int buffers = 3) {
		CmsSession* session = begin(mStorage, kFrameSize, buffers, 2);
		if (session) session->SetUserData(&++mSeed, sizeof(mSeed));
		return session;
	}
	CmsSession* resume(int number) {
		CmsSession* session = mStorage.GetSessionList().GetSession(number);
		prepare(*session, 3);
		return session;
	}
	void feed(CmsSession* session, int frames) {
		for (int i = 0; session && i < frames; ++i) {
			if (i % 4 == 3) mStorage.WaitUntilWritten();
			session->Feed(pattern(kFrameSize, seedOf(*session) + session->mSession.mFrameCount).data());
		}
	}
	void stop(CmsSession* session) {
		if (!session) return;
		session->FreeResources();
		mPromises.push_back({mDisk.operations(), SIZE_MAX, seedOf(*session), session->GetWrittenFrameCount()});
	}
	/// From now on nothing is promised about what was recorded.
	void forget() {
		for (Promise& promise : mPromises) promise.until = std::min(promise.until, mDisk.operations());
	}
	static unsigned seedOf(const CmsSession& session) {
		unsigned seed;
		std::memcpy(&seed, session.mSession.mUser, sizeof(seed));
		return seed;
	}

	CmsStorage mStorage;
	std::vector<Promise> mPromises;

private:
	PowerCutDisk& mDisk;
	unsigned mSeed = 1000;
};

/// @return frames of all sessions; -1, with a failed expectation, when one is not what was fed.
int framesOf(CmsStorage& storage, std::map<unsigned, unsigned>* found) {
	int frames = 0;
	for (int s = 0; s < storage.GetSessionList().GetCount(); ++s) {
		CmsSession& session = *storage.GetSessionList().GetSession(s);
		const unsigned written = session.GetWrittenFrameCount(), seed = Recorder::seedOf(session);
		(*found)[seed] = written;
		for (unsigned i = 0; i < written; ++i, ++frames) {
			if (isThere(session, i, seed + i)) continue;
			ADD_FAILURE() << "session " << s << " frame " << i << " of " << written;
			return -1;
		}
	}
	return frames;
}

/// Opens what is left, checks it, records on, and checks again.
void check(const PowerCutDisk::State& left, const std::vector<Promise>& promises, size_t done) {
	PowerCutDisk disk(left);
	Recorder recorder(disk);
	ASSERT_TRUE(recorder.mStorage.IsReady());
	std::map<unsigned, unsigned> found;
	ASSERT_GE(framesOf(recorder.mStorage, &found), 0);
	for (const Promise& promise : promises) {
		const bool stands = promise.after <= done && done < promise.until;
		ASSERT_TRUE(!stands || found[promise.seed] >= promise.frames) << promise.seed;
	}
	CmsSession* more = recorder.start(2);
	ASSERT_TRUE(more);
	const unsigned other = 7777;
	more->SetUserData(&other, sizeof(other));
	recorder.feed(more, 3);
	more->FreeResources();
	ASSERT_TRUE(!more->mSession.mMaxFrameCount || more->GetWrittenFrameCount() == 3u);
	ASSERT_GE(framesOf(recorder.mStorage, &found), 0);
}

class PowerCut : public StorageTest {
protected:
	using Scenario = std::function<void(PowerCutDisk&, Recorder&)>;
	/// Runs a scenario on what `start` left and cuts it everywhere, as far as the time goes. @return its end.
	PowerCutDisk::State tryEverywhere(const char* name, const PowerCutDisk::State& start, const Scenario& run) {
		SCOPED_TRACE(name);
		PowerCutDisk disk(start);
		std::vector<Promise> promises;
		{
			Recorder recorder(disk, mPromises);
			run(disk, recorder);
			recorder.mStorage.Destroy();
			promises = recorder.mPromises;
		}
		constexpr size_t kStates = 80;
		const size_t step = disk.operations() * 4 / kStates + 1;
		disk.cutEverywhere([&](size_t done, const auto& chance) {
			if (done % step && done != disk.operations()) return;
			for (const unsigned seed : {0u, 1u, static_cast<unsigned>(done) + 2, static_cast<unsigned>(done) + 1000}) {
				SCOPED_TRACE(testing::Message() << "cut after " << done << " operations, chance " << seed);
				if (!HasFatalFailure()) check(chance(seed), promises, done);
				++mStates;
			}
		});
		if (mPromises.empty()) mPromises = promises, mPromises[0].after = 0;
		return disk.everything();
	}
	std::vector<Promise> mPromises; // of the first scenario, on which the others run
	size_t mStates = 0;
};

TEST_F(PowerCut, NothingPromisedIsLost) {
	const auto record = [](Recorder& r, int frames) {
		CmsSession* session = r.start();
		r.feed(session, frames);
		r.stop(session);
	};
	const auto good = tryEverywhere("a new storage", {}, [&](PowerCutDisk&, Recorder& r) { record(r, 7); });
	const std::pair<const char*, Scenario> scenarios[] = {{"two at once, one taken up again",
	                                                          [&](PowerCutDisk&, Recorder& r) {
		                                                          CmsSession* first = r.resume(0);
		                                                          CmsSession* second = r.start();
		                                                          r.feed(
		                                                              first, 3); // no room: the second stands behind it
		                                                          r.feed(second, 5);
		                                                          r.stop(second);
		                                                          first->FreeResources();
		                                                          r.feed(first = r.resume(1), 3);
		                                                          r.stop(first);
	                                                          }},
	    {"reset",
	        [&](PowerCutDisk&, Recorder& r) {
		        r.forget();
		        r.mStorage.ResetAll();
		        record(r, 5);
	        }},
	    {"reset that is not saved",
	        [&](PowerCutDisk& disk, Recorder& r) {
		        disk.failNext("rename list", 1);
		        EXPECT_EQ(r.mStorage.ResetAll(), 0x10000000);
		        r.feed(r.start(), 5); // refused
		        r.forget();
		        EXPECT_EQ(r.mStorage.ResetAll(), 0);
	        }},
	    {"removal without a save",
	        [&](PowerCutDisk&, Recorder& r) {
		        r.mStorage.GetSessionList().DeleteAll();
		        r.feed(r.start(), 5);
	        }},
	    {"a list that cannot be saved for a while",
	        [&](PowerCutDisk& disk, Recorder& r) {
		        disk.failNext("rename list", 2);
		        record(r, 9);
	        }},
	    {"a failed flush while the records of the next buffer have been written, too",
	        [&](PowerCutDisk& disk, Recorder& r) {
		        disk.failNext("flush index", 1);
		        disk.beforeFlushes("index", [&disk, before = disk.writesTo("index")] {
			        for (int i = 0; i < 2000 && disk.writesTo("index") < before + 2; ++i)
				        std::this_thread::sleep_for(std::chrono::milliseconds(1));
		        });
		        record(r, 8);
	        }}};
	for (const auto& [name, scenario] : scenarios) tryEverywhere(name, good, scenario);
	for (const int change : {-100, 37}) { // at the end of the list
		PowerCutDisk::State damaged = good;
		std::string& list = damaged.files[damaged.names["list"]];
		list.resize(list.size() + static_cast<size_t>(change), 'x');
		tryEverywhere("a damaged list", damaged, [&](PowerCutDisk&, Recorder& r) { record(r, 5); });
	}
	EXPECT_GT(mStates, 300u);
}

/// A neighbour that always has a buffer on its way does not hold up those who wait.
TEST_F(PowerCut, NobodyWaitsForWhatNeighboursQueueLater) {
	PowerCutDisk disk;
	Recorder recorder(disk);
	CmsSession* busy = recorder.start(8);
	std::atomic<int> frames{0};
	disk.beforeFlushes("index", [&] {
		for (int i = 0; i < 2 && frames < 60; ++i) frames += busy->Feed(pattern(kFrameSize, 0).data()) == 0;
	});
	for (int i = 0; i < 2; ++i) busy->Feed(pattern(kFrameSize, 0).data());
	const emsSTORAGE_SESSION other = busy->GetRecord();
	recorder.mStorage.GetSessionList().Add(&other)->PrepareToRecord(); // waits as StopRecord does
	EXPECT_LT(frames, 60);
	recorder.mStorage.WaitUntilWritten();
	while (frames < 60) std::this_thread::yield();
	disk.beforeFlushes("index", nullptr);
}

/// While the list cannot be saved, buffers are kept, until the session needs them.
TEST_F(PowerCut, BuffersAreKeptWhileTheListIsNotSaved) {
	PowerCutDisk disk;
	Recorder recorder(disk);
	CmsSession* one = recorder.start(3);
	const auto free = [one] {
		int count = 0;
		for (int i = 0; i < 3; ++i) count += one->GetBuffer(i)->mState == emsBUFFER_FREE;
		return count;
	};
	const auto feedBuffer = [&] {
		for (int i = 0; i < 2; ++i) EXPECT_EQ(one->Feed(pattern(kFrameSize, 0).data()), 0);
	};
	disk.failNext("rename list", 1000);
	for (unsigned long long failed = 1; failed <= 3; ++failed) {
		feedBuffer();
		while (recorder.mStorage.GetSessionList().GetFailedSaves() < failed) std::this_thread::yield();
		EXPECT_EQ(free(), 3 - static_cast<int>(failed));
	}
	feedBuffer(); // takes the oldest
	disk.failNext("rename list", 0);
	one->StopRecord();
	EXPECT_TRUE(free() == 3 && one->GetWrittenFrameCount() == 8 && !recorder.mStorage.GetSessionList().IsUnsaved());
}

} // namespace
