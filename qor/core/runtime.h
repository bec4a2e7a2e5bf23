#pragma once

#include "../platform/export.h"
#include "../platform/types.h"

#include <cstddef>
#include <functional>

/// The process-wide runtime: time base, application log and configuration file.
///
/// A host calls `appInit` (or `appRawInit`) first and `appUinit` last. Every function may
/// also be called before and after: lines then reach the callback and the memory list but
/// no file. Any thread may log at any time. Start-up, shut-down and the settings (windows,
/// callback, memory list switch) belong to one thread; logging threads may run meanwhile.
///
/// What a host's function may do, everywhere in the library: it must not throw. An exception
/// that leaves a callback, a handler or another function that the library calls ends the process
/// (`abort`): nobody could tell whose work it interrupted, and a recording that went on beside it
/// would be a guess. A last line in the log file, and on the standard error output, says which
/// function it was and what was thrown. A callback and its context are exchanged together, and a
/// call that had begun may end with the old pair.
///
/// A line is cut at 8,191 characters including its time column. Texts are in the system's
/// ANSI code page and are never converted. Null texts count as empty.

/// The message that a registered window receives for a line, and the most windows there can be.
inline constexpr unsigned int kQorLogWindowMessage = 1124;
inline constexpr int kQorMaximumLogWindows = 8;

/// Starts the runtime from an initialisation file; the file need not exist.
///
/// Section "MAIN" gives "processor_speed" (counter ticks per nanosecond, with a decimal point in
/// every locale; absent or 0: the counter's own frequency) and "log_file" (at most 512 characters;
/// absent: `configFile` with the extension "LOG"). A longer "log_file" is not cut: there is no log
/// file then, and a line says so.
/// An existing log file is emptied; others may read it meanwhile. A second call re-reads
/// the settings, restarts the time column at 0 and writes a new banner into the same file.
/// @param configFile copied; one of more than 4,095 characters counts as empty, and there is no log file.
/// @return always 1, also when the log file cannot be made: lines then go everywhere else.
QOR_API int appInit(const char* configFile);

/// Starts the runtime without a configuration file.
/// @param logFile null: "output.log" in the current directory; empty: no log file. Others
///                may read and write the file meanwhile.
/// @param ticksPerSecond divisor of the counter; not above 0: the counter's own frequency.
/// @return always 1.
QOR_API int appRawInit(const char* logFile, double ticksPerSecond);

/// Writes the closing banner (no longer to windows: their table is emptied first) and
/// closes the log. Callback and memory list stay. @return always 1.
QOR_API int appUinit();

/// Writes processor speed, memory, directory, user and computer into the log.
QOR_API void appMachineReport();

/// Writes one line behind the time column ("%12.2f ", milliseconds since start-up).
/// The format takes the log's printf directives (`%I64d` included).
QOR_API void appmsg(const char* format, ...);

/// Writes one line behind the time column, the text as it is.
QOR_API void appmsg_Raw(const char* text);

/// Seconds since an arbitrary epoch, not since start-up: counter / ticks per second.
QOR_API double appGetTime();

/// The runtime's own buffer with the configuration file's path; "" before start-up,
/// "stapp_config.cfg" after `appRawInit`.
QOR_API char* appGetConfigFile();

/// Registers a window (eight at most) for every line. It receives message `kQorLogWindowMessage` with a
/// heap copy of the line as first parameter, which it frees with `free`. Single windows
/// cannot be taken off again; one that no longer exists is passed over.
/// @return 1; 0 when the table is full.
QOR_API int appAddLogWnd(HWND window);

/// Replaces the callback that receives every line (its result is ignored); an empty
/// function removes it; a call of the old one may still be running when this returns. It runs on
/// the logging thread, under the log lock, which keeps the receivers in one order: while it runs,
/// lines of other threads (of objects, too) wait 100 ms and then go past it, so it may wait for a
/// thread that logs. It may log itself: such lines reach it again, eight levels deep at most,
/// beyond that only the other receivers.
QOR_API void appLogSetFunc(std::function<bool(const char*)> function);

/// Switches the memory list on or off. Switching off keeps the lines stored so far.
QOR_API void appLogActivateMemList(bool active);

/// Lines stored so far.
QOR_API std::size_t appLogGetMemListSize();

/// A stored line counted from the newest: 0 is the newest, an index beyond the oldest
/// gives the oldest, an empty list null. Lines stay valid while the process runs.
QOR_API const char* appLogGetMemListItem(std::size_t index);
