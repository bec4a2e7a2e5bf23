// A host of the library: calibrates a camera from measured points and shows how good that is.

#include "calibration.h"
#include "simulation.h"

#include <CLI/CLI.hpp>

namespace {

CLI::App* addCalibration(CLI::App& app, const char* name, const char* text, CalibrationOptions& options) {
	auto* command = app.add_subcommand(name, text);
	command->add_option("file", options.file, "points, one a line")->required();
	command->add_option("--without", options.without, "numbers of points to leave out")->delimiter(',');
	command->add_option("--residuals", options.picture, "SVG file for a picture of the residuals");
	command->add_option("--exaggerate", options.factor, "length of its arrows beside the residuals")
	    ->check(CLI::Range(0.001, 1e6));
	return command;
}

} // namespace

int main(int argc, char** argv) {
	CLI::App app("Calibrates cameras from points measured in the world and in the image.\n"
	             "Exit code: 0 good, 1 no calibration, 2 wrong command line, 3 a file cannot be read or written.");
	app.require_subcommand(1);
	CalibrationOptions options;
	auto* camera = addCalibration(app, "camera", "from points in space: X Y Z u v", options);
	auto* plane = addCalibration(app, "plane", "from points of a plane: a b u v", options);
	SimulationOptions simulation;
	auto* simulating = app.add_subcommand("simulate", "write points of a known camera, for trials");
	simulating->add_option("file", simulation.file, "file of the points")->required();
	simulating->add_option("--points", simulation.points, "number of points")->check(CLI::Range(1, 1000000));
	simulating->add_option("--noise", simulation.noise, "pixels")->check(CLI::Range(0.0, 1e6));
	simulating->add_option("--height", simulation.height, "of the points' frame, mm")->check(CLI::Range(0.0, 1e6));
	simulating->add_option("--blunder", simulation.blunder, "number of a point that is measured wrongly");
	simulating->add_option("--seed", simulation.seed, "another one gives other errors");
	try {
		app.parse(argc, argv);
	} catch (const CLI::ParseError& error) {
		return app.exit(error) == 0 ? kExitGood : kExitUsage;
	}
	if (*camera) return calibrate(options, 3);
	if (*plane) return calibrate(options, 2);
	return *simulating ? simulate(simulation) : kExitUsage;
}
