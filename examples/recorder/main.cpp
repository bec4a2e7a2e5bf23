// A host of the library: records a camera, plays recordings back, verifies them.

#include "camera.h"
#include "capture_info.h"
#include "playback.h"
#include "recording.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace {

int list(const std::string& plugIns, const std::string& log) {
	appRawInit(log.c_str(), 0);
	CameraHost host;
	if (!host.load(plugIns)) return kExitTrouble;
	std::cout << host.plugInCount() << " plug-ins, " << host.cameraCount() << " cameras, " << host.timingDeviceCount()
	          << " timing devices\n";
	for (size_t i = 0; i < host.cameraCount(); ++i)
		std::cout << i << "  " << host.camera(i).plugIn << "  " << host.camera(i).description() << "\n";
	return kExitGood;
}

void addRecordOptions(CLI::App& command, RecordOptions& options) {
	command.add_option("--plugins", options.plugIns, "folder of the camera plug-ins")->required();
	command.add_option("--camera", options.camera, "number or part of the name, from 'list'")->capture_default_str();
	command.add_option("--storage", options.storage, "folder of the recording; made when missing")->required();
	command.add_option("--seconds", options.seconds, "stop after this time")->check(CLI::NonNegativeNumber);
	command.add_option("--frames", options.frames, "stop after this many frames");
	command.add_option("--width", options.width, "pixels")->check(CLI::PositiveNumber);
	command.add_option("--height", options.height, "lines")->check(CLI::PositiveNumber);
	command.add_option("--rate", options.frameRate, "frames a second")->check(CLI::PositiveNumber);
	command.add_option("--exposure", options.exposure, "in the camera's unit")->check(CLI::PositiveNumber);
	command.add_option("--pixel-format", options.pixelFormat, "as the camera names it, for example Mono16");
	command.add_option("--set", options.settings, "feature=value (text, integer or float), may be repeated");
	command.add_option("--size-mb", options.sizeMB, "size of a data file that is made now")
	    ->check(CLI::Range(16, 16777216))
	    ->capture_default_str();
	command.add_option("--buffers", options.buffers, "storage buffers, at least 2")->check(CLI::Range(2, 1000));
	command.add_option("--frames-per-buffer", options.framesPerBuffer, "at least 2")->check(CLI::Range(2, 100000));
	command.add_option("--camera-buffers", options.cameraBuffers, "frame buffers of the camera")
	    ->check(CLI::Range(1, 10000))
	    ->capture_default_str();
	command.add_flag("--quiet", options.quiet, "no progress line");
}

CLI::App* addPlayCommand(CLI::App& app, const char* name, const char* text, PlayOptions& options) {
	auto* command = app.add_subcommand(name, text);
	command->add_option("--storage", options.storage, "folder of the recording")->required();
	command->add_option("--log", options.log, "file for the log; reading a recording writes nothing else");
	command->add_option("--session", options.session, "number of the session; all when not given")
	    ->check(CLI::NonNegativeNumber);
	return command;
}

} // namespace

int main(int argc, char** argv) {
	CLI::App app(
	    "Records cameras and plays recordings back.\n"
	    "Exit code: 0 good, 1 frames lost, damaged or fewer than asked for, 2 wrong command line, 3 anything else.");
	app.require_subcommand(1);
	std::string plugIns, log;
	auto* listing = app.add_subcommand("list", "show the cameras of a plug-in folder");
	listing->add_option("--plugins", plugIns, "folder of the camera plug-ins")->required();
	listing->add_option("--log", log, "file for the log");
	RecordOptions recordOptions;
	auto* recording = app.add_subcommand("record", "record a camera; Ctrl-C stops in order");
	addRecordOptions(*recording, recordOptions);
	PlayOptions options;
	auto* listSessions = addPlayCommand(app, "sessions", "show the sessions of a recording", options);
	auto* playing = addPlayCommand(app, "play", "write frames as PGM files", options);
	playing->add_option("--export", options.exportTo, "folder of the files; made when missing")->required();
	auto* verifying = addPlayCommand(app, "verify", "read every frame back and check it", options);
	verifying->add_option("--against", options.against, "folder of numbered .pgm files that the frames must equal");
	verifying->add_flag("--quiet", options.quiet, "no progress line");
	for (auto* command : {playing, verifying}) {
		command->add_option("--first", options.first, "first frame")->check(CLI::NonNegativeNumber);
		command->add_option("--count", options.count, "number of frames")->check(CLI::NonNegativeNumber);
	}
	auto* repairing = addPlayCommand(app, "repair", "rebuild damaged index records from the frames' places", options);
	auto* resetting = addPlayCommand(app, "reset", "forget all sessions of a recording", options);
	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError& error) {
		return app.exit(error) == 0 ? kExitGood : kExitUsage;
	}
	int result = kExitUsage;
	if (*listing) result = list(plugIns, log);
	if (*recording) result = record(recordOptions);
	if (*listSessions) result = sessions(options);
	if (*playing) result = play(options);
	if (*verifying) result = verify(options);
	if (*repairing) result = repair(options);
	if (*resetting) result = reset(options);
	appUinit();
	return result;
}
