#include "runtime.h"

#include "../platform/clock.h"
#include "../platform/file.h"
#include "../platform/folder.h"
#include "../platform/format.h"
#include "../platform/machine.h"
#include "../platform/number.h"
#include "../platform/profile.h"
#include "log_internal.h"
#include "visible_text_internal.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>

namespace {

constexpr size_t kPathSize = 4096;
constexpr size_t kSpeedTextSize = 261;  // 260 characters
constexpr size_t kMaximumLogPath = 512; // characters
constexpr size_t kReportTextSize = 261;
constexpr char kDefaultConfigFile[] = "stapp_config.cfg";

// The texts bring a line end of their own and the writer adds another: an empty line
// follows each in the file. Readers of the file know it that way.
constexpr char kHeader[] = "Time in ms   Message\r\n";
constexpr char kSeparator[] = "------------------------------------------------------------"
                              "-----------------------------------------------------------\r\n";
constexpr char kReportTitle[] = "-< Machine Report >"
                                "------------------------------------------------------------"
                                "-----------------------------------------\r\n";
static_assert(sizeof(kSeparator) == 119 + sizeof("\r\n"));
static_assert(sizeof(kReportTitle) == 19 + 101 + sizeof("\r\n"));

char configFile[kPathSize];

/// Copies a path into the runtime's buffer, which it may come from itself; empties it for null.
/// @return false, the buffer empty, for one that does not fit: cut, it would name another file.
bool setConfigFile(const char* path) {
	const size_t length = path ? std::strlen(path) : 0;
	const bool fits = length < kPathSize;
	if (fits && path) std::memmove(configFile, path, length);
	configFile[fits ? length : 0] = 0;
	return fits;
}

/// The configuration file's path with the extension "LOG" instead of its own.
void deriveLogFile(char* out, size_t size) {
	const char* name = platform::fileNamePart(configFile);
	const char* point = std::strrchr(name, '.');
	const size_t nameLength = point ? static_cast<size_t>(point - name) : std::strlen(name);
	const auto length = static_cast<int>(static_cast<size_t>(name - configFile) + nameLength);
	platform::formatText(out, size, "%.*s.LOG", length, configFile);
}

/// @return ticks per nanosecond; 0 when they are not set.
double readProcessorSpeed() {
	char text[kSpeedTextSize] = "";
	platform::profileGetString("MAIN", "processor_speed", "", text, sizeof text, configFile);
	return text[0] ? platform::parseDecimal(text) : 0.0;
}

/// Finds the name of the log file. @return false, the name empty, for a setting that is too long: its
/// beginning would be the name of another file.
bool findLogFile(char* out, size_t size) {
	out[0] = 0;
	if (configFile[0] &&
	    platform::profileGetString("MAIN", "log_file", "", out, kMaximumLogPath + 2, configFile) > kMaximumLogPath) {
		out[0] = 0;
		return false;
	}
	if (!out[0]) deriveLogFile(out, size);
	return true;
}

/// `event` is "Started" or "Finished".
void writeBanner(const char* event, const platform::LocalTime& time) {
	static constexpr const char* kDays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
	static constexpr const char* kMonths[] = {
	    "Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
	appmsg("[ System %-8s    %s, %s %02d, %04d at %02d:%02d:%02d.%03d]", event, kDays[std::clamp(time.dayOfWeek, 0, 6)],
	    kMonths[std::clamp(time.month, 1, 12) - 1], time.day, time.year, time.hour, time.minute, time.second,
	    time.millisecond);
}

/// The part of the start that both ways share, from the log file on.
void start(const char* logFile, uint32_t share, double ticksPerSecond, const platform::LocalTime& time) {
	if (logFile[0]) {
		core::theLog().open(logFile, share);
		core::logWithoutTime(kHeader);
		core::logWithoutTime(kSeparator);
	}
	core::theLog().startTime(ticksPerSecond);
	writeBanner("Started", time);
	appMachineReport();
}

using TextSource = size_t (*)(char* out, size_t size);

void reportText(const char* label, TextSource source) {
	char text[kReportTextSize];
	source(text, sizeof text);
	appmsg("   %s %s", label, core::VisibleText(text).get());
}

} // namespace

int appInit(const char* configFilePath) {
	const platform::LocalTime time = platform::localTime();
	char logFile[kPathSize + sizeof(".LOG")] = "";
	const bool known = setConfigFile(configFilePath);
	const bool named = known && findLogFile(logFile, sizeof logFile);
	const double speed = configFile[0] ? readProcessorSpeed() : 0.0;
	const double ticksPerSecond = speed == 0.0 ? platform::counterFrequency() : speed * 1e9;
	start(logFile, platform::kShareRead, ticksPerSecond, time);
	if (!known) appmsg("[ERROR] the path of the configuration file is too long: no settings and no log file");
	if (known && !named) appmsg("[ERROR] \"log_file\" has more than %zu characters: no log file", kMaximumLogPath);
	return 1;
}

int appRawInit(const char* logFile, double ticksPerSecond) {
	const platform::LocalTime time = platform::localTime();
	const char defaultLogFile[] = {'.', platform::kPathSeparator, 'o', 'u', 't', 'p', 'u', 't', '.', 'l', 'o', 'g', 0};
	setConfigFile(kDefaultConfigFile);
	if (!(ticksPerSecond > 0)) ticksPerSecond = platform::counterFrequency();
	if (!(ticksPerSecond > 0)) ticksPerSecond = 1.0;
	// Unlike `appInit`, others may also write the file: hosts share one log this way.
	start(logFile ? logFile : defaultLogFile, platform::kShareRead | platform::kShareWrite, ticksPerSecond, time);
	return 1;
}

int appUinit() {
	const platform::LocalTime time = platform::localTime();
	core::theLog().removeWindows(); // first: windows on their way out get no closing lines
	core::logWithoutTime(kSeparator);
	writeBanner("Finished", time);
	core::theLog().close();
	return 1;
}

void appMachineReport() {
	core::logWithoutTime(kReportTitle);
	const platform::MemoryStatus memory = platform::memoryStatus();
	appmsg("   Processor Speed ............ %.2f", core::theLog().ticksPerSecond());
	appmsg("   Memory (TOTAL PHYSICAL) .... %I64d KB", static_cast<long long>(memory.totalPhysical >> 10));
	appmsg("   Memory (AVAIL PHYSICAL) .... %I64d KB", static_cast<long long>(memory.availablePhysical >> 10));
	reportText("Current Directory ..........", platform::currentDirectory);
	reportText("Current User ...............", platform::userName);
	reportText("Computer Name ..............", platform::computerName);
	appmsg("   OS Target .................. %d bits %s", 64, "");
	core::logWithoutTime(kSeparator);
}

void appmsg(const char* format, ...) {
	core::Log& log = core::theLog();
	char line[core::kLogLineSize + 2];
	size_t length = log.putTime(line);
	va_list arguments;
	va_start(arguments, format);
	length += platform::formatTextV(line + length, core::kLogLineSize - length, format ? format : "", arguments);
	va_end(arguments);
	log.deliver(line, length);
}

void appmsg_Raw(const char* text) {
	char line[core::kLogLineSize + 2];
	const size_t column = core::theLog().putTime(line);
	const size_t length = text ? strnlen(text, core::kLogLineSize - column - 1) : 0;
	if (length) std::memcpy(line + column, text, length);
	line[column + length] = 0;
	core::theLog().deliver(line, column + length);
}

double appGetTime() { return static_cast<double>(platform::counter()) / core::theLog().ticksPerSecond(); }

char* appGetConfigFile() { return configFile; }

int appAddLogWnd(HWND window) { return core::theLog().addWindow(window); }

void appLogSetFunc(std::function<bool(const char*)> function) { core::theLog().setCallback(std::move(function)); }

void appLogActivateMemList(bool active) { core::theLog().keepLines(active); }

std::size_t appLogGetMemListSize() { return core::theLog().lines().size(); }

const char* appLogGetMemListItem(std::size_t index) { return core::theLog().lines().fromNewest(index); }
