// Power cuts: what a recording leaves on a disk with a volatile cache, whenever the power goes,
// opens again, plays every frame that was promised, and can be recorded on.

#include "power_cut_disk.h"
#include "storage_fixture.h"

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
	CmsSession* start(int buffers = 3, unsigned ahead = 0) {
		CmsSession* session = begin(mStorage, kFrameSize, buffers, 2, ahead);
		if (session) session->SetUserData(&++mSeed, sizeof(mSeed));
		return session;
	}
	CmsSession* resume(int number) {
		CmsSession* session = mStorage.GetSessionList().GetSession(number);
		session->AllocResources(3, 2);
		session->SetRecording(true);
		session->PrepareToRecord();
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
	/// Runs a scenario on what `start` left and cuts it everywhere, as far as the time goes.
	void tryEverywhere(const char* name, const PowerCutDisk::State& start, std::vector<Promise> promises,
	    const Scenario& run, size_t* states) {
		SCOPED_TRACE(name);
		PowerCutDisk disk(start);
		for (Promise& promise : promises) promise.after = 0;
		{
			Recorder recorder(disk, promises);
			run(disk, recorder);
			recorder.mStorage.Destroy();
			promises = recorder.mPromises;
		}
		constexpr size_t kStates = 120;
		const size_t step = disk.operations() * 4 / kStates + 1;
		disk.cutEverywhere(0, [&](size_t done, const auto& chance) {
			if (done % step && done != disk.operations()) return;
			for (const unsigned seed : {0u, 1u, static_cast<unsigned>(done) + 2, static_cast<unsigned>(done) + 1000}) {
				SCOPED_TRACE(testing::Message() << "cut after " << done << " operations, chance " << seed);
				if (!HasFatalFailure()) check(chance(seed), promises, done);
				++*states;
			}
		});
		mEnd = disk.everything();
		mPromises = promises;
	}
	PowerCutDisk::State mEnd;
	std::vector<Promise> mPromises;
};

TEST_F(PowerCut, NothingPromisedIsLost) {
	const auto session = [](int frames) {
		return [frames](PowerCutDisk&, Recorder& recorder) {
			CmsSession* one = recorder.start();
			recorder.feed(one, frames);
			recorder.stop(one);
		};
	};
	size_t states = 0;
	tryEverywhere("a new storage", {}, {}, session(7), &states);
	const PowerCutDisk::State good = mEnd;
	const std::vector<Promise> promised = mPromises;
	tryEverywhere(
	    "two at once, one taken up again", good, promised,
	    [](PowerCutDisk&, Recorder& recorder) {
		    CmsSession* two = recorder.resume(0);
		    recorder.feed(two, 3);
		    recorder.stop(two);
		    CmsSession* three = recorder.start();
		    recorder.feed(three, 5);
		    recorder.stop(three);
	    },
	    &states);
	tryEverywhere(
	    "reset", good, promised,
	    [&](PowerCutDisk& disk, Recorder& recorder) {
		    recorder.forget();
		    recorder.mStorage.ResetAll();
		    session(5)(disk, recorder);
	    },
	    &states);
	tryEverywhere(
	    "reset that is not saved", good, promised,
	    [&](PowerCutDisk& disk, Recorder& recorder) {
		    disk.failRenames("list", 1);
		    EXPECT_EQ(recorder.mStorage.ResetAll(), 0x10000000);
		    CmsSession* one = recorder.start();
		    recorder.feed(one, 5); // refused
		    recorder.forget();
		    EXPECT_EQ(recorder.mStorage.ResetAll(), 0);
	    },
	    &states);
	tryEverywhere(
	    "removal without a save", good, promised,
	    [&](PowerCutDisk&, Recorder& recorder) {
		    recorder.mStorage.GetSessionList().DeleteAll();
		    CmsSession* one = recorder.start();
		    recorder.feed(one, 5);
		    one->FreeResources();
	    },
	    &states);
	PowerCutDisk::State damaged = good;
	std::string& list = damaged.files[damaged.names["list"]];
	list.resize(list.size() - 100);
	tryEverywhere("a list that is cut at its end", damaged, promised, session(5), &states);
	list = good.files.at(good.names.at("list")) + std::string(37, 'x');
	tryEverywhere("a list that is too long", damaged, promised, session(5), &states);
	tryEverywhere(
	    "a list that cannot be saved for a while", good, promised,
	    [&](PowerCutDisk& disk, Recorder& recorder) {
		    disk.failRenames("list", 2);
		    session(9)(disk, recorder);
	    },
	    &states);
	tryEverywhere(
	    "a flush of the index that fails behind the next buffer", good, promised,
	    [&](PowerCutDisk& disk, Recorder& recorder) {
		    const int before = disk.writesTo("index");
		    disk.failFlushes("index", 1);
		    disk.beforeFlushes("index", [&disk, before] {
			    for (int i = 0; i < 2000 && disk.writesTo("index") < before + 2; ++i)
				    std::this_thread::sleep_for(std::chrono::milliseconds(1));
		    });
		    CmsSession* one = recorder.start(4);
		    recorder.feed(one, 3);
		    recorder.feed(one, 3);
		    recorder.feed(one, 2);
		    recorder.stop(one);
	    },
	    &states);
	EXPECT_GT(states, 500u);
	RecordProperty("states", static_cast<int>(states));
}

/// A neighbour that always has a buffer on its way does not hold up the end of a session.
TEST_F(PowerCut, SessionsEndBesideBusyNeighbours) {
	PowerCutDisk disk;
	Recorder recorder(disk);
	CmsSession* one = recorder.start();
	CmsSession* busy = recorder.start(8, 10);
	int frames = 0;
	disk.beforeFlushes("index", [&] {
		for (int i = 0; i < 2 && frames < 60; ++i) {
			frames += busy->Feed(pattern(kFrameSize, 0).data()) == 0;
		}
	});
	for (int i = 0; i < 2; ++i) busy->Feed(pattern(kFrameSize, 0).data());
	for (int i = 0; i < 3; ++i)
		one->Feed(pattern(kFrameSize, Recorder::seedOf(*one) + static_cast<unsigned>(i)).data());
	one->PrepareToRecord(); // waits as StopRecord does, without its pause
	EXPECT_LT(frames, 60);
	EXPECT_EQ(one->GetWrittenFrameCount(), 2u);
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
	disk.failRenames("list", 1000);
	for (unsigned long long failed = 1; failed <= 3; ++failed) {
		feedBuffer();
		while (recorder.mStorage.GetSessionList().GetFailedSaves() < failed) std::this_thread::yield();
		EXPECT_EQ(free(), 3 - static_cast<int>(failed));
	}
	feedBuffer(); // takes the oldest
	disk.failRenames("list", 0);
	one->StopRecord();
	EXPECT_TRUE(free() == 3 && one->GetWrittenFrameCount() == 8 && !recorder.mStorage.GetSessionList().IsUnsaved());
}

} // namespace
