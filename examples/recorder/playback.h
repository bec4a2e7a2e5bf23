#pragma once

#include <string>

struct PlayOptions {
	std::string storage;
	std::string log;  // file for the log; empty: none
	int session = -1; // -1: all
	long long first = 0;
	long long count = -1; // -1: to the end
	std::string exportTo; // folder of the PGM files
	std::string against;  // folder of images that the frames must equal, in order
	bool quiet = false;
};

/// Writes frames as PGM files. @return an `ExitCode`.
int play(const PlayOptions& options);

/// Reads every frame back and checks it as far as its kind allows: the simulated camera's
/// pattern, an image file's own header, the files of a folder, the order of times and
/// frame numbers. @return `kExitFramesBad` when one is damaged or missing.
int verify(const PlayOptions& options);

/// Lists the sessions.
int sessions(const PlayOptions& options);

/// Forgets all sessions, so that the whole storage is free again.
int reset(const PlayOptions& options);

/// Rebuilds index records that a drive destroyed, and says what it did. Sessions whose place is
/// in doubt are left alone. @return `kExitFramesBad` when damaged records are left.
int repair(const PlayOptions& options);
