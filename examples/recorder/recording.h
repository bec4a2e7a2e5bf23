#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct RecordOptions {
	std::string plugIns;
	std::string camera = "0";
	std::string storage;
	double seconds = 0;  // 0: no limit
	uint64_t frames = 0; // 0: no limit
	int width = 0, height = 0, exposure = 0;
	float frameRate = 0; // 0: the camera's own
	std::string pixelFormat;
	std::vector<std::string> settings;    // feature=value
	int sizeMB = 2048;                    // of a data file that is made now
	int buffers = 0, framesPerBuffer = 0; // 0: chosen from the frame size
	int cameraBuffers = 32;
	bool quiet = false;
};

/// Records until a limit, Ctrl-C, the end of the camera's frames or a full session.
/// @return an `ExitCode`: `kExitFramesBad` when a frame was lost, or less was recorded than asked for.
int record(const RecordOptions& options);
