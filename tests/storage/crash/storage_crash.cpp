// A recorder that is killed at random moments loses at most the frames not yet written.
//
//     storage_crash <rounds> [seed]      kills itself as a child that many times
//     storage_crash record <folder>      the child: records until it is killed
//
// After each kill the session list loads, every frame that any session counts is whole and
// correct, and the storage goes on recording.

#include "../storage_fixture.h"
#include "child_process.h"

#include <cstdio>
#include <cstdlib>
#include <random>
#include <thread>

using namespace storage_test;

namespace {

constexpr unsigned kFrameSize = 20000;
constexpr int kDataMB = 24;

/// Sessions of varying length until killed; a full target starts again.
int record(const std::string& folder) {
	CmsStorage storage;
	createIn(storage, folder, kDataMB);
	for (unsigned run = 0;; ++run) {
		if (storage.GetAvailableSpace() < (4 << 20)) storage.ResetAll();
		CmsSession* session = begin(storage, kFrameSize, 4, 3);
		if (!storage.IsReady() || !session) return 2;
		for (unsigned i = 0; i < 20 + run % 30; ++i) {
			while (session->Feed(pattern(kFrameSize, i).data()) != 0) std::this_thread::yield();
		}
		session->StopRecord();
	}
}

/// @return frames checked; -1 after a fault.
int check(const std::string& folder) {
	CmsStorage storage;
	createIn(storage, folder, kDataMB);
	int checked = 0;
	for (int s = 0; s < storage.GetSessionList().GetCount(); ++s) {
		CmsSession& session = *storage.GetSessionList().GetSession(s);
		for (unsigned i = 0; i < session.mSession.mFrameCount; ++i, ++checked) {
			if (isThere(session, i, i)) continue;
			std::printf("session %d frame %u of %u is not what was fed\n", s, i, session.mSession.mFrameCount);
			return -1;
		}
	}
	CmsSession* more = begin(storage, kFrameSize, 4, 3);
	const bool goesOn =
	    storage.IsReady() && more && (!more->mSession.mMaxFrameCount || more->Feed(pattern(kFrameSize, 0).data()) == 0);
	return goesOn && !fs::exists(folder + "/list.damaged") ? checked : -1;
}

} // namespace

int main(int argc, char** argv) {
	if (argc == 3 && std::string(argv[1]) == "record") return record(argv[2]);
	const int rounds = argc > 1 ? std::atoi(argv[1]) : 10;
	const unsigned seed = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : std::random_device()();
	const test_support::TempFolder folder;
	check(folder.path()); // the files are made before the clock runs
	std::mt19937 random(seed);
	std::printf("seed %u\n", seed);
	long long frames = 0;
	int result = 0;
	for (int round = 0; round < rounds && result == 0; ++round) {
		ChildProcess child(argv[0], "record", folder.path());
		std::this_thread::sleep_for(std::chrono::microseconds(5000 + random() % 150000));
		const bool killed = child.kill();
		const int checked = check(folder.path());
		result = !killed || checked < 0;
		if (result) std::printf("round %d: %s\n", round, killed ? "damage" : "the child ended by itself");
		frames += std::max(checked, 0);
	}
	std::printf("%d kills, %lld frames checked\n", rounds, frames);
	return frames == 0 ? 1 : result; // nothing was ever recorded: nothing was tested
}
